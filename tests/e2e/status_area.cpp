#include "status_area.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

namespace e2e {

std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::optional<StatusArea> StatusArea::map() {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0 || info.st_size != static_cast<off_t>(total_size)) {
    close(fd);
    return std::nullopt;
  }
  void* bytes = mmap(nullptr, total_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (bytes == MAP_FAILED) {
    return std::nullopt;
  }
  return StatusArea(static_cast<unsigned char*>(bytes));
}

StatusArea::StatusArea(StatusArea&& other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)) {}

StatusArea::~StatusArea() {
  if (bytes_ != nullptr) {
    munmap(bytes_, total_size);
  }
}

std::vector<std::string> StatusArea::lines(size_t offset) const {
  const char* text = reinterpret_cast<const char*>(bytes_ + offset);
  return lines_of(std::string(text, strnlen(text, text_size)));
}

void StatusArea::trust(size_t slot, pid_t pid) {
  number<int32_t>(slot * sizeof(int32_t)) = pid;
  number<uint32_t>(mask_offset) |= uint32_t{1} << slot;
}

void StatusArea::distrust(size_t slot) {
  number<uint32_t>(mask_offset) &= ~(uint32_t{1} << slot);
  number<int32_t>(slot * sizeof(int32_t)) = 0;
}

void StatusArea::scribble(size_t offset, size_t size, int byte) {
  std::memset(bytes_ + offset, byte, size);
}

void StatusArea::set_counts(uint64_t answered, uint64_t denied) {
  number<uint64_t>(answered_offset) = answered;
  number<uint64_t>(denied_offset) = denied;
}

bool is_registered(const std::string& mount) {
  const auto area = StatusArea::map();
  if (!area) {
    return false;
  }
  const auto mounts = area->mounts();
  return std::find(mounts.begin(), mounts.end(), mount) != mounts.end();
}

}  // namespace e2e
