/* libfsfilter: file-access permission events of watched mounts, over Linux fanotify. C11 and C++20.
 *
 * A filter is a kernel notification group, three path sets and the shared status area "/fsfilter".
 * Who owns a held open: the kernel holds it until request_event() takes it; from there the caller
 * owns the event and its descriptor and must hand both to set_result() exactly once, on any
 * thread. Events that request_event() does not return it has allowed itself. When the filter is
 * closed or the process dies, the kernel allows whatever is still held.
 *
 * Events are consumed in one of two ways: by the program's own reader and threads, or by the
 * library's event loop, which reads in the thread that starts it and runs callbacks on three worker
 * threads; there the library owns the events. Programs link with -lfsfilter.
 *
 * Results are int: 0 for success, -1 or another negative value for failure, unless said otherwise.
 * Only print_event_info() prints anything, and nothing throws. A null handle is refused with -1;
 * is_included(), is_excluded(), is_trusted_pid() and fsfilter_stat() do not check for it.
 *
 * Threads: any number may call request_event() on one handle at the same time, each getting events
 * of its own, and any may call set_result() and register or unregister mounting points. The other
 * path sets are not locked: change the inclusions and exclusions only while nobody reads events.
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

/* Bytes of a path with its terminator. The kernel cannot name a file with a longer path; its events
 * are allowed and counted. */
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
  int32_t fd;          /* read-only, not close-on-exec; set_result() closes it */
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

/* The content of the status area. Any process can write the area, so rely on it only where a wrong
 * value does no harm. fsfilter_read_status() guarantees that a pid is positive, or 0 for nobody,
 * and that every text ends within its array. A text may hold any byte but NUL, and its last line
 * may be cut off. */
struct fsfilter_status_struct {
  uint64_t answered;                          /* verdicts given */
  uint64_t denied;                            /* of these, denials */
  int32_t owner_pid;                          /* who registered the filter; may be dead by now */
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
 * it. If the area cannot be made, the group stays open until the process ends. */
FSFILTER_API int register_filter(fsfilter_handle_t* out);

/* Closes a filter: the kernel allows what is held and removes the marks, and the area is unlinked
 * if this process owns it. From here on no thread may use the handle, with two exceptions. An event
 * loop gets no further event and goes on until it is stopped. Running callbacks may use the handle
 * until they return; their verdict comes too late and is not counted. Jobs that still wait for a
 * worker are allowed without their callbacks. This call does not wait for any of them;
 * fsfilter_thread_end() waits for the callbacks. Call this before that one: between the end of the
 * loop and this call nobody reads events, so every open of a watched file waits, even one that a
 * callback makes. */
FSFILTER_API int unregister_filter(fsfilter_handle_t handle);
FSFILTER_API int close_filter(fsfilter_handle_t handle);

/* Opens the status area that another process owns. The handle cannot read or answer events. To look
 * at the area, fsfilter_read_status() is safer: this call maps it, and an access to mapped memory
 * faults after a third process has truncated it. */
FSFILTER_API int open_filter(fsfilter_handle_t* out);

/* Waits at most timeout_seconds for an event that the consumer must decide, however many others
 * come meanwhile. Any number of threads may wait at once; one whose event another thread has taken
 * waits on. Events that the consumer need not decide are allowed here: those of trusted processes,
 * those that are neither opens nor closes after writing, and those of files that are not regular,
 * have no name, are not included or are excluded.
 * Returns 0 with *event filled, or -1 with *event untouched. */
FSFILTER_API int request_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                               int timeout_seconds);

/* Waits at most timeout_seconds for one event of any kind and reads it, whatever its path and
 * whoever caused it. The path stays empty: use get_file_name(). A record without a file, with a
 * negative fd, is the kernel's report that events were lost.
 * Returns 0 with *event filled, or -1 with *event untouched. */
FSFILTER_API int request_one_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                                   int timeout_seconds);

/* Answers one event and closes its descriptor, whatever the verdict; one call per event.
 * An event of another filter is counted and otherwise left alone.
 * Returns 0, or the kernel's negative write result (-1 with ENOENT for an event that nobody waits
 * for, such as a close after writing); the descriptor is closed all the same. */
