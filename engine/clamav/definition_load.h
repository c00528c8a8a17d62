// SPDX-License-Identifier: GPL-2.0-only
// Loading what is in force in a database directory, or what an update would put into force.
#pragma once

#include <array>

#include "definitions.h"
#include "libclamav.h"

namespace clamav_engine {

/// The folder within a database directory that holds the files of an update which is in force but
/// whose files have not reached their places yet: while a family's file is in there, it counts
/// and not the one of the same name beside the folder. An update brings it into being with one
/// rename, so that the files of an update come into force together.
inline constexpr const char* committed_folder = ".pelo-update";

/// Descriptors of files that stand in for a family's files; -1 where the directory's own counts.
using Replacements = std::array<int, family_files>;
static_assert(family_files == 2, "callers list them");

/// Loads all databases of some definitions. What is loaded is what was found at one time, whatever
/// replaces it in the directory meanwhile; of an update by another process that runs just then it
/// may be some files and not others. `replacements` stay the caller's.
/// @return null when the directory cannot be read or holds no signature, when something in it has a
///         database's name and is no readable regular file, when a family's file is in no format
///         that libclamav knows, or a database does not load.
Engine load_definitions(const Definitions& definitions,
                        const Replacements& replacements = {-1, -1});

}  // namespace clamav_engine
