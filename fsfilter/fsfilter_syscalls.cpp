#include "fsfilter_syscalls.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/select.h>
#include <sys/types.h>

#include <cerrno>

#include "descriptor.h"

namespace {

// Without O_LARGEFILE a 32-bit kernel cannot open files above 2 GiB for the event, and denies the
// access to them. The flag is 0 where it is not needed.
constexpr unsigned int event_file_flags = O_RDONLY | O_NONBLOCK | O_LARGEFILE;
#if defined(__LP64__)
static_assert(event_file_flags == 0x800);
#else
static_assert(event_file_flags > 0x800);
#endif
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "large files and inode numbers");

constexpr std::uint64_t mount_mask = FAN_OPEN_PERM | FAN_CLOSE_WRITE | FAN_EVENT_ON_CHILD;
constexpr std::uint64_t ignored_mask =
    FAN_ACCESS | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE | FAN_OPEN;
constexpr std::uint64_t folder_mask =
    ignored_mask | FAN_OPEN_PERM | FAN_ACCESS_PERM | FAN_EVENT_ON_CHILD;

}  // namespace

inline namespace fsfilter_internal {

int fanotify_sys_init(unsigned int flags, unsigned int event_flags) {
  return ::fanotify_init(flags, event_flags);
}

// The C library's wrapper and not a raw system call: it splits the 64-bit mask as the ABI requires.
int fanotify_sys_mark(int fd, unsigned int flags, std::uint64_t mask, const char* path) {
  return ::fanotify_mark(fd, flags, mask, AT_FDCWD, path);
}

int fanotify_init() {
  Descriptor group(fanotify_sys_init(FAN_CLASS_CONTENT | FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS,
                                     event_file_flags));
  if (group.get() >= FD_SETSIZE) {
    errno = EMFILE;
    return -1;
  }
  const bool usable = group && fcntl(group.get(), F_SETFD, FD_CLOEXEC) == 0 &&
                      fcntl(group.get(), F_SETFL, O_NONBLOCK) == 0;
  return usable ? group.release() : -1;
}

int fanotify_unregister_all_mounts(int fd) {
  return fanotify_sys_mark(fd, FAN_MARK_FLUSH | FAN_MARK_MOUNT, 0, "/");
}

}  // namespace fsfilter_internal

int fatotify_register_mount(int fd, const char* path) {
  return fanotify_sys_mark(fd, FAN_MARK_ADD | FAN_MARK_MOUNT, mount_mask, path);
}

int fatotify_unregister_mount(int fd, const char* path) {
  return fanotify_sys_mark(fd, FAN_MARK_REMOVE | FAN_MARK_MOUNT, mount_mask, path);
}

int fanotify_register_folder(int fd, const char* path) {
  return fanotify_sys_mark(fd, FAN_MARK_ADD, folder_mask, path);
}

int fatotify_unregister_folder(int fd, const char* path) {
  return fanotify_sys_mark(fd, FAN_MARK_REMOVE | FAN_MARK_MOUNT, folder_mask, path);
}

int fatotify_ignore(int fd, const char* path) {
  return fanotify_sys_mark(fd, FAN_MARK_IGNORED_MASK, ignored_mask, path);
}
