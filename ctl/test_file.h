// The standard anti-virus test file in a folder: gone when the object goes.
#pragma once

#include <optional>
#include <string>

#include "descriptor.h"

/// Not synchronised; for one thread.
class TestFile {
 public:
  /// Finds a name that nothing else has, and writes nothing yet. errno is set when it returns
  /// nothing.
  static std::optional<TestFile> in(const std::string& folder);

  TestFile(TestFile&&) noexcept = default;
  TestFile& operator=(TestFile&&) = delete;
  ~TestFile();

  /// As the kernel names it, links resolved.
  const std::string& path() const { return path_; }

  /// Writes the file. The daemon holds the open for it as any other, so this may take for ever:
  /// call it in a process that can be killed. It stays open for writing, so that the daemon does
  /// not scan it, and remove it if it is told to, before somebody opens it.
  /// @return 0, or an errno value; then there is no file
  int write();

  /// Removes the file whichever process wrote it, and what is there of one half written.
  /// @return 0, also when it is gone already, or an errno value
  int remove();

 private:
  TestFile(Descriptor folder, std::string draft, std::string path);
  const char* name() const { return path_.c_str() + path_.find_last_of('/') + 1; }

  Descriptor folder_;
  Descriptor writer_;
  std::string draft_;  // its name while it is written
  std::string path_;
};
