// Registration, path sets, marks and the status area. Reading and answering events is in
// fsfilter_events.cpp.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "fsfilter_context.h"
#include "fsfilter_group.h"
#include "fsfilter_syscalls.h"
#include "network_file_system.h"

namespace {

// The area of the filter that this process owns, for fsfilter_restore_area().
std::atomic<fsfilter_shared_t> owned_area{nullptr};

// Another process may have overwritten the owner's pid in the area.
bool is_owner(const fsfilter_state_t& state, std::int32_t pid) {
  return pid == state.owner_pid ||
         pid == std::atomic_ref(state.shared->owner_pid).load(std::memory_order_relaxed);
}

// The area, if this process owns it; else null.
fsfilter_shared_t own_area(fsfilter_handle_t handle) {
  const bool own = handle != nullptr && is_owner(*cast(handle)->state, getpid());
  return own ? cast(handle)->state->shared : nullptr;
}

// Makes a context with a group of its own, and a new state unless one is given. Null with errno.
std::unique_ptr<fsfilter_context_t> make_group(std::shared_ptr<fsfilter_state_t> shared_state) {
  std::unique_ptr<fsfilter_context_t> context(fsfilter_make_context(std::move(shared_state)));
  if (context != nullptr) {
    context->group.reset(context->state->placeholder ? fanotify_init() : -1);
    if (!context->group) {
      context.reset();
    }
  }
  return context;
}

// Changes one path set and mirrors it.
int change_set(fsfilter_handle_t handle, PathSet fsfilter_state_t::*set,
               int (*change)(PathSet*, const char*), const char* path,
               void (*mirror)(fsfilter_state_t&)) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_state_t& state = *cast(handle)->state;
  const int result = change(&(state.*set), path);
  mirror(state);
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
  if (get_pathinfo(path, &info) == 0) {
    lock.lock();
    (void)fsfilter_path_put(&state.mounts, path, info);
    syncMounts(state);
  }
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
  std::unique_ptr<fsfilter_context_t> context = make_group(cast(filter)->state);
  if (context == nullptr) {
    return -1;
  }
  *out = context.release();
  return 0;
}

int fsfilter_unmark_all(fsfilter_handle_t handle) {
  return fanotify_unregister_all_mounts(fsfilter_descriptor(handle));
}

int fsfilter_release_group(fsfilter_handle_t handle) {
  fsfilter_context_t* context = cast(handle);
  context->ended.store(true);
  return dup3(context->state->placeholder.get(), context->group.get(), O_CLOEXEC) < 0 ? -1 : 0;
}

void fsfilter_keep_handle(fsfilter_handle_t handle) {
  fsfilter_enter_context(cast(handle));
}

int fsfilter_descriptor(fsfilter_handle_t handle) {
  return handle == nullptr ? -1 : cast(handle)->group.get();
}

int fsfilter_forget_mount(fsfilter_handle_t handle, const char* path) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_state_t& state = *cast(handle)->state;
  const ScopedLock lock(state.mounts_mutex);
  (void)fsfilter_path_rm(&state.mounts, path);
  syncMounts(state);
  return 0;
}

uint64_t fsfilter_failed_reads(fsfilter_handle_t handle) {
  return cast(handle)->state->failed_reads.load(std::memory_order_relaxed);
}

}  // namespace fsfilter_internal

int register_filter(fsfilter_handle_t* out) {
  std::unique_ptr<fsfilter_context_t> context(out == nullptr ? nullptr : make_group(nullptr));
  if (context == nullptr) {
    return -1;
  }
  fsfilter_state_t& state = *context->state;
  state.shared = fsfilter_shared_create(status_area_name);
  if (state.shared == nullptr) {
    const int error = errno;
    (void)context->group.release();
    return error;
  }
  state.owner_pid = getpid();
  std::atomic_ref(state.shared->owner_pid).store(state.owner_pid);
  owned_area.store(state.shared);
  *out = context.release();
  return 0;
}

int unregister_filter(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  fsfilter_drop_jobs(context);
  (void)fsfilter_release_group(context);
  if (context->is_first && own_area(handle) != nullptr) {
    (void)shm_unlink(status_area_name);
  }
  fsfilter_leave_context(context);
  return 0;
}

int close_filter(fsfilter_handle_t handle) {
  return unregister_filter(handle);
}

int open_filter(fsfilter_handle_t* out) {
  std::unique_ptr<fsfilter_context_t> context(out == nullptr ? nullptr : fsfilter_make_context());
  if (context == nullptr) {
    return -1;
  }
  context->state->shared = fsfilter_shared_open(status_area_name);
  if (context->state->shared == nullptr) {
    return -1;
  }
  *out = context.release();
  return 0;
}

int register_trusted(fsfilter_handle_t handle, int32_t pid) {
  return fsfilter_shared_add_trusted(own_area(handle), pid) < 0 ? -1 : 0;
}

int unregister_trusted(fsfilter_handle_t handle, int32_t pid) {
  return fsfilter_shared_rm_trusted(own_area(handle), pid);
}

int is_trusted_pid(fsfilter_handle_t handle, int32_t pid) {
  const fsfilter_state_t& state = *cast(handle)->state;
  return pid > 0 && is_owner(state, pid) ? 1 : fsfilter_is_trusted(state.shared, pid);
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
  (void)fsfilter_forget_mount(handle, path);
  return result;
}

int register_folder(fsfilter_handle_t handle, const char* path) {
  return fanotify_register_folder(fsfilter_descriptor(handle), path);
}

int unregister_folder(fsfilter_handle_t handle, const char* path) {
  return fatotify_unregister_folder(fsfilter_descriptor(handle), path);
}

int ignore_path(fsfilter_handle_t handle, const char* path) {
  return fatotify_ignore(fsfilter_descriptor(handle), path);
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
  if (area == nullptr || at < begin || at - begin >= sizeof *area) {
    return 0;
  }
  const void* restored = mmap(area, sizeof *area, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  return restored == area ? 1 : 0;
}

uint64_t fsfilter_unnamed_events(fsfilter_handle_t handle) {
  return handle == nullptr ? 0
                           : cast(handle)->state->unnamed_events.load(std::memory_order_relaxed);
}
