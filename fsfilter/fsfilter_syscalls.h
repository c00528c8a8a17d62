// The fanotify calls, with the exact flags and masks the filter uses; nothing else of the library
// talks to fanotify_init and fanotify_mark.
#pragma once

#include <cstdint>

/// The kernel's calls, unchanged: the result, and errno.
int fanotify_sys_init(unsigned int flags, unsigned int event_flags);
int fanotify_sys_mark(int fd, unsigned int flags, std::uint64_t mask, const char* path);

/// Opens a notification group with permission events and without limits on queue and marks. Its
/// descriptor is close-on-exec and does not block: an event may vanish between the wait and the
/// read, when its opener is killed.
/// @return the descriptor, or a negative value with errno
int fanotify_init();

/// Add and remove the marks of one mount, folder or ignored path. 0, or -1 with errno.
int fatotify_register_mount(int fd, const char* path);
int fatotify_unregister_mount(int fd, const char* path);
/// All mounts' marks of the group at once: unlike the others, no walk to a path.
int fanotify_unregister_all_mounts(int fd);
int fanotify_register_folder(int fd, const char* path);
/// Removes a mount mark although folders carry inode marks: removing a folder's mark has always
/// meant the mount's, and callers rely on folder marks staying until the filter closes.
int fatotify_unregister_folder(int fd, const char* path);
/// The kernel refuses it with EINVAL, since the ignore mask comes without FAN_MARK_ADD.
int fatotify_ignore(int fd, const char* path);

/// Ends the group behind `fd`, so that the kernel allows whatever it holds, but keeps the number
/// taken: a thread that still answers writes into nothing instead of into a stranger's file.
/// @return 0, or -1 with errno
int fanotify_release(int fd);
