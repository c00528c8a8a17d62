// Registration, path sets, marks and the status area. Reading and answering events is in
// fsfilter_events.cpp.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "fsfilter_context.h"
#include "fsfilter_group.h"
#include "fsfilter_syscalls.h"
#include "fsfilter_threads.h"
#include "network_file_system.h"

namespace {

// The area of the filter that this process owns, for fsfilter_restore_area().
std::atomic<fsfilter_shared_t> owned_area{nullptr};

// Another process may have overwritten the owner's pid, by which unlinking is decided: restores it.
void claim_ownership(const fsfilter_state_t& state) {
  if (state.owner_pid != 0 && state.owner_pid == getpid()) {
    std::atomic_ref(state.shared->owner_pid).store(state.owner_pid);
  }
}

bool owns_area(const fsfilter_state_t& state) {
  return std::atomic_ref(state.shared->owner_pid).load(std::memory_order_relaxed) == getpid();
}

// Makes a context with a group of its own, and a new state unless one is given. Null with errno.
fsfilter_context_t* make_group(const std::shared_ptr<fsfilter_state_t>& shared_state) {
  fsfilter_context_t* context = fsfilter_make_context(shared_state);
  if (context == nullptr) {
    return nullptr;
  }
  if (!context->state->placeholder) {
    context->state->placeholder.reset(fanotify_placeholder());
  }
  context->group.reset(fanotify_init());
  if (!context->state->placeholder || !context->group) {
    const int error = errno;
    delete context;
    errno = error;
    return nullptr;
  }
  return context;
}

// Changes one path set and mirrors it; errno is left as the change has set it.
int change_set(fsfilter_handle_t handle, PathSet fsfilter_state_t::*set,
               int (*change)(PathSet*, const char*), const char* path,
               void (*mirror)(fsfilter_state_t&)) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_state_t& state = *cast(handle)->state;
  const int result = change(&(state.*set), path);
  const int error = errno;
  mirror(state);
  errno = error;
  return result;
}

// Looks the path up only if it is new, since a file system may make the look-up wait.
void remember_mount(fsfilter_state_t& state, const char* path) {
  ScopedLock lock(state.mounts_mutex);
  if (path == nullptr || state.mounts.contains(std::string_view(path))) {
    return;
  }
  lock.unlock();
  pathinfo_t info;
  const bool exists = get_pathinfo(path, &info) == 0;
  lock.lock();
  if (exists) {
    (void)fsfilter_path_put(&state.mounts, path, info);
  }
  syncMounts(state);
}

void forget_mount(fsfilter_state_t& state, const char* path) {
  const ScopedLock lock(state.mounts_mutex);
  (void)fsfilter_path_rm(&state.mounts, path);
  syncMounts(state);
}

}  // namespace

