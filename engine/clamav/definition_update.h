// SPDX-License-Identifier: GPL-2.0-only
// Taking new definition files into a database directory.
//
// The given files are opened once and checked; the trial engine reads them through these very
// descriptors, beside the databases that stay. Only what loads is copied into the directory, into a
// hidden folder that nobody reads yet. When the copies are on the disk one rename of that folder
// brings them into force, all at once (see committed_folder), and then each moves to its place. So
// a crash leaves the definitions from before or those from after, and never a mixture.
#pragma once

#include <array>

#include "definitions.h"
#include "libclamav.h"

namespace clamav_engine {

/// The paths of an update's files, in the order of the family; null where that file stays.
using UpdateFiles = std::array<const char*, family_files>;

/// Puts the definitions in `files` into force in place of the family's own files. The files' names
/// do not matter. Each must be a regular file of root that nobody else can write, in a format that
/// database_ending() knows.
///
/// Beside the engine in force there is one more meanwhile, that of the trial. One update of a
/// directory runs at a time, also across processes; the others fail.
/// @return the engine of the trial; null when there is no file, or a file is not as it must be, or
///         anything else fails. Then the definitions in force are those from before.
Engine update_definitions(const Definitions& definitions, const UpdateFiles& files);

}  // namespace clamav_engine
