#include "file_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "confparser.h"
#include "unique_descriptor.h"

namespace {

constexpr std::size_t largest_file = std::size_t{16} << 20;

bool is_blank(char c) {
  return std::strchr(ConfParser::whitespace, c) != nullptr && c != '\0';
}

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
    if (count < 0 && errno != EINTR) {
      return system_failure();
    }
    text.append(buffer, count < 0 ? 0 : static_cast<std::size_t>(count));
    if (text.size() > largest_file) {
      return failure("Larger than 16 MiB");
    }
  }
}

}  // namespace

// O_NONBLOCK: a pipe must not make anybody wait.
FileContent read_settings_file(const std::string& path) {
  const UniqueDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) {
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

std::vector<FileLine> setting_lines(const std::string& content) {
  std::vector<FileLine> lines;
  std::istringstream input(content);
  std::string line;
  std::pair<std::string, std::string> setting;
  for (std::size_t number = 1; std::getline(input, line); ++number) {
    ConfParser::trim(line, ConfParser::whitespace);
    const std::size_t length = line.size();
    ConfParser::erase_comment(line);
    if (line.empty()) {
      continue;
    }
    const bool touched = line.size() < length && !is_blank(line.back());
    ConfParser::parse_line(line, setting);
    lines.push_back({number, setting.first, setting.second, line == setting.first, touched});
  }
  return lines;
}
