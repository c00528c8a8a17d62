// Removing a file in which a scan found something, and no other file.
//
// Between the scan and the removal a path may come to mean something else: somebody renames, or
// puts a link in its place. So the file is identified through the descriptor that was scanned, and
// a name is unlinked only while it means that same file.
#pragma once

#include <sys/types.h>

/// Which file a descriptor is open on.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  nlink_t links = 0;  ///< 0: it has no name left, whatever its old path says
};

/// Identifies an open file; without links when the descriptor cannot be asked.
FileIdentity identify(int fd);

/// Unlinks `path` if it still names that file. The path must be absolute and canonical, as the
/// kernel gives it: no symbolic link is followed on the way.
/// @return true when the file was removed
bool remove_if_same(const char* path, const FileIdentity& identity);

/// The same for a name in an open directory.
bool remove_if_same_at(int directory, const char* name, const FileIdentity& identity);
