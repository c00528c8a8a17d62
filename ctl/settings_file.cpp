#include "settings_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "commandparser.h"
#include "descriptor.h"

namespace {

constexpr std::size_t largest_file = std::size_t{16} << 20;

FileContent failure(std::string why, bool missing = false) {
  return {.text = std::nullopt, .why = std::move(why), .missing = missing};
}

FileContent system_failure() {
  return failure(std::strerror(errno), errno == ENOENT || errno == ENOTDIR);
}

// Also when the file grows meanwhile.
FileContent read_all(int fd) {
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count == 0) {
      return {.text = std::move(text), .why = "", .missing = false};
    }
    if (count < 0) {
      return system_failure();
    }
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > largest_file) {
      return failure("Larger than 16 MiB");
    }
  }
}

}  // namespace

// O_NONBLOCK: a pipe must not make anybody wait.
FileContent read_settings_file(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) {
    return system_failure();
  }
  if (S_ISDIR(status.st_mode)) {
    return failure(std::strerror(EISDIR));
  }
  if (!S_ISREG(status.st_mode)) {
    return failure("Not a regular file");
  }
  return read_all(file.get());
}

FileLines::FileLines(const std::string& content) {
  std::istringstream input(content);
  for (std::string line; std::getline(input, line);) {
    ConfParser::trim(line, ConfParser::whitespace);
    lines_.push_back(std::move(line));
  }
}

std::string FileLines::text(std::size_t line) const {
  return line <= lines_.size() ? lines_[line - 1] : "";
}

bool FileLines::comment_touches(std::size_t line) const {
  const std::string whole = text(line);
  const std::size_t comment = whole.find('#');
  return comment != 0 && comment != std::string::npos &&
         std::strchr(ConfParser::whitespace, whole[comment - 1]) == nullptr;
}

bool FileLines::separates(std::size_t line) const {
  std::string whole = text(line);
  ConfParser::erase_comment(whole);
  return whole == CommandParser::separator;
}
