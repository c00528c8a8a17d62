// The status area: the shared-memory object in which a filter shows its state to other processes.
//
// Any process can write it, so nothing in it is trusted: only ten bits of the slot mask are used,
// texts end with their areas, the object's size is checked before it is mapped, and a wait for its
// lock lasts at most 100 ms. Offsets and size are the same on every ABI, since other programs map
// it, too.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fsfilter.h"
#include "shared_lock.h"

inline namespace fsfilter_internal {

/// All integers in the machine's byte order.
struct fsfilter_shared_area {
  std::int32_t trusted_pids[FSFILTER_TRUSTED_MAX];  ///< 0 marks a free slot
  std::uint32_t slot_mask;                          ///< bit i: slot i holds a trusted pid
  SharedLock lock;                                  ///< guards the two fields above
  std::int32_t owner_pid;                           ///< who registered the filter
  fsfilter_stat_struct statistics;
  char inclusions[FSFILTER_TEXT_SIZE];  ///< one path a line, NUL-filled; so are the next two
  char exclusions[FSFILTER_TEXT_SIZE];
  char mounts[FSFILTER_TEXT_SIZE];
};

static_assert(offsetof(fsfilter_shared_area, slot_mask) == 40);
static_assert(offsetof(fsfilter_shared_area, lock) == 44);
static_assert(offsetof(fsfilter_shared_area, owner_pid) == 68);
static_assert(offsetof(fsfilter_shared_area, statistics) == 72);
static_assert(offsetof(fsfilter_stat_struct, denied) == 8);
static_assert(offsetof(fsfilter_stat_struct, jobs) == 16);
static_assert(offsetof(fsfilter_shared_area, inclusions) == 10328);
static_assert(offsetof(fsfilter_shared_area, exclusions) == 20568);
static_assert(offsetof(fsfilter_shared_area, mounts) == 30808);
static_assert(sizeof(fsfilter_shared_area) == 41048);

using fsfilter_shared_t = fsfilter_shared_area*;

/// Makes and maps the object; replaces one that a dead owner has left behind.
/// @return the mapping, which the caller closes; null with errno, EEXIST if a living owner has one
fsfilter_shared_t fsfilter_shared_create(const char* name);

/// Maps an existing object. Null with errno when there is none or it is too short (EINVAL).
fsfilter_shared_t fsfilter_shared_open(const char* name);

/// Unmaps the area, and unlinks the name when the area says that this process owns it.
/// @return -1 for nulls, else the result of the unlinking, or 0
int fsfilter_shared_close(const char* name, fsfilter_shared_t area);

/// 1 when the object can be opened, else 0.
int fsfilter_shared_exist(const char* name);

/// 0 when the object's owner is alive; -1 when it is not, or when the object cannot be opened, is
/// too short or belongs to another user. Any process can write the owner's pid, so a process counts
/// as the owner only if it runs as our user and maps the object. While no pid is set, any such
/// process counts.
int fsfilter_shared_inuse(const char* name);

/// Reads an object that any process may have written, as fsfilter_read_status() promises.
/// @return 0, or -1 with errno and *out untouched
int fsfilter_shared_read(const char* name, fsfilter_status_struct* out);

/// Adds a pid and returns its slot (0 to 9); -1 when the table is full, the lock cannot be taken,
/// the pid is not positive, or the area is null.
int fsfilter_shared_add_trusted(fsfilter_shared_t area, std::int32_t pid);

/// 0 when the pid was removed; -1 when it is not there, the lock cannot be taken, or for null.
int fsfilter_shared_rm_trusted(fsfilter_shared_t area, std::int32_t pid);

/// 1 when the pid is in a slot whose mask bit is set; otherwise 0, also for pid 0, for null, and if
/// the lock cannot be taken. The lock is taken only for a pid that is in a slot.
int fsfilter_is_trusted(fsfilter_shared_t area, std::int32_t pid);

}  // namespace fsfilter_internal
