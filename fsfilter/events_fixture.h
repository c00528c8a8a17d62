// For the tests of the reader and the answers: a filter that is fed over a socket pair.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "fed_filter.h"
#include "temp_directory.h"

inline constexpr std::uint64_t open_mask = FAN_OPEN_PERM;

/// What the kernel gets for an event.
inline auto Answer(int fd, std::uint32_t response) {
  using testing::Field;
  return testing::Optional(testing::AllOf(Field(&fanotify_response::fd, fd),
                                          Field(&fanotify_response::response, response)));
}

/// An event record in which every byte is known, to be found untouched.
class MarkedEvent {
 public:
  MarkedEvent() { std::memset(static_cast<void*>(&event_), 0xA5, sizeof event_); }
  fsfilter_event_struct* get() { return &event_; }
  bool untouched() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&event_);
    return std::all_of(bytes, bytes + sizeof event_, [](unsigned char b) { return b == 0xA5; });
  }

 private:
  fsfilter_event_struct event_;
};

class EventsTest : public testing::Test {
 protected:
  /// A descriptor as the kernel would make it for an event.
  int event_fd(const std::string& name = "file") const {
    return open(folder_.put(name, "content").c_str(), O_RDONLY | O_CLOEXEC);
  }

  int request(int timeout_seconds = 0) {
    return request_event(filter_.handle(), &event_, timeout_seconds);
  }

  /// Whether the next answer is this one.
  void expect_answer(int fd, std::uint32_t response) {
    EXPECT_THAT(filter_.answer(), Answer(fd, response));
  }

  /// Feeds a record that the library must answer itself.
  void expect_allowed_here(std::uint64_t mask, int fd, std::int32_t pid = stranger_pid) {
    filter_.feed(mask, fd, pid);
    MarkedEvent event;
    EXPECT_EQ(request_event(filter_.handle(), event.get(), 0), -1);
    expect_answer(fd, FAN_ALLOW);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(event.untouched());
  }

  /// Feeds a record that the library must hand out.
  void expect_handed_out(std::uint64_t mask, int fd, std::int32_t pid = stranger_pid) {
    filter_.feed(mask, fd, pid);
    EXPECT_EQ(request(), 0);
    EXPECT_TRUE(filter_.quiet());
    EXPECT_TRUE(is_open(fd));
    (void)close(fd);
  }

  TempDirectory folder_;
  FedFilter filter_;
  fsfilter_event_struct event_{};
};
