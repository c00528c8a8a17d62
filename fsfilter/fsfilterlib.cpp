// Registration, path sets, marks and the status area. Reading and answering events is in
// fsfilter_events.cpp.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "fsfilter_context.h"
#include "fsfilter_syscalls.h"
#include "fsfilter_threads.h"
#include "network_file_system.h"

namespace {

// The area of the filter that this process owns, for fsfilter_restore_area().
std::atomic<fsfilter_shared_t> owned_area{nullptr};

// Another process may have written over the owner's pid; the name is unlinked by who made it.
void claim_ownership(fsfilter_context_t* context) {
  if (context->owner_pid != 0 && context->owner_pid == getpid()) {
    std::atomic_ref(context->shared->owner_pid).store(context->owner_pid);
  }
}

bool owns_area(const fsfilter_context_t* context) {
  return std::atomic_ref(context->shared->owner_pid).load(std::memory_order_relaxed) == getpid();
}

// Gives the name of the area free. Once only: from then on it may be that of another filter.
void unlink_area(fsfilter_context_t* context) {
  if (!context->unlinked.exchange(true)) {
    (void)shm_unlink(status_area_name);
  }
}

// Private memory takes the area's place, for late answers: nobody can cut it off.
void leave_area(fsfilter_context_t* context) {
  (void)fsfilter_shared_restore(context->shared);
  fsfilter_shared_t area = context->shared;
  (void)owned_area.compare_exchange_strong(area, nullptr);
}

void destroy(fsfilter_context_t* context) {
  (void)munmap(context->shared, sizeof *context->shared);
  if (context->fanotify_fd >= 0) {
    (void)close(context->fanotify_fd);
  }
  delete context;
}

// Changes one path set and mirrors it; errno is the change's.
int change_set(fsfilter_handle_t handle, PathSet fsfilter_context_t::*set,
               int (*change)(PathSet*, const char*), const char* path,
               void (*mirror)(fsfilter_context_t*)) {
  if (handle == nullptr) {
    return -1;
  }
  const int result = change(&(cast(handle)->*set), path);
  const int error = errno;
  mirror(cast(handle));
  errno = error;
  return result;
}

}  // namespace

inline namespace fsfilter_internal {

fsfilter_context_t* cast(fsfilter_handle_t handle) {
  return static_cast<fsfilter_context_t*>(handle);
}

void fsfilter_enter_context(fsfilter_context_t* context) {
  context->users.fetch_add(1, std::memory_order_relaxed);
}

void fsfilter_leave_context(fsfilter_context_t* context) {
  if (context->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    destroy(context);
  }
}

void syncPathList(const PathSet& set, char (&area)[FSFILTER_TEXT_SIZE]) {
  char text[FSFILTER_TEXT_SIZE] = "";
  std::size_t length = 0;
  for (const auto& [path, info] : set) {
    if (path.size() + 1 > sizeof text - length) {
      return;
    }
    length += path.copy(text + length, path.size());
    text[length++] = '\n';
  }
  // Readers hold no lock: what has not changed is not written again.
  if (std::memcmp(area, text, sizeof text) != 0) {
    std::memcpy(area, text, sizeof text);
  }
}

void syncInclusions(fsfilter_context_t* context) {
  syncPathList(context->inclusions, context->shared->inclusions);
}

void syncExclusions(fsfilter_context_t* context) {
  syncPathList(context->exclusions, context->shared->exclusions);
}

void syncMounts(fsfilter_context_t* context) {
  syncPathList(context->mounts, context->shared->mounts);
}

}  // namespace fsfilter_internal

int register_filter(fsfilter_handle_t* out) {
  if (out == nullptr) {
    return -1;
  }
  auto* context = new (std::nothrow) fsfilter_context_t;
  if (context == nullptr) {
    return -1;
  }
  context->fanotify_fd = fanotify_init();
  if (context->fanotify_fd < 0) {
    const int result = context->fanotify_fd;
    delete context;
    return result;
  }
  context->shared = fsfilter_shared_create(status_area_name);
  if (context->shared == nullptr) {
    const int error = errno;
    delete context;
    return error;
  }
  context->owner_pid = getpid();
  owned_area.store(context->shared);
  claim_ownership(context);
  *out = context;
  return 0;
}

int unregister_filter(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  fsfilter_drop_jobs(context);
  if (context->fanotify_fd >= 0) {
    (void)fanotify_release(context->fanotify_fd);
  }
  claim_ownership(context);
  if (owns_area(context)) {
    unlink_area(context);
  }
  leave_area(context);
  fsfilter_leave_context(context);
  return 0;
}

