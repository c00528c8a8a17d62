// What a filter handle points to, and those steps of the library that tests call directly.
//
// Names that are not part of fsfilter.h are in a namespace, since programs that link statically may
// use the same names themselves. It is inline only for the library's convenience.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "descriptor.h"
#include "fsfilter.h"
#include "fsfilter_path.h"
#include "fsfilter_shmem.h"
#include "mutex.h"

inline namespace fsfilter_internal {

inline constexpr char status_area_name[] = "/fsfilter";

/// What the groups of one filter have in common. Each group's context is an owner, so the area
/// stays mapped until the last user of the last group has gone.
struct fsfilter_state_t {
  ~fsfilter_state_t();  ///< unmaps the area

  fsfilter_shared_t shared = nullptr;
  PathSet inclusions{10};
  PathSet exclusions{10};

  Mutex mounts_mutex;  ///< guards their text in the area, too; never held while a path is looked up
  PathSet mounts PELO_GUARDED_BY(mounts_mutex){10};

  /// Takes over the descriptor number of a group that ends: nothing can be read from it or written
  /// to it. Made early, since at the end there may be no free descriptor for it.
  Descriptor placeholder{epoll_create1(EPOLL_CLOEXEC)};

  /// The process that registered the filter, 0 in others. The area holds it too, but any process
  /// can write there, and a daemon that did not recognise its own accesses would wait for itself.
  std::int32_t owner_pid = 0;

  std::atomic<std::uint64_t> unnamed_events{0};
  std::atomic<std::uint64_t> failed_reads{0};
};

/// One notification group of a filter.
struct fsfilter_context_t {
  std::shared_ptr<fsfilter_state_t> state;
  Descriptor group;      ///< none in a context that only reads the area
  bool is_first = true;  ///< the filter itself, not a further group: it unlinks the area

  /// Set when the group has ended and the kernel holds nothing for it any more. Its descriptor
  /// number and the state stay for late answers of other users, which have no effect and are not
  /// counted.
  std::atomic<bool> ended{false};

  /// Counts the handle's holder, each running event loop and each job of the worker pool. The last
  /// one destroys the context.
  std::atomic<int> users{1};
};

fsfilter_context_t* cast(fsfilter_handle_t handle);

/// Makes a context without a group, with the given state; for null, with a new state that has no
/// area. @return null with ENOMEM
fsfilter_context_t* fsfilter_make_context(std::shared_ptr<fsfilter_state_t> state = nullptr);

/// Adds a user; only for the handle's holder or another user. Removes one.
void fsfilter_enter_context(fsfilter_context_t* context);
void fsfilter_leave_context(fsfilter_context_t* context);

/// Allows the jobs of this context that wait for a worker of fsfilter_threads.cpp. Running
/// callbacks are not affected.
void fsfilter_drop_jobs(fsfilter_context_t* context);

/// Writes one path a line into a text area. A text that does not fit leaves the area as it was.
void syncPathList(const PathSet& set, char (&area)[FSFILTER_TEXT_SIZE]);

void syncInclusions(fsfilter_state_t& state);
void syncExclusions(fsfilter_state_t& state);
void syncMounts(fsfilter_state_t& state) PELO_REQUIRES(state.mounts_mutex);

}  // namespace fsfilter_internal