inline namespace fsfilter_internal {

fsfilter_state_t::~fsfilter_state_t() {
  if (shared != nullptr) {
    fsfilter_shared_t area = shared;
    (void)owned_area.compare_exchange_strong(area, nullptr);
    (void)munmap(shared, sizeof *shared);
  }
}

fsfilter_context_t* cast(fsfilter_handle_t handle) {
  return static_cast<fsfilter_context_t*>(handle);
}

fsfilter_context_t* fsfilter_make_context(std::shared_ptr<fsfilter_state_t> state) {
  try {
    auto context = std::make_unique<fsfilter_context_t>();
    context->is_first = state == nullptr;
    context->state = state == nullptr ? std::make_shared<fsfilter_state_t>() : std::move(state);
    return context.release();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void fsfilter_enter_context(fsfilter_context_t* context) {
  context->users.fetch_add(1, std::memory_order_relaxed);
}

void fsfilter_leave_context(fsfilter_context_t* context) {
  if (context->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete context;
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
  // Readers take no lock, so an unchanged text is not written again.
  if (std::memcmp(area, text, sizeof text) != 0) {
    std::memcpy(area, text, sizeof text);
  }
}

void syncInclusions(fsfilter_state_t& state) {
  syncPathList(state.inclusions, state.shared->inclusions);
}

void syncExclusions(fsfilter_state_t& state) {
  syncPathList(state.exclusions, state.shared->exclusions);
}

void syncMounts(fsfilter_state_t& state) {
  syncPathList(state.mounts, state.shared->mounts);
}

int fsfilter_open_group(fsfilter_handle_t filter, fsfilter_handle_t* out) {
  if (filter == nullptr || out == nullptr) {
    errno = EINVAL;
    return -1;
  }
  fsfilter_context_t* context = make_group(cast(filter)->state);
  if (context == nullptr) {
    return -1;
  }
  *out = context;
  return 0;
}

int fsfilter_unmark_all(fsfilter_handle_t handle) {
  return handle == nullptr ? -1 : fanotify_unregister_all_mounts(cast(handle)->group.get());
}

int fsfilter_release_group(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  context->ended.store(true);
  return context->group ? fanotify_release(context->group.get(), context->state->placeholder.get())
                        : 0;
}

void fsfilter_keep_handle(fsfilter_handle_t handle) {
  fsfilter_enter_context(cast(handle));
}

int fsfilter_descriptor(fsfilter_handle_t handle) {
  return handle == nullptr ? -1 : cast(handle)->group.get();
}

int fsfilter_forget_mount(fsfilter_handle_t handle, const char* path) {
  if (handle == nullptr || path == nullptr) {
    return -1;
  }
  forget_mount(*cast(handle)->state, path);
  return 0;
}

uint64_t fsfilter_failed_reads(fsfilter_handle_t handle) {
  return handle == nullptr ? 0 : cast(handle)->state->failed_reads.load(std::memory_order_relaxed);
}

}  // namespace fsfilter_internal

int register_filter(fsfilter_handle_t* out) {
  if (out == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = make_group(nullptr);
  if (context == nullptr) {
    return -1;
  }
  fsfilter_state_t& state = *context->state;
  state.shared = fsfilter_shared_create(status_area_name);
  if (state.shared == nullptr) {
    const int error = errno;
    (void)context->group.release();
    delete context;
    return error;
  }
  state.owner_pid = getpid();
  owned_area.store(state.shared);
  claim_ownership(state);
  *out = context;
  return 0;
}

int unregister_filter(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  fsfilter_drop_jobs(context);
  (void)fsfilter_release_group(context);
  if (context->is_first) {
    claim_ownership(*context->state);
    if (owns_area(*context->state)) {
      (void)shm_unlink(status_area_name);
    }
  }
  fsfilter_leave_context(context);
  return 0;
}

int close_filter(fsfilter_handle_t handle) {
  return unregister_filter(handle);
}

int open_filter(fsfilter_handle_t* out) {
  fsfilter_context_t* context = out == nullptr ? nullptr : fsfilter_make_context();
  if (context == nullptr) {
    return -1;
  }
  context->state->shared = fsfilter_shared_open(status_area_name);
  if (context->state->shared == nullptr) {
    delete context;
    return -1;
  }
  *out = context;
  return 0;
}

int register_trusted(fsfilter_handle_t handle, int32_t pid) {
  if (handle == nullptr || !owns_area(*cast(handle)->state)) {
    return -1;
  }
  return fsfilter_shared_add_trusted(cast(handle)->state->shared, pid) < 0 ? -1 : 0;
}

int unregister_trusted(fsfilter_handle_t handle, int32_t pid) {
  if (handle == nullptr || !owns_area(*cast(handle)->state)) {
    return -1;
  }
  return fsfilter_shared_rm_trusted(cast(handle)->state->shared, pid);
}

int is_trusted_pid(fsfilter_handle_t handle, int32_t pid) {
  const fsfilter_state_t& state = *cast(handle)->state;
  if (pid <= 0) {
    return 0;
  }
  if (pid == state.owner_pid ||
      pid == std::atomic_ref(state.shared->owner_pid).load(std::memory_order_relaxed)) {
    return 1;
  }
  return fsfilter_is_trusted(state.shared, pid);
}

int add_inclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_state_t::inclusions, fsfilter_path_add, path, syncInclusions);
}

int remove_inclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_state_t::inclusions, fsfilter_path_rm, path, syncInclusions);
}

int add_exclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_state_t::exclusions, fsfilter_path_add, path, syncExclusions);
}

int remove_exclusion(fsfilter_handle_t handle, const char* path) {
  return change_set(handle, &fsfilter_state_t::exclusions, fsfilter_path_rm, path, syncExclusions);
}

int is_included(fsfilter_handle_t handle, const char* path) {
  const PathSet& inclusions = cast(handle)->state->inclusions;
  return inclusions.empty() ? 1 : fsfilter_path_in(&inclusions, path);
}

int is_excluded(fsfilter_handle_t handle, const char* path) {
  const PathSet& exclusions = cast(handle)->state->exclusions;
  return exclusions.empty() ? 0 : fsfilter_path_in(&exclusions, path);
}

int register_mounting_point(fsfilter_handle_t handle, const char* path, const char* fstype) {
  if (handle == nullptr || network_file_system(fstype)) {
    return -1;
  }
  const int result = fatotify_register_mount(cast(handle)->group.get(), path);
  const int error = errno;
  remember_mount(*cast(handle)->state, path);
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
  const int result = fatotify_unregister_mount(cast(handle)->group.get(), path);
  const int error = errno;
  forget_mount(*cast(handle)->state, path);
  errno = error;
  return result;
}

int register_folder(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fanotify_register_folder(cast(handle)->group.get(), path);
}

int unregister_folder(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fatotify_unregister_folder(cast(handle)->group.get(), path);
}

int ignore_path(fsfilter_handle_t handle, const char* path) {
  return handle == nullptr ? -1 : fatotify_ignore(cast(handle)->group.get(), path);
}

struct fsfilter_stat_struct* fsfilter_stat(fsfilter_handle_t handle) {
  return &cast(handle)->state->shared->statistics;
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
  return handle == nullptr ? 0
                           : cast(handle)->state->unnamed_events.load(std::memory_order_relaxed);
}
