// For the tests of the library as other programs get it: what commands say.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

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

inline void expect_success(const std::string& command) {
  const CommandResult result = run_command(command);
  EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
}
