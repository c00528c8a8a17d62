#include "fsfilter_path.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>

inline namespace fsfilter_internal {

int get_pathinfo(const char* path, pathinfo_t* info) {
  struct stat status {};
  if (stat(path, &status) != 0) {
    return -1;
  }
  info->mode = static_cast<std::int32_t>(status.st_mode);
  return 0;
}

int fsfilter_path_add(PathSet* set, const char* path) {
  pathinfo_t info;
  if (set == nullptr || path == nullptr || get_pathinfo(path, &info) != 0) {
    return -1;
  }
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
  if (set == nullptr || path == nullptr) {
    return 0;
  }
  const std::string_view whole(path);
  if (set->contains(whole)) {
    return 1;
  }
  // From the second character on: the empty text before a leading slash is no directory.
  for (std::size_t slash = whole.find('/', 1); slash != std::string_view::npos;
       slash = whole.find('/', slash + 1)) {
    if (set->contains(whole.substr(0, slash))) {
      return 1;
    }
  }
  return 0;
}

}  // namespace fsfilter_internal