FSFILTER_API int set_result(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* Decides one event on a worker thread: FSFILTER_DENY denies, everything else allows. The event and
 * its descriptor are the library's and end with the call. Several callbacks may run at the same
 * time, and none may throw. The process that opened the file waits meanwhile. While the loop runs,
 * accesses of this process itself are allowed at once. */
typedef int (*fsfilter_callback_t)(fsfilter_handle_t handle, struct fsfilter_event_struct* event);

/* The data of an event loop; the program owns it and fills it with zeros first. While a loop runs,
 * other threads may read only stop and unposted, and only the calls below change them. */
struct event_loop_data_struct {
  fsfilter_handle_t handle;              /* a filter that reads events */
  fsfilter_callback_t open_callback;     /* decides opens; null allows them */
  void* open_data;                       /* returned by fsfilter_callback_data() in it */
  fsfilter_callback_t close_wr_callback; /* told of closes after writing, for which nobody waits */
  void* close_wr_data;                   /* the same for this callback */
  int32_t stop;                          /* 1 ends the loop */
  int32_t reserved[2];                   /* for later versions */
  int32_t unposted; /* events allowed since the start without a callback: see below */
};

/* Reads events in this thread until stopped, and has the workers call the callbacks. An event is
 * allowed at once if there is no worker or no memory for it. The last 64 descriptors below the
 * limit (the upper half of a limit below 128) are kept free, since the kernel denies an open for
 * which no descriptor is left: an event that has one of them is allowed at once, too. Raise the
 * limit of descriptors before, and see that the workers keep up. Returns 0 when it was stopped; the
 * workers still answer the posted events. Returns -1 with EINVAL at once for null or a handle that
 * reads no events. */
FSFILTER_API int start_event_loop(struct event_loop_data_struct* data);

/* Asks the loop to end, which takes about a second at most, whatever events come. A stop before the
 * loop has begun is lost, since start_event_loop() clears the flag: ask again. Any thread or signal
 * handler may call it. Returns 0, or -1 for null. */
FSFILTER_API int stop_event_loop(struct event_loop_data_struct* data);

/* In a callback, the data that event_loop_data_struct gives for it; otherwise null. */
FSFILTER_API void* fsfilter_callback_data(void);

/* Starts the three worker threads of the process, unless they run already. The loop calls it with
 * its first event. The workers take no signals. A forked process has no workers and must not use
 * them.
 * Returns 0, or -1 with errno when not all can be started (a later call starts the missing ones) or
 * while fsfilter_thread_end() waits for the old ones (EBUSY). */
FSFILTER_API int fsfilter_thread_init(void);

/* Hands an event to the workers, for programs with a reader of their own: a worker calls the
 * callback (null allows the event) and passes its verdict to set_result(). Jobs are taken in the
 * order of their arrival. Any thread.
 * Returns 0 when the event and its descriptor are the library's; -1 when they are still the
 * caller's: no memory (ENOMEM), no worker to take it (EAGAIN), or a null argument (EINVAL). */
FSFILTER_API int fsfilter_thread_post_job(fsfilter_handle_t handle,
                                          const struct fsfilter_event_struct* event,
                                          fsfilter_callback_t callback);

/* Ends the workers: they run the callbacks of the waiting jobs, answer them and leave. Stop the
 * loops and close the filters before. A job posted meanwhile is refused, a later one starts new
 * workers. Waits for running callbacks, without a time limit. If this is never called, the workers
 * last as long as the process.
 * Returns 0, even when there are none, or -1 with EDEADLK inside a callback. */
FSFILTER_API int fsfilter_thread_end(void);

/* Trust a process, so that its accesses are never held, or trust it no longer. At most ten; only
 * for the process that owns the area. -1 if the table is full, the pid is not in it, or the table's
 * lock is not free within 100 ms. */
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

/* Watch or unwatch a mount point. File systems whose type begins with "nfs" cannot be registered
 * (-1); unregistering one does nothing (0). Marking a mount twice is harmless. */
FSFILTER_API int register_mounting_point(fsfilter_handle_t handle, const char* path,
                                         const char* fstype);
FSFILTER_API int unregister_mounting_point(fsfilter_handle_t handle, const char* path,
                                           const char* fstype);

/* Watch a folder and what lies directly in it. The mark stays until the filter is closed: removing
 * it takes away the mark of the mount that the folder is on. */
FSFILTER_API int register_folder(fsfilter_handle_t handle, const char* path);
FSFILTER_API int unregister_folder(fsfilter_handle_t handle, const char* path);

/* Always fails: the kernel refuses it with EINVAL. */
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
 * A value that changes meanwhile may be read half changed. Any thread.
 * Returns 0 with *out filled, or -1 with *out untouched and errno: ENOENT when there is no area,
 * EACCES when it may not be read, EINVAL when it is too short or no plain file (ELOOP for a link),
 * or out is null. */
FSFILTER_API int fsfilter_read_status(struct fsfilter_status_struct* out);

/* For a SIGBUS handler. Any process can truncate the status area while it is mapped; the next
 * access then faults. If `address` lies in the area of the filter registered last, this replaces
 * the area by private memory, which other processes do not see: the filter goes on with empty
 * tables. Returns 1 when the faulting access can be repeated, 0 when the address is not in it.
 * Async-signal-safe; any thread. */
FSFILTER_API int fsfilter_restore_area(const void* address);

/* The number of events allowed because their file could not be named, plus the kernel's reports of
 * lost events, since this filter was made. */
FSFILTER_API uint64_t fsfilter_unnamed_events(fsfilter_handle_t handle);

#ifdef __cplusplus
}
#endif

#endif
