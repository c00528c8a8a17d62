// SPDX-License-Identifier: GPL-2.0-only
// Where this process unpacks what it scans, and links definitions for libclamav: a folder of root's
// that nobody else can open, in directories in which nobody else can rename anything.
//
// It is /run/pelo/engine where /run/pelo is in memory and has a gibibyte left, which is about what
// two scans unpack at most; else /var/cache/pelo/engine. Several processes may use it at once; the
// first one empties it.
#pragma once

#include <string>

namespace clamav_engine {

/// Chooses and makes the folder. Due before anything else, and while nobody uses the folder.
/// @return whether there is one.
bool open_work_folder();

/// Makes the folder again at the same place if it has gone, since there are programs that clean
/// such places up. Any thread may call it.
/// @return how often it has been made; 0 when it cannot be made.
unsigned int keep_work_folder();

/// The folder's path.
const std::string& work_folder();

}  // namespace clamav_engine
