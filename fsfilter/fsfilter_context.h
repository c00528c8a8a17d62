// What a filter handle points to, and the steps of the library that tests reach by themselves.
#pragma once

#include <atomic>
#include <cstdint>

#include "fsfilter.h"
#include "fsfilter_path.h"
#include "fsfilter_shmem.h"

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

  std::atomic<std::uint64_t> unnamed_events{0};

  /// Since when the reader has been busy with one event, monotonic milliseconds; 0 while it waits.
  std::atomic<std::int64_t> busy_since{0};
};

fsfilter_context_t* cast(fsfilter_handle_t handle);

/// Waits at most `timeout_seconds` for one event of any kind and reads it; the path stays empty.
/// 0, or -1 with *event untouched. For the one thread that reads.
int request_one_event(fsfilter_context_t* context, fsfilter_event_struct* event,
                      int timeout_seconds);

/// Writes one path a line into a text area. A text that does not fit leaves the area as it was.
void syncPathList(const PathSet& set, char (&area)[FSFILTER_TEXT_SIZE]);

void syncInclusions(fsfilter_context_t* context);
void syncExclusions(fsfilter_context_t* context);
void syncMounts(fsfilter_context_t* context);
