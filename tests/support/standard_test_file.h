// The standard anti-virus test file.
#pragma once

#include <string>

/// Its content, put together as the test runs so that no scanner finds it in this file.
inline std::string standard_test_file() {
  return std::string("X5O!P%@AP[4\\PZX54(P^)7") + "CC)7}$EICAR-STANDARD-" + "ANTIVIRUS-TEST-" +
         "FILE!$H+H*";
}
