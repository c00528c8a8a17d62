// SPDX-License-Identifier: GPL-2.0-only
#include "definition_load.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "definition_format.h"
#include "descriptor.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

/// Whether libclamav takes a file of that name for a database. Only for what is no regular file;
/// all those that are reach libclamav, which decides by itself.
bool has_database_name(const fs::path& path) {
  static constexpr std::string_view endings[] = {
      ".cat",  ".cbc", ".cdb", ".cfg", ".cld", ".crb",  ".cud", ".cvd", ".db",   ".fp",
      ".ftm",  ".gdb", ".hdb", ".hdu", ".hsb", ".hsu",  ".idb", ".ign", ".ign2", ".imp",
      ".ioc",  ".ldb", ".ldu", ".mdb", ".mdu", ".msb",  ".msu", ".ndb", ".ndu",  ".pdb",
      ".pwdb", ".sdb", ".sfp", ".wdb", ".yar", ".yara", ".zmd"};
  const std::string ending = path.extension();
  return std::find(std::begin(endings), std::end(endings), ending) != std::end(endings);
}

// Without O_NONBLOCK opening a pipe would wait for somebody to write to it.
Descriptor open_regular(const fs::path& path) {
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  return fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) ? std::move(fd) : Descriptor();
}

bool is_there(const fs::path& path) {
  return fs::symlink_status(path).type() != fs::file_type::not_found;
}

/// Definitions as libclamav reads them: a temporary folder of links with the endings that it goes
/// by, to files that are held open.
class DefinitionView {
 public:
  DefinitionView() {
    (void)keep_work_folder();
    (void)mkdtemp(folder_.data());  // if that fails, nothing can be linked or loaded
  }
  ~DefinitionView() {
    std::error_code ignored;
    (void)fs::remove_all(folder_, ignored);
  }
  DefinitionView(const DefinitionView&) = delete;
  DefinitionView& operator=(const DefinitionView&) = delete;

  const std::string& folder() const { return folder_; }

  bool collect_databases(const std::string& directory) {
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::end(entry); entry.increment(error)) {
      std::error_code broken_link;
      if (entry->is_regular_file(broken_link)) {
        const Descriptor& file = files_.emplace_back(open_regular(entry->path()));
        if (!file || !link(entry->path().filename(), file.get())) {
          return false;
        }
      } else if (has_database_name(entry->path())) {
        return false;
      }
    }
    return !error;
  }

  bool collect_family(const Definitions& definitions, const Replacements& replacements) {
    const fs::path directory = definitions.directory;
    for (std::size_t i = 0; i < family_files; ++i) {
      const std::string name = definitions.family->files.at(i);
      int fd = replacements.at(i);
      if (fd < 0) {
        fs::path place = directory / committed_folder / name;
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

 private:
  bool link(const std::string& name, int fd) const {
    const std::string target = "/proc/thread-self/fd/" + std::to_string(fd);
    return symlink(target.c_str(), (folder_ + "/" + name).c_str()) == 0;
  }

  std::string folder_ = std::string(work_folder()) + "/definitions-XXXXXX";
  std::vector<Descriptor> files_;
};

}  // namespace

// A file that vanishes between the listing and its opening has most likely been replaced.
Engine load_definitions(const Definitions& definitions, const Replacements& replacements) {
  constexpr int tries = 3;
  for (int i = 0; i < tries; ++i) {
    DefinitionView view;
    if (view.collect_databases(definitions.directory) &&
        view.collect_family(definitions, replacements)) {
      return load_databases(view.folder());
    }
  }
  return nullptr;
}

}  // namespace clamav_engine
