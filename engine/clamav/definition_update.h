// SPDX-License-Identifier: GPL-2.0-only
// Taking new definition files into a database directory.
//
// Everything happens in a hidden folder within that directory, which libclamav does not look
// into: the new files are copied there, the directory as it will be (the new files beside links
// to what stays) is loaded on trial, and what loads is renamed into place. The trial reads the
// very copies that go into force, so nobody can exchange a file between the two. Up to the first
// rename the old definitions are untouched; a failure after it puts them back.
#ifndef PELOWATCHD_ENGINE_CLAMAV_DEFINITION_UPDATE_H
#define PELOWATCHD_ENGINE_CLAMAV_DEFINITION_UPDATE_H

#include <memory>
#include <string>
#include <vector>

#include "compiled_engine.h"

namespace clamav_engine {

/// Puts the definitions in `files` into force in `directory`; each replaces what an earlier update
/// brought under the same name, whatever its extension. A file is a ClamAV database, recognised by
/// its content: a signed container, else text in the format of .ndb files. It must be a regular
/// file of root or of the calling user that nobody else can write.
///
/// One update of a directory runs at a time, also across processes; the others fail.
/// @return an engine loaded from them; null when there is no file, or one is no such database, or
///         anything else fails. Then the definitions in force are those from before.
std::shared_ptr<const CompiledEngine> update_definitions(const std::string& directory,
                                                         const std::vector<std::string>& files);

}  // namespace clamav_engine

#endif
