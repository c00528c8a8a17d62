// The status area, which any process may have written: what is read of it keeps its promises.
//
// The first byte of an input changes the size of the area, the others are patches: two bytes of
// offset, one of length, the bytes.
#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "fsfilter_shmem.h"
#include "fuzz_input.h"

namespace {

constexpr std::size_t patch_head = 3;

std::vector<std::uint8_t> area_of(const std::uint8_t* data, std::size_t size) {
  const int change = size == 0 ? 0 : static_cast<std::int8_t>(data[0]);
  std::vector<std::uint8_t> area(
      static_cast<std::size_t>(static_cast<int>(sizeof(fsfilter_shared_area)) + change));
  for (std::size_t at = 1; at + patch_head <= size;) {
    const std::size_t offset = (data[at] + std::size_t{256} * data[at + 1]) % area.size();
    const std::size_t wanted = data[at + 2];
    at += patch_head;
    const std::size_t length = std::min({wanted, size - at, area.size() - offset});
    std::memcpy(area.data() + offset, data + at, length);
    at += length;
  }
  return area;
}

bool ends(const char (&text)[FSFILTER_TEXT_SIZE + 1]) {
  return strnlen(text, sizeof text) < sizeof text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> area = area_of(data, size);
  const std::string name = "/fsfilter-fuzz-" + std::to_string(getpid());
  const int fd = shm_open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  require(fd >= 0 && write(fd, area.data(), area.size()) == static_cast<ssize_t>(area.size()));
  static fsfilter_status_struct status;
  const int result = fsfilter_shared_read(name.c_str(), &status);
  (void)close(fd);
  (void)shm_unlink(name.c_str());
  require((result == 0) == (area.size() >= sizeof(fsfilter_shared_area)));
  if (result == 0) {
    require(status.owner_pid >= 0);
    require(std::all_of(status.trusted_pids, std::end(status.trusted_pids),
                        [](std::int32_t pid) { return pid >= 0; }));
    require(ends(status.jobs) && ends(status.inclusions) && ends(status.exclusions) &&
            ends(status.mounts));
  }
  return 0;
}
