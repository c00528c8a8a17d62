// The shared-memory status area as another process sees it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

/// A mapping of the area; the numbers below are the whole of its public layout.
class StatusArea {
 public:
  static constexpr const char* kPath = "/dev/shm/fsfilter";
  static constexpr size_t kSize = 41048;
  static constexpr size_t kSlots = 10;
  static constexpr size_t kMaskOffset = 40;
  static constexpr size_t kLockOffset = 44;
  static constexpr size_t kLockSize = 24;
  static constexpr size_t kOwnerOffset = 68;
  static constexpr size_t kAnsweredOffset = 72;
  static constexpr size_t kDeniedOffset = 80;
  static constexpr size_t kJobsOffset = 88;
  static constexpr size_t kInclusionsOffset = 10328;
  static constexpr size_t kExclusionsOffset = 20568;
  static constexpr size_t kMountsOffset = 30808;
  static constexpr size_t kTextSize = 10240;

  /// Nothing while there is no area of the full size.
  static std::optional<StatusArea> map();

  StatusArea(StatusArea&& other) noexcept;
  StatusArea& operator=(StatusArea&&) = delete;
  ~StatusArea();

  uint64_t answered() const { return number<uint64_t>(kAnsweredOffset); }
  uint64_t denied() const { return number<uint64_t>(kDeniedOffset); }
  pid_t owner() const { return number<int32_t>(kOwnerOffset); }
  std::vector<std::string> jobs() const { return lines(kJobsOffset); }
  std::vector<std::string> inclusions() const { return lines(kInclusionsOffset); }
  std::vector<std::string> exclusions() const { return lines(kExclusionsOffset); }
  std::vector<std::string> mounts() const { return lines(kMountsOffset); }

  /// Puts a pid into a slot and sets the slot's bit, as another process would.
  void trust(size_t slot, pid_t pid);
  void distrust(size_t slot);

  /// Fills a part of the area with one byte.
  void scribble(size_t offset, size_t size, int byte);

  void set_owner(pid_t pid) { number<int32_t>(kOwnerOffset) = pid; }
  void set_mask(uint32_t mask) { number<uint32_t>(kMaskOffset) = mask; }
  void set_counts(uint64_t answered, uint64_t denied);

 private:
  explicit StatusArea(unsigned char* bytes) : bytes_(bytes) {}
  std::vector<std::string> lines(size_t offset) const;

  template <typename Number>
  std::atomic_ref<Number> number(size_t offset) const {
    return std::atomic_ref<Number>(*reinterpret_cast<Number*>(bytes_ + offset));
  }

  unsigned char* bytes_;
};

/// True when the area lists this mount.
bool is_registered(const std::string& mount);

}  // namespace e2e
