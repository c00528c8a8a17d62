#include "record.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace scripted {
namespace {

std::atomic<int> record_fd{-1};

}  // namespace

std::string in_quotes_or_null(const char* text) {
  return text == nullptr ? "null" : in_quotes(text);
}

void open_record() {
  const char* path = std::getenv("PELO_TEST_ENGINE_RECORD");
  const int opened =
      path == nullptr ? -1 : open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  const int before = record_fd.exchange(opened);
  if (before >= 0) {
    close(before);
  }
}

void record(std::string_view call, std::string_view rest) {
  const int fd = record_fd.load();
  if (fd < 0) {
    return;
  }
  std::string line(call);
  line += " thread=" + std::to_string(gettid());
  if (!rest.empty()) {
    line += ' ';
    line += rest;
  }
  line += '\n';
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    // A record with holes would let a test pass on calls it never saw.
    std::abort();
  }
}

}  // namespace scripted
