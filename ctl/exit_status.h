// How pelowatchctl ends; the numbers are the interface of scripts.
#pragma once

enum ExitStatus : int {
  exit_ok = 0,
  exit_failed = 1,  ///< it could not be done; for check: there are findings
  exit_usage = 2,   ///< wrong arguments; for check: a file cannot be read
  exit_not_running = 3,
};
