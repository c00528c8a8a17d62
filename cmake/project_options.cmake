# What every target of this project is built with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# RUNPATH, not RPATH: LD_LIBRARY_PATH must win, so that another engine can be put in front.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)

find_package(Threads REQUIRED)

# For everything that is compiled here, GoogleTest where it is: a 32-bit build needs 64-bit offsets for
# files above 2 GiB and large inode numbers, and 64-bit times for files dated beyond 2038: without
# either the C library refuses to tell about such a file. Files compiled with and without would
# disagree about struct stat.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

add_library(pelo_options INTERFACE)
# It comes with g++ and clang++ on Linux, but not with C compilers.
target_compile_definitions(pelo_options INTERFACE _GNU_SOURCE)
target_compile_options(pelo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wvla -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  -fstack-protector-strong -fvisibility=hidden)
target_link_options(pelo_options INTERFACE LINKER:--enable-new-dtags LINKER:-z,now,-z,relro)
target_link_libraries(pelo_options INTERFACE Threads::Threads)
if(PELO_SANITIZE)
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED=1)
  target_compile_options(pelo_options INTERFACE
    -fsanitize=${PELO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(pelo_options INTERFACE -fsanitize=${PELO_SANITIZE})
else()
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED=0)
endif()

# For tests that have to wait longer, or ask for less, where everything takes many times as long: under
# sanitizers and emulation. An open in the emulated machine takes some forty times as long.
if(PELO_SANITIZE OR CMAKE_CROSSCOMPILING_EMULATOR)
  target_compile_definitions(pelo_options INTERFACE PELO_SLOW=1)
else()
  target_compile_definitions(pelo_options INTERFACE PELO_SLOW=0)
endif()
if(CMAKE_CROSSCOMPILING_EMULATOR)
  target_compile_definitions(pelo_options INTERFACE PELO_EMULATED=1)
endif()

# pelo_library(NAME FILES... USES TARGETS...): one folder's library. Its headers are visible to
# those that link it and to nobody else, which is how the build holds the layers apart.
function(pelo_library name)
  cmake_parse_arguments(ARG "" "" "USES" ${ARGN})
  add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE pelo_options)
endfunction()

if(PELO_BUILD_TESTS)
  enable_testing()
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

# pelo_test_executable(NAME FILES...): a program on GoogleTest. It is compiled without optimisation,
# whatever the code under test is, and from a precompiled header: GoogleTest is most of a build.
function(pelo_test_executable name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE GTest::gtest GTest::gmock pelo_options)
  # The option shows the precompiled header to a compiler cache.
  set(pch_options $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
  target_compile_options(${name} PRIVATE -O0 ${pch_options})
  if(NOT TARGET test_headers)
    # A program, not a library: it must be compiled as the programs are that use its header.
    file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "int main() {}\n")
    add_executable(test_headers EXCLUDE_FROM_ALL ${PROJECT_BINARY_DIR}/test_headers.cpp)
    target_link_libraries(test_headers PRIVATE GTest::gtest GTest::gmock pelo_options)
    target_compile_options(test_headers PRIVATE -O0 ${pch_options})
    target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <gmock/gmock.h>)
  endif()
  # A compiler cache cannot use clang's, which hold the way to the build directory.
  if(NOT (CMAKE_CXX_COMPILER_LAUNCHER AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
    target_precompile_headers(${name} REUSE_FROM test_headers)
  endif()
endfunction()

# pelo_test(NAME [KERNEL] FILES... USES TARGETS...): unit tests that stand beside the code. Each test
# case runs in a process of its own, because the daemon's singletons are built once per process. Those
# of a KERNEL program need more of a kernel than user-mode emulation offers.
function(pelo_test name)
  if(NOT PELO_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "KERNEL" "" "USES" ${ARGN})
  pelo_test_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${ARG_USES} GTest::gtest_main)
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")
  set(label unit)
  if(ARG_KERNEL)
    set(label unit-kernel)
    set_property(GLOBAL APPEND PROPERTY PELO_KERNEL_TESTS ${name})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES LABELS ${label} TIMEOUT 120)
endfunction()
