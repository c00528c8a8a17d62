// SPDX-License-Identifier: GPL-2.0-only
// What kind of ClamAV database a file is, by its content.
#pragma once

namespace clamav_engine {

/// The ending under which libclamav reads the database in the regular file `fd` (".cvd", ".hdb",
/// ".hsb", ".mdb", ".msb", ".ldb", ".ndb" or ".yar"). The file's position stays where it is.
///
/// A container is told by its first bytes and always gets the ending under which libclamav verifies
/// its signature. Text is told by its first signature, after comments and empty lines, which has to
/// begin within the first 64 KiB. Whether the rest of the file is in order is for libclamav to say.
/// @return null when it is none of these, or cannot be read.
const char* database_ending(int fd);

}  // namespace clamav_engine
