// Stands in for the appliance's event library: writes down what it is asked to push.
//
// PELO_TEST_EVENT_RECORD  file that gets one line per call (see tests/README.md)
// PELO_TEST_EVENT_OPEN    file to open and close first, as a library that reads its settings would
// PELO_TEST_EVENT_THROW   set for one that throws, an object of a type of its own
//
// Built a second time without event_push: a library that is there but of no use.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "in_quotes.h"

#ifndef PELO_WITHOUT_EVENT_PUSH

#define EVENT_API extern "C" __attribute__((visibility("default")))

namespace {

/// Opens the file that PELO_TEST_EVENT_OPEN names; " opened=ERRNO", 0 for success.
std::string open_first() {
  const char* path = std::getenv("PELO_TEST_EVENT_OPEN");
  if (path == nullptr) {
    return "";
  }
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  const int error = fd < 0 ? errno : 0;
  if (fd >= 0) {
    close(fd);
  }
  return " opened=" + std::to_string(error);
}

struct Thrown {
  ~Thrown() { what.clear(); }
  std::string what = "thrown by the event library, and no std::exception";
};

void append(const std::string& line) {
  const char* path = std::getenv("PELO_TEST_EVENT_RECORD");
  if (path == nullptr) {
    return;
  }
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    std::abort();
  }
  close(fd);
}

}  // namespace

EVENT_API void event_push(const char* source, const char* destination, const char* xml_text,
                          int first, int second) {
  const std::string opened = open_first();
  append("event_push thread=" + std::to_string(gettid()) + " source=" + in_quotes(source) +
         " destination=" + in_quotes(destination) +
         " length=" + std::to_string(std::strlen(xml_text)) + " xml=" + in_quotes(xml_text) +
         " first=" + std::to_string(first) + " second=" + std::to_string(second) + opened + "\n");
  if (std::getenv("PELO_TEST_EVENT_THROW") != nullptr) {
    throw Thrown();
  }
}

#endif
