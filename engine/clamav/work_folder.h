// SPDX-License-Identifier: GPL-2.0-only
// Where this process unpacks what it scans: a folder that nobody else can open.
//
// It is made before everything else the engine does and removed after it; between the two any
// thread may ask for it.
#ifndef PELOWATCHD_ENGINE_CLAMAV_WORK_FOLDER_H
#define PELOWATCHD_ENGINE_CLAMAV_WORK_FOLDER_H

#include <filesystem>

namespace clamav_engine {

/// Makes the folder, in the first of $TMPDIR, /var/cache/pelo (made when missing) and /tmp that
/// will do: from the root on it must be directories of root's or of this process's user, in which
/// nobody else can rename anything. /tmp comes last because anybody can fill it, and without room
/// nothing can be scanned. Removes what processes left there that did not live to their end.
/// @return false when no folder could be made.
bool make_work_folder();

/// The folder; empty when there is none.
const std::filesystem::path& work_folder();

/// Makes the folder again if it has gone: there are programs that clean such places up.
/// @return whether it is there.
bool keep_work_folder();

/// Removes the folder with all that is in it, if there is one.
void remove_work_folder();

}  // namespace clamav_engine

#endif
