// The fanotify calls, with the exact flags and masks of the filter; no other part of the library
// calls fanotify_init and fanotify_mark. The calls for a single mark are in the public header.
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

/// Removes all mount marks of the group at once. Unlike the calls for one mark, it looks up no
/// path. 0, or -1 with errno.
int fanotify_unregister_all_mounts(int fd);

}  // namespace fsfilter_internal
