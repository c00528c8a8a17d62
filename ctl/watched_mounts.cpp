#include "watched_mounts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "descriptor.h"
#include "findings.h"
#include "network_file_system.h"
#include "settings_file.h"

namespace {

// Of a line of mountinfo: "36 35 98:0 /root /mount/point rw,noatime master:1 - ext3 /dev/sda1 rw"
bool take_mount(const std::string& line, std::uint64_t& id, mntinfo& mount) {
  std::istringstream fields(line);
  std::string skipped;
  fields >> id >> skipped >> skipped >> skipped >> mount.name;
  while (fields >> skipped && skipped != "-") {
  }
  return static_cast<bool>(fields >> mount.type);
}

bool is_octal(char c) {
  return c >= '0' && c <= '7';
}

// The table writes a blank as "\040".
std::string decoded(const std::string& name) {
  std::string text;
  for (std::size_t at = 0; at < name.size(); ++at) {
    const bool escape = name[at] == '\\' && at + 3 < name.size() && is_octal(name[at + 1]) &&
                        is_octal(name[at + 2]) && is_octal(name[at + 3]);
    text += escape ? static_cast<char>(std::stoi(name.substr(at + 1, 3), nullptr, 8)) : name[at];
    at += escape ? 3 : 0;
  }
  return text;
}

std::optional<std::uint64_t> mount_id(const std::string& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0) {
    return std::nullopt;
  }
  return status.stx_mnt_id;
}

}  // namespace

WatchedMounts::WatchedMounts(const MountFiles& files, const GlobalConfig& settings)
    : settings_(settings) {
  read_table(files.table);
  read_ids(files.ids);
}

void WatchedMounts::read_table(const std::string& file) {
  const FileContent content = read_settings_file(file);
  const Descriptor table(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!content.text || !table) {
    problem_ =
        fmt::format("{} cannot be read: {}; the daemon finds the file systems to watch there",
                    cut(file), content.why);
    return;
  }
  (void)read_mountinfo(table.get(), table_);
  if (content.text->size() > mount_table_limit) {
    problem_ = fmt::format(
        "{} is longer than the {} bytes that the daemon reads: file systems listed behind them are "
        "not watched",
        cut(file), mount_table_limit);
  }
}

void WatchedMounts::read_ids(const std::string& file) {
  std::istringstream lines(read_settings_file(file).text.value_or(""));
  std::uint64_t id = 0;
  mntinfo mount;
  for (std::string line; std::getline(lines, line);) {
    if (take_mount(line, id, mount)) {
      by_id_[id] = mount;
    }
  }
}

std::optional<std::string> WatchedMounts::why_unwatched(const std::string& path) const {
  const std::optional<std::uint64_t> id = mount_id(path);
  const auto found = id ? by_id_.find(*id) : by_id_.end();
  if (found == by_id_.end()) {
    return std::nullopt;
  }
  const std::string why = reason(found->second);
  if (why.empty()) {
    return std::nullopt;
  }
  return fmt::format("the file system mounted at {} is not watched, because {}",
                     quote(decoded(found->second.name)), why);
}

std::string WatchedMounts::reason(const mntinfo& mount) const {
  if (excluded_point({mount.name, ""}) != 0) {
    return "its path begins with /sys, /proc or /dev";
  }
  if (excluded_point(mount) != 0 || network_file_system(mount.type.c_str())) {
    return "its type is " + cut(mount.type);
  }
  if (mount.name.find('\\') != std::string::npos) {
    return "its name holds a character that the mount table writes as a number, such as a blank";
  }
  if (settings_.isExcluded(mount.name)) {
    return "it is excluded";
  }
  const bool listed = std::any_of(table_.begin(), table_.end(),
                                  [&](const mntinfo& entry) { return entry == mount.name; });
  return listed ? "" : "the daemon does not find it in the mount table";
}
