// SPDX-License-Identifier: GPL-2.0-only
// Definitions as libclamav reads them: a folder of links with the endings that libclamav goes by.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "definitions.h"
#include "descriptor.h"

namespace clamav_engine {

/// The folder within a database directory that holds the files of an update which is in force but
/// whose files have not reached their places yet: while a family's file is in there, it counts
/// and not the one of the same name beside the folder. An update brings it into being with one
/// rename, so that the files of an update come into force together.
inline constexpr const char* committed_folder = ".pelo-update";

/// Descriptors of files that stand in for a family's files; -1 where the directory's own counts.
using Replacements = std::array<int, family_files>;
inline constexpr Replacements no_replacements = {-1, -1};

/// A temporary folder of links to all databases of some definitions. It holds the files open, so
/// that what is loaded is what was linked, whatever replaces it in the directory meanwhile. Of an
/// update by another process while the links are made it may have some files and not others.
class DefinitionView {
 public:
  /// `replacements` stay the caller's, and open as long as the view.
  DefinitionView(const Definitions& definitions, const Replacements& replacements);
  ~DefinitionView() { clear(); }
  DefinitionView(const DefinitionView&) = delete;
  DefinitionView& operator=(const DefinitionView&) = delete;

  /// False when the directory cannot be read, something in it has a database's name and is no
  /// readable regular file, or a family's file is in no format that libclamav knows.
  bool complete() const { return complete_; }

  /// What to hand to libclamav.
  const std::string& folder() const { return folder_; }

 private:
  bool collect_databases(const std::string& directory);
  bool collect_family(const Definitions& definitions, const Replacements& replacements);
  bool link(const std::string& name, int fd) const;
  void clear();

  std::string folder_;
  std::vector<Descriptor> files_;
  bool complete_ = false;
};

}  // namespace clamav_engine
