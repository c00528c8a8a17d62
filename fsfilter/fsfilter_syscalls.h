// The fanotify calls, with the exact flags and masks the filter uses; nothing else of the library
// talks to fanotify_init and fanotify_mark. Those for one mark are in the public header.
#pragma once

#include <cstdint>

#include "fsfilter.h"

inline namespace fsfilter_internal {

/// The kernel's calls, unchanged: the result, and errno.
int fanotify_sys_init(unsigned int flags, unsigned int event_flags);
int fanotify_sys_mark(int fd, unsigned int flags, std::uint64_t mask, const char* path);

/// Opens a notification group with permission events and without limits on queue and marks. Its
/// descriptor is close-on-exec and does not block: an event may vanish between the wait and the
/// read, when its opener is killed.
/// @return the descriptor, or a negative value with errno
int fanotify_init();

/// Removes all mounts' marks of the group at once: unlike the calls for one of them, no walk to a
/// path. 0, or -1 with errno.
int fanotify_unregister_all_mounts(int fd);

/// Ends the group behind `fd`, so that the kernel allows whatever it holds, but keeps the number
/// taken: a thread that still answers writes into nothing instead of into a stranger's file.
/// @return 0, or -1 with errno
int fanotify_release(int fd);

}  // namespace fsfilter_internal
