// The file systems one test sees: all its own, gone when it ends.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace e2e {

/// Fresh tmpfs mounts over /dev/shm, /run, /var/log and /etc (with the few files programs need and
/// mtab as a link to the kernel's mount table), and two of its own:
///
///   watched()  what the daemon shall protect
///   work()     its configuration, log, databases, records
///
/// Where the environment variable PELO_TEST_DISK names a folder, watched() is on that one's file
/// system: a bind mount of a folder in it that only this world uses.
///
/// Files are written and read behind the daemon's back: through copies of these mounts that have no
/// place in the tree, so they carry no mark and make no event. Only what a test does on purpose, in
/// a process of its own, is seen by the daemon; and a daemon that hangs cannot hang the test.
class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  std::string watched(const std::string& name = "") const;
  std::string work(const std::string& name = "") const;

  /// Writes a whole file without an event; the folder must exist.
  void put(const std::string& path, const std::string& content, unsigned mode = 0644) const;

  /// Gives a file another size without an event; what is added takes no room.
  void resize(const std::string& path, off_t size) const;

  /// The whole file, read without an event; empty when it is not there.
  std::string read(const std::string& path) const;

  /// Opens without an event. @return a descriptor, or -1 and errno
  int open_unseen(const std::string& path, int flags, unsigned mode = 0644) const;

  static bool exists(const std::string& path);
  static void make_folder(const std::string& path);

  /// Mounts a tmpfs (or another type) on `folder`, which is made first.
  void mount_on(const std::string& folder, const char* type = "tmpfs");

  /// Unmounts what `mount_on` mounted on `folder` last; throws when it cannot.
  void unmount(const std::string& folder);

 private:
  void fill_etc();
  void keep_copy(const std::string& folder);
  void mount_watched();

  std::string disk_folder_;                          // behind watched(); empty: a tmpfs is
  std::vector<std::string> mounted_;                 // in order
  std::vector<std::pair<std::string, int>> copies_;  // mount point, descriptor of its copy
};

}  // namespace e2e
