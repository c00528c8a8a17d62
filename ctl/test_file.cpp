#include "test_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <random>
#include <string_view>

namespace {

// Put together as the program runs: its own file must not be one in which a scanner finds this.
std::string standard_test_file() {
  static constexpr std::array<std::string_view, 4> pieces{
      "X5O!P%@AP[4\\PZX54(P^)7", "CC)7}$EICAR-STANDARD-", "ANTIVIRUS-TEST-", "FILE!$H+H*"};
  std::string text;
  for (const std::string_view piece : pieces) {
    text += piece;
  }
  return text;
}

std::string random_name(const char* begin) {
  std::random_device random;
  return fmt::format(".pelowatchctl-{}-{:08x}{:08x}", begin, random(), random());
}

std::string kernel_path(int folder) {
  char path[4096];
  const ssize_t length =
      readlink(fmt::format("/proc/self/fd/{}", folder).c_str(), path, sizeof path);
  return length < 0 ? std::string() : std::string(path, static_cast<std::size_t>(length));
}

// Written under one name and then given another. The daemon remembers the first as clean, since it
// is opened while still empty; under the second it has never seen the file.
bool write_file(int folder, const std::string& name) {
  const std::string draft = random_name("draft");
  const UniqueDescriptor file(
      openat(folder, draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) {
    return false;
  }
  const std::string text = standard_test_file();
  const ssize_t written = write(file.get(), text.data(), text.size());
  if (written == static_cast<ssize_t>(text.size()) &&
      renameat(folder, draft.c_str(), folder, name.c_str()) == 0) {
    return true;
  }
  const int error = written < 0 || written == static_cast<ssize_t>(text.size()) ? errno : ENOSPC;
  (void)unlinkat(folder, draft.c_str(), 0);
  errno = error;
  return false;
}

}  // namespace

std::optional<TestFile> TestFile::put_into(const std::string& folder) {
  UniqueDescriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return std::nullopt;
  }
  const std::string name = random_name("selftest");
  if (!write_file(directory.get(), name)) {
    return std::nullopt;
  }
  std::string path = kernel_path(directory.get());
  path += path.ends_with('/') ? "" : "/";
  return TestFile(std::move(directory), path + name);
}

TestFile::TestFile(UniqueDescriptor folder, std::string path)
    : folder_(std::move(folder)), path_(std::move(path)) {}

TestFile::~TestFile() {
  if (folder_.valid()) {
    (void)remove();
  }
}

int TestFile::remove() {
  return unlinkat(folder_.get(), name(), 0) == 0 || errno == ENOENT ? 0 : errno;
}
