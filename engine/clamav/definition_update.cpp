// SPDX-License-Identifier: GPL-2.0-only
#include "definition_update.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "definition_load.h"
#include "descriptor.h"

namespace clamav_engine {
namespace {

/// The committed folder before it is committed.
constexpr const char* growing_folder = ".pelo-update-new";

/// Held by who updates the directory; it stays there.
constexpr const char* lock_name = ".pelo-update-lock";

/// A given file; without a descriptor where the family's own stays.
struct NewFile {
  const char* name = nullptr;  ///< that it gets
  Descriptor fd;
  struct stat status {};  ///< as it was when it was opened

  bool is_trustworthy() const {
    return S_ISREG(status.st_mode) && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  }

  /// Whether the file is unchanged, so that the copy is what the trial loaded.
  bool is_unchanged() const {
    struct stat now {};
    return fstat(fd.get(), &now) == 0 && now.st_size == status.st_size &&
           now.st_ctim.tv_sec == status.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == status.st_ctim.tv_nsec;
  }
};

using NewFiles = std::array<NewFile, family_files>;

bool copy_bytes(int from, int to, off_t size) {
  off_t position = 0;
  while (position < size) {
    const ssize_t count = sendfile(to, from, &position, static_cast<std::size_t>(size - position));
    if (count == 0 || (count < 0 && errno != EINTR)) {
      return false;
    }
  }
  return true;
}

bool copy_durably(const NewFile& file, int folder) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const Descriptor target(openat(folder, file.name, flags, 0644));
  return target && copy_bytes(file.fd.get(), target.get(), file.status.st_size) &&
         file.is_unchanged() && fsync(target.get()) == 0;
}

bool is_there(int folder, const char* name) {
  return faccessat(folder, name, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

/// A file that nobody else can open, and so not lock either. Locked, or invalid.
Descriptor take_lock(int directory) {
  constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
  Descriptor lock(openat(directory, lock_name, flags, 0600));
  struct stat status {};
  const bool own = fstat(lock.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                   status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
  return own && flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? std::move(lock) : Descriptor();
}

/// The folders of updates in one database directory, of which there is one update at a time.
///
/// The directory may belong to somebody else than the daemon, who must not be able to lead it to
/// files elsewhere: folders are opened without following links, and no name is used that updates do
/// not make.
class UpdateFolders {
 public:
  /// `directory` stays the caller's.
  explicit UpdateFolders(int directory) : directory_(directory) {}
  ~UpdateFolders() { discard(); }
  UpdateFolders(const UpdateFolders&) = delete;
  UpdateFolders& operator=(const UpdateFolders&) = delete;

  /// Completes or removes what an interrupted update has left.
  bool clean_up() {
    discard();
    return move_into_place();
  }

  bool fill(const NewFiles& files) {
    if (mkdirat(directory_, growing_folder, 0700) != 0) {
      return false;
    }
    const Descriptor growing = open_folder(growing_folder);
    return growing &&
           std::all_of(files.begin(), files.end(),
                       [&](const NewFile& file) {
                         return !file.fd || copy_durably(file, growing.get());
                       }) &&
           fsync(growing.get()) == 0;
  }

  /// Brings the files into force. A rename that may not outlive a power failure is taken back.
  bool commit() {
    if (renameat(directory_, growing_folder, directory_, committed_folder) != 0) {
      return false;
    }
    const bool durable = fsync(directory_) == 0;
    if (!durable) {
      (void)renameat(directory_, committed_folder, directory_, growing_folder);
    }
    return durable;
  }

  /// Moves the committed files, if there are any, to their places. They are in force all the same
  /// if that fails.
  bool move_into_place() {
    if (!is_there(directory_, committed_folder)) {
      return true;
    }
    const Descriptor committed = open_folder(committed_folder);
    bool moved = static_cast<bool>(committed);
    for (const Family& family : families) {  // an update of whatever family may have left some
      for (const char* name : family.files) {
        moved = moved && (!is_there(committed.get(), name) ||
                          renameat(committed.get(), name, directory_, name) == 0);
      }
    }
    return moved && fsync(directory_) == 0 &&
           unlinkat(directory_, committed_folder, AT_REMOVEDIR) == 0;
  }

 private:
  Descriptor open_folder(const char* name) const {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor folder(openat(directory_, name, flags));
    struct stat status {};
    const bool own = fstat(folder.get(), &status) == 0 && status.st_uid == geteuid();
    return own ? std::move(folder) : Descriptor();
  }

  void discard() const {
    const Descriptor growing = open_folder(growing_folder);
    for (const Family& family : families) {
      for (const char* name : family.files) {
        (void)unlinkat(growing.get(), name, 0);
      }
    }
    (void)unlinkat(directory_, growing_folder, AT_REMOVEDIR);
  }

  const int directory_;
};

/// Opens the files of an update.
/// @return false when there is none, or one of them is not as it must be.
bool open_files(const Family& family, const UpdateFiles& paths, NewFiles& files) {
  constexpr int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  bool any = false;
  for (std::size_t i = 0; i < family_files; ++i) {
    if (paths.at(i) != nullptr) {
      NewFile& file = files.at(i);
      file.name = family.files.at(i);
      file.fd.reset(open(paths.at(i), flags));
      if (fstat(file.fd.get(), &file.status) != 0 || !file.is_trustworthy()) {
        return false;
      }
      any = true;
    }
  }
  return any;
}

}  // namespace

Engine update_definitions(const Definitions& definitions, const UpdateFiles& paths) {
  const Descriptor directory(
      open(definitions.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor lock = take_lock(directory.get());
  NewFiles files;
  if (!lock || !open_files(*definitions.family, paths, files)) {
    return nullptr;
  }
  UpdateFolders folders(directory.get());
  if (!folders.clean_up()) {
    return nullptr;
  }
  Engine engine = load_definitions(definitions, {files[0].fd.get(), files[1].fd.get()});
  if (engine == nullptr || !folders.fill(files) || !folders.commit()) {
    return nullptr;
  }
  (void)folders.move_into_place();  // what cannot move now, the next update moves
  return engine;
}

}  // namespace clamav_engine
