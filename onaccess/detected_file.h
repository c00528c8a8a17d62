// Removing a file in which a scan found something, and no other file.
//
// Between the scan and the removal the path may come to name another file: another file is renamed
// to it, or a link takes its place. So the file is identified through the descriptor that was
// scanned, and a name is unlinked only while it names that same file.
//
// Owns the directories that it opens, within one call. Never owns a held open: the descriptor stays
// its caller's, and so does the answer. Hands off to: nobody.
#pragma once

#include <sys/types.h>

/// Which file a descriptor is open on.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  nlink_t links = 0;  ///< 0: it has no name left, even if its old path exists
};

/// Identifies an open file. If fstat() fails, the result has no links.
FileIdentity identify(int fd);

/// Unlinks `path` if it still names that file. The path must be absolute and canonical, as the
/// kernel gives it: no symbolic link is followed on the way.
/// @return true when the file was removed
bool remove_if_same(const char* path, const FileIdentity& identity);

/// Unlinks a name in an open directory if it is that file or, unless `flags` has
/// AT_SYMLINK_NOFOLLOW, a symbolic link to it. A link is removed, its target stays.
/// @return true when the name was removed
bool remove_if_same_at(int directory, const char* name, const FileIdentity& identity,
                       int flags = 0);
