// For the tests of the library as other programs get it: installed somewhere, and used from there.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "temp_directory.h"

struct CommandResult {
  int status;          ///< the exit status; -1 when a signal ended it
  std::string output;  ///< both outputs
};

/// Runs a command of the shell.
inline CommandResult run_command(const std::string& command) {
  CommandResult result{-1, ""};
  FILE* pipe = popen(("exec 2>&1; " + command).c_str(), "re");
  if (pipe == nullptr) {
    return result;
  }
  std::array<char, 4096> buffer;
  for (std::size_t size = 0; (size = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    result.output.append(buffer.data(), size);
  }
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

/// The library, installed into a folder of the test's own.
class InstalledCopy {
 public:
  InstalledCopy() {
    expect_success(std::string(PELO_CMAKE) + " --install " + PELO_BUILD_DIRECTORY +
                   " --component fsfilter --prefix " + prefix());
  }

  std::string prefix() const { return folder_.path("prefix"); }
  std::string libraries() const { return prefix() + "/" + PELO_LIBDIR; }

  /// A path of the test's, outside of what is installed.
  std::string path(const std::string& name) const { return folder_.path(name); }

  /// Builds the example against it. @return the program's path
  std::string build_with_pkg_config(const std::string& pkg_config_options) const {
    std::string program = folder_.path("deny_suffix");
    expect_success(std::string(PELO_C_COMPILER) + " -std=c11 " + PELO_C_FLAGS + " -o " + program +
                   " " + PELO_FSFILTER_SOURCE + "/examples/deny_suffix.c " +
                   "-Wall -Wextra -Wpedantic -Werror $(PKG_CONFIG_PATH=" + libraries() +
                   "/pkgconfig pkg-config " + pkg_config_options + " fsfilter)");
    return program;
  }

  static void expect_success(const std::string& command) {
    const CommandResult result = run_command(command);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
  }

 private:
  TempDirectory folder_;
};
