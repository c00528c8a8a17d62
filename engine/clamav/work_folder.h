// SPDX-License-Identifier: GPL-2.0-only
// Where this process unpacks what it scans, and links definitions for libclamav: a folder of root's
// that nobody else can open, in directories in which nobody else can rename anything.
//
// It is /run/pelo/engine, which is in memory as a rule, if a gibibyte is left there, about what two
// scans unpack at most; else /var/cache/pelo/engine. Two processes never share one: if another one
// has the first, this one takes the second.
#pragma once

#include <cstdint>

namespace clamav_engine {

/// Chooses the folder and makes it, empty. It is this process's alone until the next call. Due
/// before anything else, and while nobody uses the folder.
/// @return whether there is one.
bool open_work_folder();

/// Makes the folder again at the same place if it has gone, since there are programs that clean
/// such places up. Any thread may call it.
/// @return a number that is another one when the folder is; 0 when it cannot be made.
std::uint64_t keep_work_folder();

/// The folder's path.
const char* work_folder();

}  // namespace clamav_engine