int close_filter(fsfilter_handle_t handle) {
  return unregister_filter(handle);
}

int release_filter(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  if (context->owner_pid == getpid()) {
    unlink_area(context);
  }
  return context->fanotify_fd < 0 ? 0 : fanotify_release(context->fanotify_fd);
}

int open_filter(fsfilter_handle_t* out) {
  if (out == nullptr) {
    return -1;
  }
  auto* context = new (std::nothrow) fsfilter_context_t;
  if (context == nullptr) {
    return -1;
  }
  context->shared = fsfilter_shared_open(status_area_name);
  if (context->shared == nullptr) {
    delete context;
    return -1;
  }
  *out = context;
  return 0;
}

int register_trusted(fsfilter_handle_t handle, int32_t pid) {
  if (handle == nullptr || !owns_area(cast(handle))) {
    return -1;
  }
  return fsfilter_shared_add_trusted(cast(handle)->shared, pid) < 0 ? -1 : 0;
}

int unregister_trusted(fsfilter_handle_t handle, int32_t pid) {
  if (handle == nullptr || !owns_area(cast(handle))) {
    return -1;
  }
  return fsfilter_shared_rm_trusted(cast(handle)->shared, pid);
}

int is_trusted_pid(fsfilter_handle_t handle, int32_t pid) {
  fsfilter_context_t* context = cast(handle);
  if (pid <= 0) {
    return 0;
  }
  if (pid == context->owner_pid ||
      pid == std::atomic_ref(context->shared->owner_pid).load(std::memory_order_relaxed)) {
    return 1;
  }
  return fsfilter_is_trusted(context->shared, pid);
}

int add_inclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_context_t::inclusions, fsfilter_path_add, path,
                    syncInclusions);
}

int remove_inclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_context_t::inclusions, fsfilter_path_rm, path,
                    syncInclusions);
}

int add_exclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_context_t::exclusions, fsfilter_path_add, path,
                    syncExclusions);
}

int remove_exclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_context_t::exclusions, fsfilter_path_rm, path,
                    syncExclusions);
}

int is_included(fsfilter_handle_t handle, const char* path) {
  const PathSet& inclusions = cast(handle)->inclusions;
  return inclusions.empty() ? 1 : fsfilter_path_in(&inclusions, path);
}

int is_excluded(fsfilter_handle_t handle, const char* path) {
  const PathSet& exclusions = cast(handle)->exclusions;
  return exclusions.empty() ? 0 : fsfilter_path_in(&exclusions, path);
}

int register_mounting_point(fsfilter_handle_t handle, const char* path, const char* fstype) {
  if (handle == nullptr || network_file_system(fstype)) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  const int result = fatotify_register_mount(context->fanotify_fd, path);
  const int error = errno;
  (void)fsfilter_path_add(&context->mounts, path);
  syncMounts(context);
  errno = error;
  return result;
}

int unregister_mounting_point(fsfilter_handle_t handle, const char* path, const char* fstype) {
  if (handle == nullptr) {
    return -1;
  }
  if (network_file_system(fstype)) {
    return 0;
  }
  fsfilter_context_t* context = cast(handle);
  const int result = fatotify_unregister_mount(context->fanotify_fd, path);
  const int error = errno;
  (void)fsfilter_path_rm(&context->mounts, path);
  syncMounts(context);
  errno = error;
  return result;
}

int unregister_all_mounting_points(fsfilter_handle_t handle) {
  return handle == nullptr ? -1 : fanotify_unregister_all_mounts(cast(handle)->fanotify_fd);
}

int register_folder(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fanotify_register_folder(cast(handle)->fanotify_fd, path);
}

int unregister_folder(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fatotify_unregister_folder(cast(handle)->fanotify_fd, path);
}

int ignore_path(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fatotify_ignore(cast(handle)->fanotify_fd, path);
}

struct fsfilter_stat_struct* fsfilter_stat(fsfilter_handle_t handle) {
  return &cast(handle)->shared->statistics;
}

int fsfilter_read_status(struct fsfilter_status_struct* out) {
  if (out == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return fsfilter_shared_read(status_area_name, out);
}

int fsfilter_restore_area(const void* address) {
  fsfilter_shared_t area = owned_area.load();
  const auto begin = reinterpret_cast<std::uintptr_t>(area);
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const bool ours = area != nullptr && at >= begin && at - begin < sizeof *area;
  return ours && fsfilter_shared_restore(area) ? 1 : 0;
}

uint64_t fsfilter_unnamed_events(fsfilter_handle_t handle) {
  return handle == nullptr ? 0 : cast(handle)->unnamed_events.load(std::memory_order_relaxed);
}
