include(${CMAKE_CURRENT_LIST_DIR}/header_library.cmake)
header_library(CLI11::CLI11 CLI CLI.hpp)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(CLI11 REQUIRED_VARS CLI_PARENT
  REASON_FAILURE_MESSAGE "the Debian package libcli11-dev has it")
