/* libfsfilter: file-access permission events of watched mounts, over Linux fanotify.
 *
 * A filter is a kernel notification group, three path sets and the shared status area "/fsfilter".
 * Who owns a held open: the kernel holds it until request_event() takes it; from there the caller
 * owns the event and its descriptor and must hand both to set_result() exactly once, on any
 * thread. What request_event() does not return it has answered "allow" itself. Closing the filter,
 * or the death of the process, releases whatever is still held: the kernel allows it.
 *
 * Results are int: 0 for success, -1 or another negative value for failure, unless said otherwise.
 * Nothing is printed (print_event_info() apart) and nothing throws. Functions that change state or
 * talk to the kernel return -1 for a null handle; is_included, is_excluded, is_trusted_pid and
 * fsfilter_stat expect a valid one.
 *
 * Threads: one thread at a time calls request_event(); set_result() may be called by any. The path
 * sets are not locked: change the inclusions and exclusions only while nobody reads events.
 */
#ifndef FSFILTER_H
#define FSFILTER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of a path with its terminator. The kernel cannot name files beyond it; such events are
 * allowed and counted. */
enum { FSFILTER_PATH_MAX = 4096 };

/* Bytes of each text of the status area; a text of exactly this length has no terminator. */
enum { FSFILTER_TEXT_SIZE = 10240 };

typedef void* fsfilter_handle_t;

enum fsfilter_event_type {
  FSFILTER_OPEN = 0,     /* an open that waits for the verdict */
  FSFILTER_CLOSE_WR = 1, /* a close after writing; nobody waits */
  FSFILTER_OTHER = 2
};

enum fsfilter_verdict { FSFILTER_ALLOW = 0, FSFILTER_DENY = 1 };

/* How many processes can be trusted at a time. */
enum { FSFILTER_TRUSTED_MAX = 10 };

/* One event as handed to the consumer; copied by value. */
struct fsfilter_event_struct {
  int32_t filter_fd;   /* the group's descriptor the event was read from */
  uint64_t mask;       /* the kernel's event mask, raw */
  uint64_t message_id; /* counts the events read by this process, from 1 */
  uint32_t type;       /* enum fsfilter_event_type */
  int32_t fd;          /* open on the file, read-only; set_result() closes it */
  int32_t pid;         /* who accesses the file; 0 for a process of another pid namespace */
  int32_t result;      /* the verdict, set by the consumer: 1 denies, everything else allows */
  char path[FSFILTER_PATH_MAX];
};

/* The statistics block of the status area. Other processes see it change at any time; the counters
 * are updated with atomic additions. */
struct fsfilter_stat_struct {
  uint64_t answered;             /* verdicts given */
  uint64_t denied;               /* of these, denials */
  char jobs[FSFILTER_TEXT_SIZE]; /* the scheduled jobs, one a line, NUL-filled */
};

/* What the status area says, as somebody else wrote it: any process can, so believe it as far as it
 * does no harm. What fsfilter_read_status() promises of every area: a pid is positive, or 0 for
 * nobody, and every text ends within its array. A text may hold any byte but NUL, and its last line
 * may be cut off. */
struct fsfilter_status_struct {
  uint64_t answered;                          /* verdicts given */
  uint64_t denied;                            /* of these, denials */
  int32_t owner_pid;                          /* who registered the filter; may have died since */
  int32_t trusted_pids[FSFILTER_TRUSTED_MAX]; /* by slot; 0 for a free one */
  char jobs[FSFILTER_TEXT_SIZE + 1];          /* the texts: one entry a line */
  char inclusions[FSFILTER_TEXT_SIZE + 1];
  char exclusions[FSFILTER_TEXT_SIZE + 1];
  char mounts[FSFILTER_TEXT_SIZE + 1];
};

/* Makes a filter and the status area, owned by this process. Needs CAP_SYS_ADMIN.
 * The group's descriptor is close-on-exec and below FD_SETSIZE: register early.
 * Returns 0 with the handle in *out; the negative result of the kernel's refusal (errno says why);
 * or a positive errno value when the area cannot be made, EEXIST while another live process owns
 * it. On that last failure the group stays open until the process ends. */
int register_filter(fsfilter_handle_t* out);

/* Closes a filter: what is held is allowed, the marks go, the area is unlinked if this process
 * owns it. No other thread may be inside the library with this handle, or come back to it. */
int unregister_filter(fsfilter_handle_t handle);
int close_filter(fsfilter_handle_t handle);

/* Closes the kernel's side and unlinks the area as unregister_filter() does, but leaves the handle
 * valid, for a process about to end while threads of it may still call set_result(): their
 * answers then go nowhere. */
int release_filter(fsfilter_handle_t handle);

/* Opens the status area that another process owns. The handle reads no events and answers none. To
 * look at the area, fsfilter_read_status() is safer: this maps it, and memory that is mapped faults
 * when a third process cuts it off. */
int open_filter(fsfilter_handle_t* out);

/* Waits at most timeout_seconds for an event that the consumer must decide, however many others
 * come meanwhile. Answered here with "allow": what is not a regular file, neither an open nor a
 * close after writing, caused by a trusted process, without a name, not included, or excluded.
 * Returns 0 with *event filled, or -1 with *event untouched. */
