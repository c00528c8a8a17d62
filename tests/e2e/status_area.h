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

/// A mapping of the area, by the numbers of its public layout.
class StatusArea {
 public:
  static constexpr const char* path = "/dev/shm/fsfilter";
  static constexpr size_t total_size = 41048;
  static constexpr size_t slots = 10;
  static constexpr size_t mask_offset = 40;
  static constexpr size_t owner_offset = 68;
  static constexpr size_t answered_offset = 72;
  static constexpr size_t denied_offset = 80;
  static constexpr size_t jobs_offset = 88;
  static constexpr size_t inclusions_offset = 10328;
  static constexpr size_t exclusions_offset = 20568;
  static constexpr size_t mounts_offset = 30808;
  static constexpr size_t text_size = 10240;

  /// Nothing while there is no area of the full size.
  static std::optional<StatusArea> map();

  StatusArea(StatusArea&& other) noexcept;
  StatusArea& operator=(StatusArea&&) = delete;
  ~StatusArea();

  uint64_t answered() const { return number<uint64_t>(answered_offset); }
  uint64_t denied() const { return number<uint64_t>(denied_offset); }
  pid_t owner() const { return number<int32_t>(owner_offset); }
  std::vector<std::string> jobs() const { return lines(jobs_offset); }
  std::vector<std::string> inclusions() const { return lines(inclusions_offset); }
  std::vector<std::string> exclusions() const { return lines(exclusions_offset); }
  std::vector<std::string> mounts() const { return lines(mounts_offset); }

  /// Puts a pid into a slot and sets the slot's bit, as another process would.
  void trust(size_t slot, pid_t pid);
  void distrust(size_t slot);

  /// Fills a part of the area with one byte.
  void scribble(size_t offset, size_t size, int byte);

  void set_owner(pid_t pid) { number<int32_t>(owner_offset) = pid; }
  void set_mask(uint32_t mask) { number<uint32_t>(mask_offset) = mask; }
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

std::vector<std::string> lines_of(const std::string& text);

/// True when the area lists this mount.
bool is_registered(const std::string& mount);

}  // namespace e2e
