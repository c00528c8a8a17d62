// The standard anti-virus test file in a folder: there while the object lives.
#pragma once

#include <optional>
#include <string>

#include "unique_descriptor.h"

/// Not synchronised; for one thread.
class TestFile {
 public:
  /// Writes the file under a name that nothing else has. errno is set when it returns nothing.
  static std::optional<TestFile> put_into(const std::string& folder);

  TestFile(TestFile&&) noexcept = default;
  TestFile& operator=(TestFile&&) = delete;
  ~TestFile();

  /// As the kernel names it, links resolved.
  const std::string& path() const { return path_; }

  /// @return 0, also when it is gone already, or an errno value
  int remove();

 private:
  TestFile(UniqueDescriptor folder, std::string path);
  const char* name() const { return path_.c_str() + path_.find_last_of('/') + 1; }

  UniqueDescriptor folder_;
  std::string path_;
};
