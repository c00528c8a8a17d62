// What a filter handle points to, and the steps of the library that tests reach by themselves.
//
// What is no part of fsfilter.h has a namespace, inline for the library's own convenience: programs
// that link statically may use the same names for things of their own.
#pragma once

#include <atomic>
#include <cstdint>

#include "fsfilter.h"
#include "fsfilter_path.h"
#include "fsfilter_shmem.h"

inline namespace fsfilter_internal {

inline constexpr char status_area_name[] = "/fsfilter";

/// One filter. Owns the group's descriptor, the mapping of the status area and the path sets.
struct fsfilter_context_t {
  fsfilter_shared_t shared = nullptr;
  PathSet inclusions{10};
  PathSet exclusions{10};
  PathSet mounts{10};
  std::int32_t fanotify_fd = -1;  ///< -1 in a context that only reads the area

  /// The process that registered the filter, 0 in others. The area says it too, but anybody can
  /// write there, and a daemon that no longer knew its own accesses would wait for itself.
  std::int32_t owner_pid = 0;

  std::atomic<bool> unlinked{false};  ///< the area's name is free, or another filter's

  std::atomic<std::uint64_t> unnamed_events{0};

  /// The handle's holder, each running event loop and each job of the worker pool. The last of them
  /// destroys the context. After the holder has closed the filter the descriptor's number and the
  /// area's memory stay for the late answers of the others, which go nowhere.
  std::atomic<int> users{1};

  /// Since when the reader has been busy with one event, monotonic milliseconds; 0 while it waits.
  std::atomic<std::int64_t> busy_since{0};
};

fsfilter_context_t* cast(fsfilter_handle_t handle);

/// One user more, for who holds the handle or is a user already; and one less.
void fsfilter_enter_context(fsfilter_context_t* context);
void fsfilter_leave_context(fsfilter_context_t* context);

/// Writes one path a line into a text area. A text that does not fit leaves the area as it was.
void syncPathList(const PathSet& set, char (&area)[FSFILTER_TEXT_SIZE]);

void syncInclusions(fsfilter_context_t* context);
void syncExclusions(fsfilter_context_t* context);
void syncMounts(fsfilter_context_t* context);

}  // namespace fsfilter_internal
