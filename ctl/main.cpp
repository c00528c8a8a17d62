// pelowatchctl: shows an administrator what the daemon does, and steers it.
#include <unistd.h>

#include <iostream>

#include "command_line.h"
#include "exit_status.h"
#include "logger.h"

int main(int argc, char** argv) {
  Logger::disable_for_good();  // the daemon's settings are read here, its log is not ours to write
  const int status = run_pelowatchctl(argc, argv, std::cout, std::cerr);
  if (!std::cout.flush()) {
    std::cerr << "pelowatchctl: cannot write to standard output\n";
    return exit_failed;
  }
  return status;
}
