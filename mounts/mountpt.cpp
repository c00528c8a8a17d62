#include "mountpt.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "descriptor.h"

namespace {

constexpr std::array<std::string_view, 3> excluded_prefixes = {"/sys", "/proc", "/dev"};
constexpr std::string_view excluded_type = "fuse.gvfs-fuse-daemon";

bool blank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}
bool visible(char c) {
  return std::isgraph(static_cast<unsigned char>(c)) != 0;
}

// Takes the table byte by byte and collects the second and third field of each line, and the fourth
// of overlays. Only a field that ends with a blank counts: one that a newline or the end of the
// text cuts off is ignored.
class TableParser {
 public:
  explicit TableParser(std::list<mntinfo>& entries) : entries_(entries) {}

  void take(char c) {
    if (c == '\n') {
      field_ = 0;
      inside_ = false;
    } else if (field_ > last_field) {
      return;
    } else if (blank(c)) {
      end_field();
    } else if (inside_) {
      text_ += c;
    } else if (field_ > 0 || visible(c)) {
      inside_ = true;
      text_ = c;
    }
  }

 private:
  static constexpr int last_field = 3;  // device, directory, type, options

  void end_field() {
    if (!inside_) {
      return;
    }
    inside_ = false;
    if (field_ == 1) {
      entry_ = {text_, "", ""};
    } else if (field_ == 2) {
      entry_.type = text_;
      if (excluded_point(entry_) == 0) {
        entries_.push_back(entry_);
      }
    } else if (field_ == last_field && entry_.type == "overlay" && excluded_point(entry_) == 0) {
      entries_.back().options = text_;
    }
    ++field_;
  }

  std::list<mntinfo>& entries_;
  mntinfo entry_;
  std::string text_;
  int field_ = 0;
  bool inside_ = false;
};

// The kernel returns at most a page of the table at a time: a short read is not the table's end.
std::size_t read_up_to(int fd, char* buffer, std::size_t size) {
  std::size_t length = 0;
  while (length < size) {
    const ssize_t count = read(fd, buffer + length, size - length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return 0;  // half a table must not be taken for a whole one
    }
    if (count == 0) {
      break;
    }
    length += static_cast<std::size_t>(count);
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
  TableParser parser(entries);
  std::for_each(table, table + length, [&parser](char c) { parser.take(c); });
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
