# From its sources, which Debian's googletest package has; they define GTest::gtest and its like.
find_path(GTest_SOURCES googlemock/CMakeLists.txt PATHS /usr/src/googletest NO_DEFAULT_PATH
          NO_CMAKE_FIND_ROOT_PATH)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GTest REQUIRED_VARS GTest_SOURCES
  REASON_FAILURE_MESSAGE "the Debian package googletest has it")
if(GTest_FOUND AND NOT TARGET gtest)
  set(INSTALL_GTEST OFF)
  add_subdirectory(${GTest_SOURCES} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endif()
