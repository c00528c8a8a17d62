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
#include <filesystem>
#include <string_view>
#include <utility>

#include "compiled_engine.h"
#include "unique_fd.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kContainerMark = "ClamAV-VDB:";
constexpr const char* kContainerExtension = ".cvd";
constexpr const char* kTextExtension = ".ndb";

/// The hidden folder of one update, removed with all that is in it at the end.
class Workspace {
 public:
  explicit Workspace(const fs::path& directory) : path_(directory / ".pelo-update") {
    clear();  // what an update left that did not live to its end
    usable_ = mkdir(path_.c_str(), 0700) == 0 && mkdir(trial().c_str(), 0700) == 0 &&
              mkdir(backup().c_str(), 0700) == 0;
  }
  ~Workspace() { clear(); }
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  bool usable() const { return usable_; }
  fs::path incoming() const { return path_ / "incoming"; }  ///< one file before it has its name
  fs::path trial() const { return path_ / "trial"; }        ///< the directory as it will be
  fs::path backup() const { return path_ / "backup"; }      ///< the definitions that are replaced

 private:
  void clear() const {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  fs::path path_;
  bool usable_ = false;
};

UniqueFd open_trustworthy(const std::string& file) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  UniqueFd fd(open(file.c_str(), kFlags));
  struct stat status {};
  const bool trustworthy = fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                           (status.st_uid == 0 || status.st_uid == geteuid()) &&
                           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return trustworthy ? std::move(fd) : UniqueFd(-1);
}

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
  for (;;) {
    const ssize_t count = read(from, buffer.data(), buffer.size());
    if (count == 0) {
      return true;
    }
    if (count > 0 && write_all(to, buffer.data(), static_cast<std::size_t>(count))) {
      continue;
    }
    if (count > 0 || errno != EINTR) {
      return false;
    }
  }
}

bool copy_durably(const std::string& from, const fs::path& to) {
  const UniqueFd source = open_trustworthy(from);
  if (!source.valid()) {
    return false;
  }
  const UniqueFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  return target.valid() && copy_bytes(source.get(), target.get()) && fsync(target.get()) == 0;
}

const char* extension_for(const fs::path& file) {
  std::array<char, kContainerMark.size()> start{};
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t count = read(fd.get(), start.data(), start.size());
  const bool container = count == static_cast<ssize_t>(start.size()) &&
                         std::equal(start.begin(), start.end(), kContainerMark.begin());
  return container ? kContainerExtension : kTextExtension;
}

/// The name that the same definitions have in the other format.
std::string counterpart(const std::string& name) {
  fs::path path(name);
  path.replace_extension(path.extension() == kTextExtension ? kContainerExtension : kTextExtension);
  return path;
}

/// Copies one given file to its final name in the trial directory and appends that name.
bool take_in(const std::string& file, const Workspace& work, std::vector<std::string>& names) {
  const std::string stem = fs::path(file).stem();
  if (stem.empty() || stem.front() == '.' || !copy_durably(file, work.incoming())) {
    return false;
  }
  const std::string name = stem + extension_for(work.incoming());
  const fs::path target = work.trial() / name;
  if (fs::exists(target) || fs::exists(work.trial() / counterpart(name)) ||
      rename(work.incoming().c_str(), target.c_str()) != 0) {
    return false;
  }
  // A file of nothing but comments would load, and would take the old signatures away.
  if (count_signatures(target) == 0) {
    return false;
  }
  names.push_back(name);
  return true;
}

bool is_replaced(const std::string& existing, const std::vector<std::string>& names) {
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return existing == name || existing == counterpart(name);
  });
}

/// Completes the trial directory with links to the databases that stay.
void link_what_stays(const fs::path& directory, const Workspace& work,
                     const std::vector<std::string>& names) {
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name.front() != '.' && !is_replaced(name, names)) {
      fs::create_symlink(entry.path(), work.trial() / name);
    }
  }
}

/// The renames of one update; all of them, or none. Once it is made it needs no memory.
class Installation {
 public:
  Installation(const fs::path& directory, const Workspace& work,
               const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      moves_.push_back({directory / name, work.trial() / name, work.backup() / name});
    }
  }

  bool run(int directory_fd) {
    const bool done = std::all_of(moves_.begin(), moves_.end(), keep_old) &&
                      std::all_of(moves_.begin(), moves_.end(), put_in_place) &&
                      fsync(directory_fd) == 0;
    if (!done) {
      std::for_each(moves_.begin(), moves_.end(), put_back);
    }
    return done;
  }

 private:
  struct Move {
    fs::path place;
    fs::path replacement;
    fs::path backup;
    bool had_old = false;
    bool placed = false;
  };

  static bool keep_old(Move& move) {
    move.had_old = link(move.place.c_str(), move.backup.c_str()) == 0;
    return move.had_old || errno == ENOENT;
  }

  static bool put_in_place(Move& move) {
    move.placed = rename(move.replacement.c_str(), move.place.c_str()) == 0;
    return move.placed;
  }

  static void put_back(const Move& move) {
    if (move.placed && move.had_old) {
      (void)rename(move.backup.c_str(), move.place.c_str());
    } else if (move.placed) {
      (void)unlink(move.place.c_str());
    }
  }

  std::vector<Move> moves_;
};

std::shared_ptr<const CompiledEngine> update_in(const Workspace& work, const fs::path& directory,
                                                int directory_fd,
                                                const std::vector<std::string>& files) {
  std::vector<std::string> names;
  for (const std::string& file : files) {
    if (!take_in(file, work, names)) {
      return nullptr;
    }
  }
  link_what_stays(directory, work, names);
  std::shared_ptr<const CompiledEngine> engine = CompiledEngine::load(work.trial());
  if (engine == nullptr || !Installation(directory, work, names).run(directory_fd)) {
    return nullptr;
  }
  for (const std::string& name : names) {
    // Only there if the last update brought the other format.
    (void)unlink((directory / counterpart(name)).c_str());
  }
  return engine;
}

}  // namespace

std::shared_ptr<const CompiledEngine> update_definitions(const std::string& directory,
                                                         const std::vector<std::string>& files) {
  const UniqueFd lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (files.empty() || !lock.valid() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return nullptr;
  }
  const Workspace work(directory);
  return work.usable() ? update_in(work, directory, lock.get(), files) : nullptr;
}

}  // namespace clamav_engine
