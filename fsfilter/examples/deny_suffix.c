/* Denies opens of files whose name ends in SUFFIX, on the mount at MOUNTPOINT, until it gets
 * SIGTERM or SIGINT. Needs root. Like every filter it holds the opens of other processes: try it on
 * a separate mount. */
#define _DEFAULT_SOURCE /* alarm(), and handlers that stay */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "fsfilter.h"

static struct event_loop_data_struct loop;

static int decide(fsfilter_handle_t filter, struct fsfilter_event_struct* event) {
  const char* suffix = fsfilter_callback_data();
  size_t name = strlen(event->path);
  size_t end = strlen(suffix);
  (void)filter;
  return name >= end && strcmp(event->path + name - end, suffix) == 0 ? FSFILTER_DENY
                                                                      : FSFILTER_ALLOW;
}

static void stop(int signal_number) {
  (void)signal_number;
  (void)stop_event_loop(&loop);
  (void)alarm(1); /* a stop just before the loop begins is forgotten: ask again until it ends */
}

static int start(const char* mount_point) {
  int error = register_filter(&loop.handle); /* -1, or an errno value */
  if (error == 0 && register_mounting_point(loop.handle, mount_point, "") == 0) {
    return 0;
  }
  (void)fprintf(stderr, "deny_suffix: %s\n", strerror(error > 0 ? error : errno));
  return -1;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    (void)fprintf(stderr, "usage: deny_suffix SUFFIX MOUNTPOINT\n");
    return 2;
  }
  (void)signal(SIGTERM, stop);
  (void)signal(SIGINT, stop);
  (void)signal(SIGALRM, stop);
  loop.open_callback = decide;
  loop.open_data = argv[1];
  int result = start(argv[2]) == 0 ? start_event_loop(&loop) : -1;
  (void)unregister_filter(loop.handle); /* before anything that waits: nobody reads any more */
  (void)fsfilter_thread_end();
  return result == 0 ? 0 : 1;
}
