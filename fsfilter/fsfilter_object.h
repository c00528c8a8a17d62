// How the status area's object gets its name in /dev/shm, a folder in which any user may create
// files.
#pragma once

#include <sys/stat.h>

#include <cstdint>

inline namespace fsfilter_internal {

/// Renames an object to its final name. Anything else of that name gives way, even another user's
/// folder, link or pipe, unless it is an object whose owner is alive. It is removed, but for a
/// folder with something in it, which only loses its name.
/// @param own the object's present name; in /dev/shm, like `name`
/// @return 0, or -1 with errno, EEXIST for a living owner; the object then keeps its own name
int fsfilter_object_publish(const char* own, const char* name);

/// Whether an object really has an owner: the process that it names runs as our user and maps the
/// object. If the owner is not set yet (0), any such process counts.
bool fsfilter_object_owned(const struct stat& object, std::int32_t owner);

}  // namespace fsfilter_internal
