/* libfsfilter: file-access permission events of watched mounts, over Linux fanotify. C11 and C++20.
 *
 * A filter is a kernel notification group, three path sets and the shared status area "/fsfilter".
 * Who owns a held open: the kernel holds it until request_event() takes it; from there the caller
 * owns the event and its descriptor and must hand both to set_result() exactly once, on any
 * thread. What request_event() does not return it has answered "allow" itself. Closing the filter,
 * or the death of the process, releases whatever is still held: the kernel allows it.
 *
 * Events are consumed in one of two ways: by the program's own reader and threads, or by the
 * library's event loop, which reads in the thread that starts it and runs callbacks on three worker
 * threads; there the library owns the events. Programs link with -lfsfilter.
 *
 * Results are int: 0 for success, -1 or another negative value for failure, unless said otherwise.
 * Nothing is printed (print_event_info() apart) and nothing throws. Functions that change state or
 * talk to the kernel return -1 for a null handle, and those without such a result do nothing or
 * return 0; is_included, is_excluded, is_trusted_pid and
 * fsfilter_stat expect a valid one.
 *
 * Threads: one thread at a time calls request_event() or runs the loop; set_result() may be called
 * by any. The path sets are not locked: change the inclusions and exclusions only while nobody
 * reads events.
 */
#ifndef FSFILTER_H
#define FSFILTER_H

#include <stddef.h>
#include <stdint.h>

/* The functions that the shared library exports. */
#define FSFILTER_API __attribute__((visibility("default")))

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
  int32_t fd;          /* open on the file, read-only, also across exec; set_result() closes it */
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
FSFILTER_API int register_filter(fsfilter_handle_t* out);

/* Closes a filter: what is held is allowed, the marks go, the area is unlinked if this process
 * owns it. No other thread may be inside the library with this handle, or come back to it, but an
 * event loop, which sees no further event and goes on until it is stopped, and the workers: jobs
 * that wait are allowed without their callbacks, and callbacks that run may use the handle until
 * they return, with a verdict that comes too late. This call does not wait for them;
 * fsfilter_thread_end() does. Close first: from the end of the loop to this call nobody reads
 * events, and every open of what is watched waits, those of the callbacks among them. */
FSFILTER_API int unregister_filter(fsfilter_handle_t handle);
FSFILTER_API int close_filter(fsfilter_handle_t handle);

/* Closes the kernel's side and unlinks the area as unregister_filter() does, but leaves the handle
 * valid, for a process about to end while threads of it may still call set_result(): their
 * answers then go nowhere. */
FSFILTER_API int release_filter(fsfilter_handle_t handle);

/* Opens the status area that another process owns. The handle reads no events and answers none. To
 * look at the area, fsfilter_read_status() is safer: this maps it, and memory that is mapped faults
 * when a third process cuts it off. */
FSFILTER_API int open_filter(fsfilter_handle_t* out);

/* Waits at most timeout_seconds for an event that the consumer must decide, however many others
 * come meanwhile. Answered here with "allow": what is not a regular file, neither an open nor a
 * close after writing, caused by a trusted process, without a name, not included, or excluded.
 * Returns 0 with *event filled, or -1 with *event untouched. */
FSFILTER_API int request_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                               int timeout_seconds);

/* Waits at most timeout_seconds for one event of any kind and reads it, without asking the path
 * sets or who caused it. The path stays empty: get_file_name(). A record without a file, with fd
 * negative, is the kernel's word that events were lost.
 * Returns 0 with *event filled, or -1 with *event untouched. */
FSFILTER_API int request_one_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                                   int timeout_seconds);

/* For further readers that stand in while the one inside request_event() is stuck. Any thread. */

/* Waits for an event, which may be gone, or another reader's, by the time it is read. The wait
 * opens nothing and cannot get stuck. Returns 0, or -1 when none came in time. */
FSFILTER_API int await_event(fsfilter_handle_t handle, int timeout_milliseconds);

