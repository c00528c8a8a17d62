#include "fsfilter_path.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "at_or_above.h"

inline namespace fsfilter_internal {

int get_pathinfo(const char* path, pathinfo_t* info) {
  struct statx status {};
  // What the kernel has cached is enough: a file system's server may never answer.
  if (statx(AT_FDCWD, path, AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_MODE,
            &status) != 0) {
    return -1;
  }
  info->mode = status.stx_mode;
  return 0;
}

int fsfilter_path_add(PathSet* set, const char* path) {
  pathinfo_t info;
  if (set == nullptr || path == nullptr || get_pathinfo(path, &info) != 0) {
    return -1;
  }
  return fsfilter_path_put(set, path, info);
}

int fsfilter_path_put(PathSet* set, const char* path, pathinfo_t info) {
  try {
    (*set)[path] = info;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  return 0;
}

int fsfilter_path_rm(PathSet* set, const char* path) {
  if (set == nullptr) {
    return -1;
  }
  if (path == nullptr) {
    return 0;
  }
  if (const auto found = set->find(std::string_view(path)); found != set->end()) {
    set->erase(found);
  }
  return 0;
}

int fsfilter_path_in(const PathSet* set, const char* path) {
  return set != nullptr && path != nullptr && find_at_or_above(*set, path) != set->end() ? 1 : 0;
}

}  // namespace fsfilter_internal
