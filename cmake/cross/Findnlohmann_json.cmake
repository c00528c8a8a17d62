include(${CMAKE_CURRENT_LIST_DIR}/header_library.cmake)
header_library(nlohmann_json::nlohmann_json nlohmann json.hpp)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(nlohmann_json REQUIRED_VARS nlohmann_PARENT
  REASON_FAILURE_MESSAGE "the Debian package nlohmann-json3-dev has it")
