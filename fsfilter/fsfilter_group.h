// Several notification groups on one filter, for this project's own programs: each reads the events
// of its own marks, and all share the status area, the path sets and the counters.
//
// A group's handle is used like the filter's: request_event(), set_result(),
// register_mounting_point(), unregister_filter(). Different threads may use different groups of one
// filter at the same time, registering and unregistering mounting points too.
#pragma once

#include "fsfilter.h"

inline namespace fsfilter_internal {

/// Opens a further group. It is closed with unregister_filter(), before or after the filter, which
/// alone unlinks the area.
/// @return 0 with the handle in *out, or a negative value with errno
int fsfilter_open_group(fsfilter_handle_t filter, fsfilter_handle_t* out);

/// Removes all mount marks of this group at once. It looks up no path, so no file system can make
/// it wait. The list of mounts in the area stays.
/// @return 0, or -1 with errno
int fsfilter_unmark_all(fsfilter_handle_t handle);

/// Ends the group: the kernel allows whatever it holds. The handle stays valid and the descriptor's
/// number stays in use, so that late answers have no effect. While a thread is in the kernel,
/// reading an event or marking a mount, the kernel keeps the group until that thread returns, so
/// remove the marks first. Needs no free descriptor. Any thread.
/// @return 0, or -1 with errno
int fsfilter_release_group(fsfilter_handle_t handle);

/// Keeps the handle valid until the process ends, even after unregister_filter(), for threads that
/// nobody waits for.
void fsfilter_keep_handle(fsfilter_handle_t handle);

/// The group's descriptor, for poll(); -1 for a handle that reads no events.
int fsfilter_descriptor(fsfilter_handle_t handle);

/// Takes a path off the list of mounts without touching a mark, for a group that is closed as a
/// whole. @return 0, or -1 for a null handle
int fsfilter_forget_mount(fsfilter_handle_t handle, const char* path);

/// How often reading an event failed, in all groups of this filter: the kernel had no descriptor
/// for its file or could not open it, and denied that open.
uint64_t fsfilter_failed_reads(fsfilter_handle_t handle);

}  // namespace fsfilter_internal
