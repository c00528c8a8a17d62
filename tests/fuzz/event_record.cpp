// What the kernel writes for an event: whatever stands in it, a record that is taken is answered
// once and its descriptor closed, and one that is not is left alone.
#include <cstring>
#include <vector>

#include "fed_filter.h"
#include "fuzz_input.h"

namespace {

// The file of an event must be this process's to close: in place of the number given there is a
// descriptor of its own, or none. @return it
int put_descriptor(std::vector<std::uint8_t>& record) {
  static const int files[] = {memfd_create("file", MFD_CLOEXEC), open("/", O_RDONLY | O_CLOEXEC),
                              open("/dev/null", O_RDONLY | O_CLOEXEC)};
  fanotify_event_metadata head{};
  if (record.size() < sizeof head) {
    return -1;
  }
  std::memcpy(&head, record.data(), sizeof head);
  if (head.fd >= 0) {
    head.fd = dup(files[head.fd % 3]);
    std::memcpy(record.data(), &head, sizeof head);
  }
  return head.fd;
}

// Takes the event, if the filter gives one, and denies it. @return whether there was one
bool deny_event(FedFilter& filter, int fd) {
  fsfilter_event_struct event;
  if (request_event(filter.handle(), &event, 0) != 0) {
    return false;
  }
  require(event.fd == fd && event.type != FSFILTER_OTHER);
  require(strnlen(event.path, sizeof event.path) < sizeof event.path);
  event.result = FSFILTER_DENY;
  (void)set_result(filter.handle(), &event);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FedFilter filter;
  require(add_inclusion(filter.handle(), "/") == 0);
  std::vector<std::uint8_t> record(data, data + size);
  const int fd = put_descriptor(record);
  filter.feed_raw(record.data(), record.size());
  const bool taken = deny_event(filter, fd);
  const std::optional<fanotify_response> answer = filter.answer(0);
  require(answer ? answer->fd == fd : !taken);
  require(!answer || answer->response == (taken ? FAN_DENY : FAN_ALLOW));
  require(filter.quiet() && is_open(fd) == (fd >= 0 && !answer));
  if (is_open(fd)) {
    (void)close(fd);
  }
  return 0;
}
