// SPDX-License-Identifier: GPL-2.0-only
#include "definition_update.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "definition_view.h"
#include "shared_engines.h"
#include "unique_fd.h"

namespace clamav_engine {
namespace {

/// The committed folder before it is committed.
constexpr const char* kGrowingFolder = ".pelo-update-new";

/// Held by who updates the directory; it stays there.
constexpr const char* kLockFile = ".pelo-update-lock";

bool same_time(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// A given file that has passed the checks.
class NewFile {
 public:
  static std::optional<NewFile> open(const char* path, const std::string& name) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    NewFile file(::open(path, kFlags), name);
    return file.trustworthy() ? std::optional(std::move(file)) : std::nullopt;
  }

  int fd() const { return fd_.get(); }
  const std::string& name() const { return name_; }

  /// Whether nothing has touched the file since open(): what was tried is what was copied.
  bool unchanged() const {
    struct stat now {};
    return fstat(fd(), &now) == 0 && now.st_size == status_.st_size &&
           same_time(now.st_mtim, status_.st_mtim) && same_time(now.st_ctim, status_.st_ctim);
  }

 private:
  NewFile(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

  bool trustworthy() {
    return fstat(fd(), &status_) == 0 && S_ISREG(status_.st_mode) && status_.st_uid == 0 &&
           (status_.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  }

  UniqueFd fd_;
  std::string name_;
  struct stat status_ {};
};

bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno != EINTR) {
      return false;
    }
    if (written > 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    }
  }
  return true;
}

bool copy_bytes(int from, int to) {
  std::array<char, 65536> buffer;
  off_t position = 0;
  for (;;) {
    const ssize_t count = pread(from, buffer.data(), buffer.size(), position);
    if (count == 0) {
      return true;
    }
    if (count > 0 && write_all(to, buffer.data(), static_cast<std::size_t>(count))) {
      position += count;
      continue;
    }
    if (count > 0 || errno != EINTR) {
      return false;
    }
  }
}

bool copy_durably(const NewFile& file, int folder) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const UniqueFd target(openat(folder, file.name().c_str(), kFlags, 0644));
  return target.valid() && copy_bytes(file.fd(), target.get()) && file.unchanged() &&
         fsync(target.get()) == 0;
}

bool is_there(int folder, const char* name) {
  return faccessat(folder, name, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

/// A file that nobody else can open, and so not lock either. Locked, or invalid.
UniqueFd take_lock(int directory) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd lock(openat(directory, kLockFile, kFlags, 0600));
  struct stat status {};
  const bool own = fstat(lock.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                   status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
  return own && flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? std::move(lock) : UniqueFd(-1);
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

  /// Completes or takes away what an update left that did not live to its end.
  bool clean_up() {
    discard();
    return move_into_place();
  }

  bool fill(const std::vector<NewFile>& files) {
    if (mkdirat(directory_, kGrowingFolder, 0700) != 0) {
      return false;
    }
    const UniqueFd growing = open_folder(kGrowingFolder);
    return growing.valid() &&
           std::all_of(files.begin(), files.end(),
                       [&](const NewFile& file) { return copy_durably(file, growing.get()); }) &&
           fsync(growing.get()) == 0;
  }

  /// Brings the files into force. A rename that may not outlive a power failure is taken back.
  bool commit() {
    if (renameat(directory_, kGrowingFolder, directory_, kCommittedFolder) != 0) {
      return false;
    }
    const bool durable = fsync(directory_) == 0;
    if (!durable) {
      (void)renameat(directory_, kCommittedFolder, directory_, kGrowingFolder);
    }
    return durable;
  }

  /// Moves the committed files, if there are any, to their places. They are in force all the same
  /// if that fails.
  bool move_into_place() {
    if (!is_there(directory_, kCommittedFolder)) {
      return true;
    }
    const UniqueFd committed = open_folder(kCommittedFolder);
    const bool moved = committed.valid() && for_each_name([&](const char* name) {
                         return !is_there(committed.get(), name) ||
                                renameat(committed.get(), name, directory_, name) == 0;
                       });
    return moved && fsync(directory_) == 0 &&
           unlinkat(directory_, kCommittedFolder, AT_REMOVEDIR) == 0;
  }

 private:
  UniqueFd open_folder(const char* name) const {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd folder(openat(directory_, name, kFlags));
    struct stat status {};
    const bool own = fstat(folder.get(), &status) == 0 && status.st_uid == geteuid();
    return own ? std::move(folder) : UniqueFd(-1);
  }

  /// All names an update may bring, of whatever family.
  template <typename Step>
  static bool for_each_name(Step step) {
    for (const Family family : {Family::kV1, Family::kV2, Family::kV2s}) {
      for (const std::string& name : family_files(family)) {
        if (!step(name.c_str())) {
          return false;
        }
      }
    }
    return true;
  }

  void discard() const {
    if (!is_there(directory_, kGrowingFolder)) {
      return;
    }
    const UniqueFd growing = open_folder(kGrowingFolder);
    (void)for_each_name([&](const char* name) {
      (void)unlinkat(growing.get(), name, 0);
      return true;
    });
    (void)unlinkat(directory_, kGrowingFolder, AT_REMOVEDIR);
  }

  const int directory_;
};

std::optional<std::vector<NewFile>> open_files(Family family, const UpdateFiles& paths) {
  std::vector<NewFile> files;
  for (std::size_t i = 0; i < kFamilyFiles; ++i) {
    if (paths.at(i) == nullptr) {
      continue;
    }
    std::optional<NewFile> file = NewFile::open(paths.at(i), family_files(family).at(i));
    if (!file) {
      return std::nullopt;
    }
    files.push_back(std::move(*file));
  }
  return files.empty() ? std::nullopt : std::optional(std::move(files));
}

std::shared_ptr<const CompiledEngine> try_out(const Definitions& definitions,
                                              const std::vector<NewFile>& files) {
  Replacements replacements = kNoReplacements;
  const auto& names = family_files(definitions.family);
  for (const NewFile& file : files) {
    const auto place = std::find(names.begin(), names.end(), file.name()) - names.begin();
    replacements.at(static_cast<std::size_t>(place)) = file.fd();
  }
  return load_engine(definitions, replacements);
}

}  // namespace

std::shared_ptr<const CompiledEngine> update_definitions(const Definitions& definitions,
                                                         const UpdateFiles& paths) {
  const UniqueFd directory(open(definitions.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::optional<std::vector<NewFile>> files = open_files(definitions.family, paths);
  if (!files || !directory.valid()) {
    return nullptr;
  }
  const UniqueFd lock = take_lock(directory.get());
  if (!lock.valid()) {
    return nullptr;
  }
  UpdateFolders folders(directory.get());
  if (!folders.clean_up()) {
    return nullptr;
  }
  std::shared_ptr<const CompiledEngine> engine = try_out(definitions, *files);
  if (engine == nullptr || !folders.fill(*files) || !folders.commit()) {
    return nullptr;
  }
  (void)folders.move_into_place();  // what cannot move now, the next update moves
  return engine;
}

}  // namespace clamav_engine
