#include "served_mount.h"

#include <algorithm>
#include <sstream>
#include <string_view>
#include <vector>

#include "at_or_above.h"

namespace {

// The types that the kernel serves by itself, from a disk or from memory. Any other type is taken
// to wait for a server: FUSE, 9p, cifs, ceph, and those still to come.
constexpr std::string_view kernel_types[] = {
    "bcachefs",  "binfmt_misc", "bpf",     "btrfs",    "cgroup",     "cgroup2",    "configfs",
    "cramfs",    "debugfs",     "devpts",  "devtmpfs", "efivarfs",   "erofs",      "exfat",
    "ext2",      "ext3",        "ext4",    "f2fs",     "fusectl",    "hfs",        "hfsplus",
    "hugetlbfs", "iso9660",     "jffs2",   "jfs",      "mqueue",     "msdos",      "nilfs2",
    "nsfs",      "ntfs3",       "overlay", "proc",     "pstore",     "ramfs",      "reiserfs",
    "resctrl",   "romfs",       "root",    "rootfs",   "rpc_pipefs", "securityfs", "selinuxfs",
    "squashfs",  "sysfs",       "tmpfs",   "tracefs",  "ubifs",      "udf",        "vfat",
    "xfs",       "zfs",         "zonefs"};

// The layers in an overlay's options: lowerdir=/a:/b,upperdir=/c, or one lowerdir+= for each.
std::vector<std::string> layers(const std::string& options) {
  std::vector<std::string> paths;
  std::istringstream all(options);
  for (std::string option; std::getline(all, option, ',');) {
    std::istringstream words(option);
    std::string name;
    (void)std::getline(words, name, '=');
    if (name.starts_with("lowerdir") || name == "upperdir" || name.starts_with("datadir")) {
      for (std::string path; std::getline(words, path, ':');) {
        if (!path.empty()) {
          paths.push_back(path);
        }
      }
    }
  }
  return paths;
}

constexpr int deepest_overlay = 8;

bool type_is_served(const mntinfo& entry, const std::list<mntinfo>& table, int depth);

// The layer lies on the mount with the longest directory above it, the last one if there are
// several. A relative or escaped path cannot be compared, so it counts as served.
bool layer_is_served(std::string_view path, const std::list<mntinfo>& table, int depth) {
  if (!path.starts_with('/') || path.find('\\') != std::string_view::npos) {
    return true;
  }
  const mntinfo* mount = nullptr;
  for (const mntinfo& entry : table) {
    if ((entry.name == "/" || is_at_or_above(entry.name, path)) &&
        (mount == nullptr || entry.name.size() >= mount->name.size())) {
      mount = &entry;
    }
  }
  return mount != nullptr && type_is_served(*mount, table, depth + 1);
}

bool type_is_served(const mntinfo& entry, const std::list<mntinfo>& table, int depth) {
  if (entry.type != "overlay") {
    return std::find(std::begin(kernel_types), std::end(kernel_types), entry.type) ==
           std::end(kernel_types);
  }
  const std::vector<std::string> paths = layers(entry.options);
  return paths.empty() || depth >= deepest_overlay ||
         std::any_of(paths.begin(), paths.end(),
                     [&](std::string_view path) { return layer_is_served(path, table, depth); });
}

}  // namespace

// Looking up a path passes the mounts on its parent directories. If several mounts lie on the same
// directory, all are asked: which of them is on top may change.
bool is_served(const std::string& directory, const std::list<mntinfo>& table) {
  return std::any_of(table.begin(), table.end(), [&](const mntinfo& entry) {
    return is_at_or_above(entry.name, directory) && type_is_served(entry, table, 0);
  });
}
