// SPDX-License-Identifier: GPL-2.0-only
// What a signature's name says about a detection: libclamav hands out names only, the engine
// interface wants a type and an accuracy beside them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace clamav_engine {

/// One detection as the properties 15 to 17 and 20 report it.
struct Detection {
  static constexpr std::size_t member_size = 1024;

  std::uint32_t type = 0;                  ///< 0 (none) to 27
  std::uint32_t accuracy = 0;              ///< a vse_accuracy
  std::array<char, 512> name{};            ///< NUL-terminated, cut to fit
  std::array<char, member_size> member{};  ///< where in the file it lay; empty: the file itself
};

/// Takes the matches of one file in the order libclamav reports them and keeps the first one
/// whose type is not ignored. Used by one thread; nothing in it throws, since libclamav's C code
/// calls it.
class DetectionFilter {
 public:
  /// Bit N of `ignore_mask` drops matches of type N.
  explicit DetectionFilter(std::uint64_t ignore_mask) : ignore_mask_(ignore_mask) {}

  /// `member` is the place in the file, as Detection has it.
  void see(const char* signature, const char* member);

  /// True once a match was kept.
  bool found() const { return detection_.type != 0; }
  const Detection& detection() const { return detection_; }

 private:
  std::uint64_t ignore_mask_;
  Detection detection_;
};

}  // namespace clamav_engine
