// SPDX-License-Identifier: GPL-2.0-only
#include "definition_view.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "definition_format.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

/// Whether libclamav takes a file of that name for a database. Only for what is no regular file;
/// all those that are reach libclamav, which decides by itself.
bool has_database_name(const fs::path& path) {
  static const std::set<std::string_view> endings = {
      ".cat",  ".cbc", ".cdb", ".cfg", ".cld", ".crb",  ".cud", ".cvd", ".db",   ".fp",
      ".ftm",  ".gdb", ".hdb", ".hdu", ".hsb", ".hsu",  ".idb", ".ign", ".ign2", ".imp",
      ".ioc",  ".ldb", ".ldu", ".mdb", ".mdu", ".msb",  ".msu", ".ndb", ".ndu",  ".pdb",
      ".pwdb", ".sdb", ".sfp", ".wdb", ".yar", ".yara", ".zmd"};
  return endings.count(path.extension().native()) != 0;
}

// Without O_NONBLOCK opening a pipe would wait for somebody to write to it.
UniqueFd open_regular(const fs::path& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  return fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) ? std::move(fd) : UniqueFd(-1);
}

bool is_there(const fs::path& path) {
  return fs::symlink_status(path).type() != fs::file_type::not_found;
}

fs::path make_folder() {
  std::string name = work_folder() / "definitions-XXXXXX";
  return !keep_work_folder() || mkdtemp(name.data()) == nullptr ? fs::path() : fs::path(name);
}

}  // namespace

// A file that vanishes between the listing and its opening has most likely been replaced.
DefinitionView::DefinitionView(const Definitions& definitions, const Replacements& replacements)
    : folder_(make_folder()) {
  constexpr int kTries = 3;
  for (int i = 0; i < kTries && !folder_.empty() && !complete_; ++i) {
    clear();
    complete_ = collect(definitions, replacements);
  }
}

DefinitionView::~DefinitionView() {
  if (!folder_.empty()) {
    clear();
    (void)rmdir(folder_.c_str());
  }
}

void DefinitionView::clear() {
  std::error_code ignored;
  for (fs::directory_iterator entry(folder_, ignored), end; entry != end;
       entry.increment(ignored)) {
    (void)unlink(entry->path().c_str());
  }
  files_.clear();
}

bool DefinitionView::collect(const Definitions& definitions, const Replacements& replacements) {
  return collect_databases(definitions.directory) && collect_family(definitions, replacements);
}

bool DefinitionView::collect_databases(const fs::path& directory) {
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::end(entry); entry.increment(error)) {
    std::error_code broken_link;
    if (!entry->is_regular_file(broken_link)) {
      if (has_database_name(entry->path())) {
        return false;
      }
      continue;
    }
    const std::string name = entry->path().filename();
    UniqueFd fd = open_regular(entry->path());
    if (!fd.valid() || !link(name, fd.get())) {
      return false;
    }
    files_.push_back(std::move(fd));
  }
  return !error;
}

bool DefinitionView::collect_family(const Definitions& definitions,
                                    const Replacements& replacements) {
  const fs::path directory = definitions.directory;
  for (std::size_t i = 0; i < kFamilyFiles; ++i) {
    const std::string& name = family_files(definitions.family).at(i);
    int fd = replacements.at(i);
    if (fd < 0) {
      fs::path place = directory / kCommittedFolder / name;
      if (!is_there(place)) {
        place = directory / name;
      }
      if (!is_there(place)) {
        continue;
      }
      fd = files_.emplace_back(open_regular(place)).get();
    }
    const char* const ending = database_ending(fd);
    if (ending == nullptr || !link(name + ending, fd)) {
      return false;
    }
  }
  return true;
}

bool DefinitionView::link(const std::string& name, int fd) const {
  const std::string target = "/proc/self/fd/" + std::to_string(fd);
  return symlink(target.c_str(), (folder_ / name).c_str()) == 0;
}

}  // namespace clamav_engine