int request_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                  int timeout_seconds);

/* For further readers that stand in while the one inside request_event() is stuck. Any thread. */

/* Waits for an event, which may be gone, or another reader's, by the time it is read. The wait
 * opens nothing and cannot get stuck. Returns 0, or -1 when none came in time. */
int await_event(fsfilter_handle_t handle, int timeout_milliseconds);

/* request_event() for one event that is there now: -1 also when it was answered here. */
int request_event_aside(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* Takes one event of any kind and allows it, without a look at the path sets, which may be
 * changing. Returns 0, or -1 when there was none. */
int allow_one_event(fsfilter_handle_t handle);

/* For how many milliseconds the thread inside request_event() has been busy with one event; 0 while
 * it waits for one or is not inside. Reading an event opens its file, which waits for another
 * process on some file systems. Any thread. */
int64_t fsfilter_reader_busy(fsfilter_handle_t handle);

/* Answers "allow" to an open that somebody else has taken, without closing its descriptor: the last
 * way out when that one no longer will. Any thread. */
void allow_held(fsfilter_handle_t handle, int32_t fd);

/* Answers one event and closes its descriptor, whatever the verdict; one call per event.
 * An event of another filter is counted and otherwise left alone.
 * Returns 0, or the kernel's negative write result (-1 with ENOENT for an event that nobody waits
 * for, such as a close after writing); the descriptor is closed all the same. */
int set_result(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* Trust a process: its accesses are never held. At most ten, and only in the process that owns the
 * area. -1 when the table refuses: full, not found, or its lock not free within 100 ms. */
int register_trusted(fsfilter_handle_t handle, int32_t pid);
int unregister_trusted(fsfilter_handle_t handle, int32_t pid);

/* 1 for the owner of the filter and for processes in the table, else 0. Never 1 for pid 0. */
int is_trusted_pid(fsfilter_handle_t handle, int32_t pid);

/* Change a path set and mirror it into the status area. A path covers itself and everything under
 * it; give it in canonical form without a trailing slash. Adding needs the path to exist. */
int add_inclusion(fsfilter_handle_t handle, const char* path);
int remove_inclusion(fsfilter_handle_t handle, const char* path);
int add_exclusion(fsfilter_handle_t handle, const char* path);
int remove_exclusion(fsfilter_handle_t handle, const char* path);

/* 1 or 0. An empty inclusion set includes everything, an empty exclusion set excludes nothing. */
int is_included(fsfilter_handle_t handle, const char* path);
int is_excluded(fsfilter_handle_t handle, const char* path);

/* Watch or unwatch a mount point. File systems whose type begins with "nfs" are refused (-1), and
 * never were registered (0). Marking a mount twice is harmless. */
int register_mounting_point(fsfilter_handle_t handle, const char* path, const char* fstype);
int unregister_mounting_point(fsfilter_handle_t handle, const char* path, const char* fstype);

/* Unwatches every mount point at once, without the walk to any of them, which may get stuck. */
int unregister_all_mounting_points(fsfilter_handle_t handle);

/* Folder marks, and the ignore mark, which the kernel refuses with EINVAL. */
int register_folder(fsfilter_handle_t handle, const char* path);
int unregister_folder(fsfilter_handle_t handle, const char* path);
int ignore_path(fsfilter_handle_t handle, const char* path);

/* The path of the event's descriptor, terminated, in `buffer` of `size` bytes.
 * Returns its length, or -1 (ENAMETOOLONG from 4096 bytes on). */
int get_file_name(const struct fsfilter_event_struct* event, char* buffer, size_t size);

/* 0 to 2, enum fsfilter_event_type, from a raw event mask. */
uint32_t get_metadata_type(uint64_t mask);

/* Prints an event on standard output, for debugging. */
void print_event_info(const struct fsfilter_event_struct* event);

/* The statistics block of the status area; valid until the filter is closed. */
struct fsfilter_stat_struct* fsfilter_stat(fsfilter_handle_t handle);

/* Reads the status area of whichever process owns it, without a handle and without mapping it: no
 * other process can make this one wait or fault. Needs only the right to read "/dev/shm/fsfilter".
 * What changes meanwhile may be seen half changed. Any thread.
 * Returns 0 with *out filled, or -1 with *out untouched and errno: ENOENT when there is no area,
 * EACCES when it may not be read, EINVAL when it is too short or no plain file (ELOOP for a link),
 * or out is null. */
int fsfilter_read_status(struct fsfilter_status_struct* out);

/* For a SIGBUS handler. Any process can cut the status area off while it is mapped; the next access
 * then faults. If `address` lies in the area of the filter registered last, private memory takes
 * its place, which other processes do not see: the filter works on with empty tables. Returns 1
 * when the faulting access can be repeated, 0 when the address is none of the library's.
 * Async-signal-safe; any thread. */
int fsfilter_restore_area(const void* address);

/* Events allowed because their file could not be named, and the kernel's reports of lost ones,
 * since this filter was made. */
uint64_t fsfilter_unnamed_events(fsfilter_handle_t handle);

#ifdef __cplusplus
}
#endif

#endif