/* request_event() for one event that is there now: -1 also when it was answered here. */
FSFILTER_API int request_event_aside(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* Takes one event of any kind and allows it, without a look at the path sets, which may be
 * changing. Returns 0, or -1 when there was none. */
FSFILTER_API int allow_one_event(fsfilter_handle_t handle);

/* For how many milliseconds the thread inside request_event() has been busy with one event; 0 while
 * it waits for one or is not inside. Reading an event opens its file, which waits for another
 * process on some file systems. Any thread. */
FSFILTER_API int64_t fsfilter_reader_busy(fsfilter_handle_t handle);

/* Answers "allow" to an open that somebody else has taken, without closing its descriptor: the last
 * way out when that one no longer will. Any thread. */
FSFILTER_API void allow_held(fsfilter_handle_t handle, int32_t fd);

/* Answers one event and closes its descriptor, whatever the verdict; one call per event.
 * An event of another filter is counted and otherwise left alone.
 * Returns 0, or the kernel's negative write result (-1 with ENOENT for an event that nobody waits
 * for, such as a close after writing); the descriptor is closed all the same. */
FSFILTER_API int set_result(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* Decides one event on a worker thread: FSFILTER_DENY denies, everything else allows. The event and
 * its descriptor are the library's and end with the call. Several run at the same time. A callback
 * must not throw; while it runs, who opened the file waits. Accesses of its own process are allowed
 * at once, as long as the loop runs. */
typedef int (*fsfilter_callback_t)(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* What an event loop works with, the program's; zero it before use. While a loop runs only stop and
 * unposted may be looked at by others, and changed by nobody but the calls below. */
struct event_loop_data_struct {
  fsfilter_handle_t handle;              /* a filter that reads events */
  fsfilter_callback_t open_callback;     /* decides opens; null allows them */
  void* open_data;                       /* the program's word for it: fsfilter_callback_data() */
  fsfilter_callback_t close_wr_callback; /* told of closes after writing, for which nobody waits */
  void* close_wr_data;                   /* the program's word for it */
  int32_t stop;                          /* 1 ends the loop */
  int32_t reserved[2];                   /* for later versions */
  int32_t unposted; /* events allowed since the start without their callback: see below */
};

/* Reads events in this thread until stopped, and has the workers call the callbacks. An event that
 * cannot wait for a worker is allowed at once: there is no worker, no memory, or its descriptor is
 * one of the last 64 (of the upper half, where the limit is below 128), which are kept free since
 * the kernel denies what it has no descriptor for. Raise the limit of descriptors before, and let
 * the workers keep up.
 * Returns 0 once it was stopped, which leaves posted events to the workers; -1 with EINVAL at once
 * for null or a handle that reads no events. */
FSFILTER_API int start_event_loop(struct event_loop_data_struct* data);

/* Asks the loop to end, which takes about a second at most, whatever events come. A stop before the
 * loop has begun is forgotten, since start_event_loop() clears the flag: ask again. Any thread, and
 * signal handlers. Returns 0, or -1 for null. */
FSFILTER_API int stop_event_loop(struct event_loop_data_struct* data);

/* Inside a callback, the word of event_loop_data_struct that stands beside it; else null. */
FSFILTER_API void* fsfilter_callback_data(void);

/* Starts the three worker threads of the process, if they are not there. The loop does it with its
 * first event. They take no signals. A forked process has none of them and must not use them.
 * Returns 0, or -1 with errno when not all can be made (what is missing is made by a later call) or
 * while fsfilter_thread_end() waits for the old ones (EBUSY). */
FSFILTER_API int fsfilter_thread_init(void);

/* Hands an event to the workers, for programs with a reader of their own: one of them calls the
 * callback, null allowing, and gives its verdict to set_result(). Jobs are taken in their order.
 * Any thread.
 * Returns 0 when the event and its descriptor are the library's; -1 when they are still the
 * caller's: without memory (ENOMEM), or without a worker to take it (EAGAIN), null (EINVAL). */
FSFILTER_API int fsfilter_thread_post_job(fsfilter_handle_t handle,
                                          const struct fsfilter_event_struct* event,
                                          fsfilter_callback_t callback);

/* Wakes all workers if the first job has waited for a second. A post wakes one, and only when no
 * job waited before: those that are done take the next by themselves, unless their callbacks are
 * stuck. The loop calls this at every turn; a program with a reader of its own calls it when no
 * event has come for a while. Any thread. */
FSFILTER_API void fsfilter_thread_wake(void);

/* Ends the workers: they answer what waits, with its callbacks, and leave. Stop the loops and close
 * the filters before; what is posted meanwhile is refused, what is posted later starts them anew.
 * Waits for callbacks that run, without a bound. Otherwise the workers last as long as the process.
 * Returns 0, also when there are none, or -1 with EDEADLK inside a callback. */
FSFILTER_API int fsfilter_thread_end(void);

/* Trust a process: its accesses are never held. At most ten, and only in the process that owns the
 * area. -1 when the table refuses: full, not found, or its lock not free within 100 ms. */
FSFILTER_API int register_trusted(fsfilter_handle_t handle, int32_t pid);
FSFILTER_API int unregister_trusted(fsfilter_handle_t handle, int32_t pid);

/* 1 for the owner of the filter and for processes in the table, else 0. Never 1 for pid 0. */
FSFILTER_API int is_trusted_pid(fsfilter_handle_t handle, int32_t pid);

/* Change a path set and mirror it into the status area. A path covers itself and everything under
 * it; give it in canonical form without a trailing slash. Adding needs the path to exist. */
FSFILTER_API int add_inclusion(fsfilter_handle_t handle, const char* path);
FSFILTER_API int remove_inclusion(fsfilter_handle_t handle, const char* path);
FSFILTER_API int add_exclusion(fsfilter_handle_t handle, const char* path);
FSFILTER_API int remove_exclusion(fsfilter_handle_t handle, const char* path);

/* 1 or 0. An empty inclusion set includes everything, an empty exclusion set excludes nothing. */
FSFILTER_API int is_included(fsfilter_handle_t handle, const char* path);
FSFILTER_API int is_excluded(fsfilter_handle_t handle, const char* path);

/* Watch or unwatch a mount point. File systems whose type begins with "nfs" are refused (-1), and
 * never were registered (0). Marking a mount twice is harmless. */
FSFILTER_API int register_mounting_point(fsfilter_handle_t handle, const char* path,
                                         const char* fstype);
FSFILTER_API int unregister_mounting_point(fsfilter_handle_t handle, const char* path,
                                           const char* fstype);

/* Unwatches every mount point at once, without the walk to any of them, which may get stuck. */
FSFILTER_API int unregister_all_mounting_points(fsfilter_handle_t handle);

/* Watch a folder and what lies directly in it. The mark stays until the filter is closed: removing
 * it takes away the mark of the mount that the folder is on. */
FSFILTER_API int register_folder(fsfilter_handle_t handle, const char* path);
FSFILTER_API int unregister_folder(fsfilter_handle_t handle, const char* path);

/* The kernel refuses it with EINVAL. */
FSFILTER_API int ignore_path(fsfilter_handle_t handle, const char* path);

/* The marks themselves, for any notification group's descriptor, such as an event's filter_fd: the
 * functions above without the lists and the status area. 0, or -1 with errno. */
FSFILTER_API int fatotify_register_mount(int fd, const char* path);
FSFILTER_API int fatotify_unregister_mount(int fd, const char* path);
FSFILTER_API int fanotify_register_folder(int fd, const char* path);
FSFILTER_API int fatotify_unregister_folder(int fd, const char* path);
FSFILTER_API int fatotify_ignore(int fd, const char* path);

/* The path of the event's descriptor, terminated, in `buffer` of `size` bytes.
 * Returns its length, or -1 with errno: ENAMETOOLONG from 4096 bytes on, EINVAL for nulls and 0. */
FSFILTER_API int get_file_name(const struct fsfilter_event_struct* event, char* buffer,
                               size_t size);

/* 0 to 2, enum fsfilter_event_type, from a raw event mask. */
FSFILTER_API uint32_t get_metadata_type(uint64_t mask);

/* Prints an event on standard output, for debugging. */
FSFILTER_API void print_event_info(const struct fsfilter_event_struct* event);

/* The statistics block of the status area; valid until the filter is closed. */
FSFILTER_API struct fsfilter_stat_struct* fsfilter_stat(fsfilter_handle_t handle);

/* Reads the status area of whichever process owns it, without a handle and without mapping it: no
 * other process can make this one wait or fault. Needs only the right to read "/dev/shm/fsfilter".
 * What changes meanwhile may be seen half changed. Any thread.
 * Returns 0 with *out filled, or -1 with *out untouched and errno: ENOENT when there is no area,
 * EACCES when it may not be read, EINVAL when it is too short or no plain file (ELOOP for a link),
 * or out is null. */
FSFILTER_API int fsfilter_read_status(struct fsfilter_status_struct* out);

/* For a SIGBUS handler. Any process can cut the status area off while it is mapped; the next access
 * then faults. If `address` lies in the area of the filter registered last, private memory takes
 * its place, which other processes do not see: the filter works on with empty tables. Returns 1
 * when the faulting access can be repeated, 0 when the address is none of the library's.
 * Async-signal-safe; any thread. */
FSFILTER_API int fsfilter_restore_area(const void* address);

/* Events allowed because their file could not be named, and the kernel's reports of lost ones,
 * since this filter was made. */
FSFILTER_API uint64_t fsfilter_unnamed_events(fsfilter_handle_t handle);

#ifdef __cplusplus
}
#endif

#endif
