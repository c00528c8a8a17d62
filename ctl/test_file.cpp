#include "test_file.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <random>

namespace {

// Put together as the program runs: its own file must not be one in which a scanner finds this.
std::string standard_test_file() {
  return std::string("X5O!P%@AP[4\\PZX54(P^)7") + "CC)7}$EICAR-STANDARD-" + "ANTIVIRUS-TEST-" +
         "FILE!$H+H*";
}

std::string random_name(const char* begin) {
  std::random_device random;
  return fmt::format(".pelowatchctl-{}-{:08x}{:08x}", begin, random(), random());
}

}  // namespace

std::optional<TestFile> TestFile::in(const std::string& folder) {
  Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return std::nullopt;
  }
  std::error_code ignored;
  std::string path =
      std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", directory.get()), ignored);
  path += path.ends_with('/') ? "" : "/";
  return TestFile(std::move(directory), random_name("draft"), path + random_name("selftest"));
}

TestFile::TestFile(Descriptor folder, std::string draft, std::string path)
    : folder_(std::move(folder)), draft_(std::move(draft)), path_(std::move(path)) {}

TestFile::~TestFile() {
  if (folder_) {
    (void)remove();
  }
}

// Written under one name and then given another. The daemon remembers the first as clean, since it
// is opened while still empty; under the second it has never seen the file.
int TestFile::write() {
  writer_ = Descriptor(openat(folder_.get(), draft_.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!writer_) {
    return errno;
  }
  const std::string text = standard_test_file();
  const ssize_t written = ::write(writer_.get(), text.data(), text.size());
  int error = written < 0 ? errno : written < static_cast<ssize_t>(text.size()) ? ENOSPC : 0;
  if (error == 0 && renameat(folder_.get(), draft_.c_str(), folder_.get(), name()) != 0) {
    error = errno;
  }
  if (error != 0) {
    (void)remove();
  }
  return error;
}

int TestFile::remove() {
  (void)unlinkat(folder_.get(), draft_.c_str(), 0);
  return unlinkat(folder_.get(), name(), 0) == 0 || errno == ENOENT ? 0 : errno;
}
