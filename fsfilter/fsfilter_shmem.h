// The status area: the shared-memory object in which a filter shows its state to other processes.
//
// Any process can write it. So nothing in it is believed: the slot mask is bounded to its ten bits,
// texts to their areas, the object's size is checked before it is mapped, and its lock is waited
// for at most 100 ms. Offsets and size are the same on every ABI, since other programs map it too.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fsfilter.h"
#include "shared_lock.h"

inline namespace fsfilter_internal {

inline constexpr int trusted_slots = FSFILTER_TRUSTED_MAX;

/// All integers in the machine's byte order.
struct fsfilter_shared_area {
  std::int32_t trusted_pids[trusted_slots];  ///< 0 marks a free slot
  std::uint32_t slot_mask;                   ///< bit i: slot i holds a trusted pid
  SharedLock lock;                           ///< guards the two fields above
  std::int32_t owner_pid;                    ///< who registered the filter
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

/// Makes, sizes and maps the object; one left behind by a dead owner is replaced.
/// @return the mapping, the caller's to close; null with errno, EEXIST while its owner lives
fsfilter_shared_t fsfilter_shared_create(const char* name);

/// Maps an existing object. Null with errno when there is none, or a short one (EINVAL).
fsfilter_shared_t fsfilter_shared_open(const char* name);

/// Puts zero-filled private memory in the place of a mapped area. Async-signal-safe.
/// @return whether the area can be used again
bool fsfilter_shared_restore(fsfilter_shared_t area);

/// Unmaps the area, and unlinks the name when the area says that this process owns it.
/// @return -1 for nulls, else the result of the unlinking, or 0
int fsfilter_shared_close(const char* name, fsfilter_shared_t area);

/// 1 when the object can be opened, else 0.
int fsfilter_shared_exist(const char* name);

/// 0 when the object's owner is alive or not yet set, -1 when it is dead, or the object cannot be
/// opened, is short, or belongs to another user.
int fsfilter_shared_inuse(const char* name);

/// Reads a counter of 64 bits, of which a 32-bit kernel copies one half after the other, while its
/// filter counts: the lower half belongs to the upper one that is the same before and after it.
/// Somebody who keeps changing the upper one gets a limited number of tries.
/// @param read_half called with whether it is the upper one, and where it goes; false when it fails
/// @return false when a half could not be read
template <typename ReadHalf>
bool read_counter(ReadHalf read_half, std::uint64_t* counter) {
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  bool read = read_half(true, &high);
  bool whole = false;
  for (int tries = 100; read && !whole && tries > 0; --tries) {
    const std::uint32_t before = high;
    read = read_half(false, &low) && read_half(true, &high);
    whole = before == high;
  }
  *counter = std::uint64_t{high} << 32 | low;
  return read;
}

/// Reads an object that anybody may have written, as fsfilter_read_status() promises it.
/// @return 0, or -1 with errno and *out untouched
int fsfilter_shared_read(const char* name, fsfilter_status_struct* out);

/// The slot (0 to 9) that holds the pid now; -1 when the table is full, the lock is not to be had,
/// the pid is not positive, or the area is null.
int fsfilter_shared_add_trusted(fsfilter_shared_t area, std::int32_t pid);

/// 0 when the pid was removed; -1 when it is not there, the lock is not to be had, or for null.
int fsfilter_shared_rm_trusted(fsfilter_shared_t area, std::int32_t pid);

/// 1 when the pid is in a slot whose mask bit is set; else 0, also for pid 0, for null, and while
/// the lock is not to be had. A pid that is in no slot costs no lock.
int fsfilter_is_trusted(fsfilter_shared_t area, std::int32_t pid);

}  // namespace fsfilter_internal
