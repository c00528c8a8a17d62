#include "mountpt.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <utility>

#include "descriptor.h"

namespace {

constexpr std::array<std::string_view, 3> excluded_prefixes = {"/sys", "/proc", "/dev"};
constexpr std::string_view excluded_type = "fuse.gvfs-fuse-daemon";

// Device, directory and type; the options only of overlays. A line begins with the first byte that
// can be seen. Only a field that ends with a blank counts: the line's end may have cut it off. A
// lack of memory must throw: an entry that is dropped would be taken for unmounted.
void parse_line(const std::string& line, std::list<mntinfo>& entries) {
  const auto begin =
      std::find_if(line.begin(), line.end(), [](unsigned char c) { return std::isgraph(c) != 0; });
  std::istringstream fields(std::string(begin, line.end()));
  fields.exceptions(std::ios::badbit);
  std::string device;
  mntinfo entry;
  if (!(fields >> device >> entry.name >> entry.type).good() || excluded_point(entry) != 0) {
    return;
  }
  if (entry.type == "overlay" && !(fields >> entry.options).good()) {
    entry.options.clear();
  }
  entries.push_back(entry);
}

// The kernel returns at most a page of the table at a time: a short read is not the table's end.
std::size_t read_up_to(int fd, char* buffer, std::size_t size) {
  std::size_t length = 0;
  for (ssize_t count = 1; length < size && count != 0;) {
    count = read(fd, buffer + length, size - length);
    if (count > 0) {
      length += static_cast<std::size_t>(count);
    } else if (count < 0 && errno != EINTR) {
      return 0;  // half a table must not be taken for a whole one
    }
  }
  return length;
}

}  // namespace

mntpoint::mntpoint(mntinfo info) : info_(std::move(info)) {}

int mntpoint::reg(fsfilter_handle_t filter) const {
  if (name().empty()) {
    (void)std::fputs("mounting point is not set", stderr);
    return -1;
  }
  const int result = register_mounting_point(filter, name().c_str(), type().c_str());
  if (result < 0) {
    const int error = errno;
    (void)std::fprintf(stderr, "register mouning point failed: %s\n", name().c_str());
    errno = error;
  }
  return result;
}

int mntpoint::unreg(fsfilter_handle_t filter) const {
  return unregister_mounting_point(filter, name().c_str(), type().c_str());
}

int excluded_point(const mntinfo& entry) {
  const bool below =
      std::any_of(excluded_prefixes.begin(), excluded_prefixes.end(),
                  [&entry](std::string_view prefix) { return entry.name.starts_with(prefix); });
  return below || entry.type == excluded_type ? 1 : 0;
}

int read_mountinfo(int fd, std::list<mntinfo>& entries) {
  char table[mount_table_limit];
  const std::size_t length = read_up_to(fd, table, sizeof table);
  std::istringstream lines(std::string(table, length));
  lines.exceptions(std::ios::badbit);
  for (std::string line; std::getline(lines, line);) {
    parse_line(line, entries);
  }
  return 0;
}

int read_mountinfo(std::list<mntinfo>& entries) {
  const Descriptor table(open("/etc/mtab", O_RDONLY | O_CLOEXEC));
  if (!table) {
    (void)std::fprintf(stderr, "open mtab %s\n", std::strerror(errno));
    return -1;
  }
  return read_mountinfo(table.get(), entries);
}
