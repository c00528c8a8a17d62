// A folder of one test's own, for any unit test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

/// The whole of a file; empty when it cannot be read.
inline std::string read_file(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

/// An empty folder, removed with everything in it when the object dies.
class TempDirectory {
 public:
  TempDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "pelo-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    path_ = name;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  /// Without a trailing "/".
  const std::string& path() const { return path_; }

  /// The path of a name in the folder, whether there is such a file or not.
  std::string path(const std::string& name) const { return path_ + "/" + name; }

  /// Writes a file, replacing it. @return its path
  std::string put(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary | std::ios::trunc) << content;
    return path(name);
  }

  /// The whole of a file in the folder; empty when there is none.
  std::string read(const std::string& name) const { return read_file(path(name)); }

 private:
  std::string path_;
};
