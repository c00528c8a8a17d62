#include "status_area.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <sstream>
#include <utility>

namespace e2e {
namespace {

template <typename Number>
std::atomic_ref<Number> number_at(unsigned char* bytes, size_t offset) {
  return std::atomic_ref<Number>(*reinterpret_cast<Number*>(bytes + offset));
}

}  // namespace

std::optional<StatusArea> StatusArea::map() {
  const int fd = open(kPath, O_RDWR | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0 || info.st_size != static_cast<off_t>(kSize)) {
    close(fd);
    return std::nullopt;
  }
  void* bytes = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
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
    munmap(bytes_, kSize);
  }
}

uint64_t StatusArea::answered() const {
  return number_at<uint64_t>(bytes_, kAnsweredOffset);
}

uint64_t StatusArea::denied() const {
  return number_at<uint64_t>(bytes_, kDeniedOffset);
}

pid_t StatusArea::owner() const {
  return number_at<int32_t>(bytes_, kOwnerOffset);
}

std::vector<std::string> StatusArea::lines(size_t offset) const {
  const char* text = reinterpret_cast<const char*>(bytes_ + offset);
  std::istringstream stream(std::string(text, strnlen(text, kTextSize)));
  std::vector<std::string> result;
  for (std::string line; std::getline(stream, line);) {
    result.push_back(line);
  }
  return result;
}

void StatusArea::trust(size_t slot, pid_t pid) {
  number_at<int32_t>(bytes_, slot * sizeof(int32_t)) = pid;
  number_at<uint32_t>(bytes_, kMaskOffset) |= uint32_t{1} << slot;
}

void StatusArea::distrust(size_t slot) {
  number_at<uint32_t>(bytes_, kMaskOffset) &= ~(uint32_t{1} << slot);
  number_at<int32_t>(bytes_, slot * sizeof(int32_t)) = 0;
}

void StatusArea::scribble(size_t offset, size_t size, int byte) {
  std::memset(bytes_ + offset, byte, size);
}

void StatusArea::set_owner(pid_t pid) {
  number_at<int32_t>(bytes_, kOwnerOffset) = pid;
}

void StatusArea::set_counts(uint64_t answered, uint64_t denied) {
  number_at<uint64_t>(bytes_, kAnsweredOffset) = answered;
  number_at<uint64_t>(bytes_, kDeniedOffset) = denied;
}

void StatusArea::set_mask(uint32_t mask) {
  number_at<uint32_t>(bytes_, kMaskOffset) = mask;
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
