// The least that a fanotify responder can do: one thread that allows every open of a mount. It
// shows what the kernel alone takes on a machine.
//
// responder MOUNT_POINT: prints "ready" and answers until it is ended.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace {

void allow(int group, const fanotify_event_metadata& event) {
  fanotify_response response{};
  response.fd = event.fd;
  response.response = FAN_ALLOW;
  (void)!write(group, &response, sizeof response);
  (void)close(event.fd);
}

}  // namespace

int main(int argc, char** argv) {
  const int group = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
  if (argc != 2 || group < 0 ||
      fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_PERM, AT_FDCWD, argv[1]) != 0) {
    std::perror("responder");
    return 1;
  }
  (void)std::puts("ready");
  (void)std::fflush(stdout);
  std::array<fanotify_event_metadata, 170> events;
  for (;;) {
    const ssize_t length = read(group, events.data(), sizeof events);
    if (length <= 0) {
      std::perror("responder: read");
      return 1;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(length) / sizeof events[0]; ++i) {
      allow(group, events[i]);
    }
  }
}
