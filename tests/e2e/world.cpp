#include "world.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "isolation.h"
#include "temp_directory.h"

namespace e2e {
namespace {

constexpr const char* etc_files[] = {"ld.so.cache", "passwd", "group", "nsswitch.conf",
                                     "localtime"};

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

bool lies_in(const std::string& path, const std::string& folder) {
  return path.compare(0, folder.size(), folder) == 0 &&
         (path.size() == folder.size() || path[folder.size()] == '/');
}

// Memory would let pass what a disk's file system refuses: opens of large files, for one.
void require_disk(const std::string& folder) {
  struct statfs system = {};
  if (statfs(folder.c_str(), &system) != 0) {
    fail("statfs " + folder);
  }
  const auto type = static_cast<uint32_t>(system.f_type);
  if (type == TMPFS_MAGIC || type == RAMFS_MAGIC) {
    errno = ENOTBLK;
    fail("PELO_TEST_DISK is in memory, " + folder);
  }
}

}  // namespace

World::World() {
  fill_etc();
  for (const char* folder : {"/dev/shm", "/run", "/var/cache", "/var/log"}) {
    mount_on(folder);
  }
  for (const char* folder : {"/run", "/var/cache"}) {
    chmod(folder, 0755);  // as on every machine: the ClamAV engine unpacks below one of them
  }
  mount_on(base_folder());
  mount_on(work());
  mount_watched();
  for (const char* name : {"log", "db", "staging", "conf", "lib"}) {
    make_folder(work(name));
  }
}

World::~World() {
  for (const auto& [folder, copy] : copies_) {
    close(copy);
  }
  for (auto folder = mounted_.rbegin(); folder != mounted_.rend(); ++folder) {
    umount2(folder->c_str(), MNT_DETACH);
  }
  if (!disk_folder_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(disk_folder_, ignored);
  }
}

void World::mount_watched() {
  const char* disk = std::getenv("PELO_TEST_DISK");
  if (disk == nullptr) {
    mount_on(watched());
    return;
  }
  require_disk(disk);
  disk_folder_ = std::string(disk) + "/pelo-e2e-XXXXXX";
  make_folder(watched());
  if (mkdtemp(disk_folder_.data()) == nullptr || chmod(disk_folder_.c_str(), 0755) != 0 ||
      mount(disk_folder_.c_str(), watched().c_str(), nullptr, MS_BIND, nullptr) != 0) {
    fail("mount of a folder of " + std::string(disk));
  }
  mounted_.push_back(watched());
  keep_copy(watched());
}

std::string World::watched(const std::string& name) const {
  return base_folder() + "/watched" + (name.empty() ? "" : "/" + name);
}

std::string World::work(const std::string& name) const {
  return base_folder() + "/work" + (name.empty() ? "" : "/" + name);
}

void World::fill_etc() {
  std::vector<std::pair<std::string, std::string>> files;
  for (const char* name : etc_files) {
    const std::string path = std::string("/etc/") + name;
    if (exists(path)) {
      files.emplace_back(path, read_file(path));
    }
  }
  mount_on("/etc");
  for (const auto& [path, content] : files) {
    put(path, content);
  }
  if (symlink("/proc/mounts", "/etc/mtab") != 0) {
    fail("link /etc/mtab");
  }
}

void World::keep_copy(const std::string& folder) {
  const int copy = open_tree(AT_FDCWD, folder.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
  if (copy < 0) {
    fail("copy of the mount " + folder);
  }
  copies_.emplace_back(folder, copy);
}

int World::open_unseen(const std::string& path, int flags, unsigned mode) const {
  // The last mount that holds the path is the innermost one.
  for (auto copy = copies_.rbegin(); copy != copies_.rend(); ++copy) {
    if (lies_in(path, copy->first) && path.size() > copy->first.size()) {
      return openat(copy->second, path.c_str() + copy->first.size() + 1, flags | O_CLOEXEC, mode);
    }
  }
  return open(path.c_str(), flags | O_CLOEXEC, mode);
}

void World::put(const std::string& path, const std::string& content, unsigned mode) const {
  const int fd = open_unseen(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fchmod(fd, mode) != 0 ||
      write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    fail("write " + path);
  }
  close(fd);
}

void World::resize(const std::string& path, off_t size) const {
  const int fd = open_unseen(path, O_WRONLY);
  if (fd < 0 || ftruncate(fd, size) != 0) {
    fail("resize " + path);
  }
  close(fd);
}

std::string World::read(const std::string& path) const {
  const int fd = open_unseen(path, O_RDONLY);
  std::string content = read_file("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  return content;
}

bool World::exists(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

void World::make_folder(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    fail("mkdir " + path);
  }
}

void World::mount_on(const std::string& folder, const char* type) {
  make_folder(folder);
  if (mount("test", folder.c_str(), type, 0, nullptr) != 0) {
    fail("mount on " + folder);
  }
  mounted_.push_back(folder);
  keep_copy(folder);
}

void World::unmount(const std::string& folder) {
  const auto copy = std::find_if(copies_.rbegin(), copies_.rend(),
                                 [&](const auto& entry) { return entry.first == folder; });
  const auto mounted = std::find(mounted_.rbegin(), mounted_.rend(), folder);
  if (copy == copies_.rend() || mounted == mounted_.rend() ||
      umount2(folder.c_str(), MNT_DETACH) != 0) {
    fail("unmount " + folder);
  }
  close(copy->second);
  copies_.erase(std::next(copy).base());
  mounted_.erase(std::next(mounted).base());
}

}  // namespace e2e
