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
if(PELO_SANITIZE MATCHES thread)
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED_THREAD=1)
else()
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED_THREAD=0)
endif()
if(PELO_SANITIZE)
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED=1)
  target_compile_options(pelo_options INTERFACE
    -fsanitize=${PELO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  target_link_options(pelo_options INTERFACE -fsanitize=${PELO_SANITIZE})
else()
  target_compile_definitions(pelo_options INTERFACE PELO_SANITIZED=0)
endif()
if(PELO_FUZZ)
  target_compile_options(pelo_options INTERFACE -fsanitize=fuzzer-no-link)
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

# pelo_library(NAME [FILES...] HEADERS FILES... [USES TARGETS...]): one folder's library, or a part of
# it. Who links it finds the headers named, and no other of the folder's: they are linked into a
# folder of their own, which is how the build holds the layers apart. What they include must be
# named too. A library without sources is its headers.
function(pelo_library name)
  cmake_parse_arguments(ARG "" "" "HEADERS;USES" ${ARGN})
  set(headers ${PROJECT_BINARY_DIR}/include/${name})
  file(REMOVE_RECURSE ${headers})
  foreach(header IN LISTS ARG_HEADERS)
    get_filename_component(file ${header} NAME)
    file(MAKE_DIRECTORY ${headers})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${headers}/${file} SYMBOLIC)
  endforeach()
  if(ARG_UNPARSED_ARGUMENTS)
    add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
    target_include_directories(${name} PUBLIC ${headers})
    target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE pelo_options)
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${headers})
    target_link_libraries(${name} INTERFACE ${ARG_USES})
  endif()
endfunction()

if(PELO_BUILD_TESTS)
  enable_testing()
  find_package(GTest REQUIRED)
  include(GoogleTest)
  find_program(PELO_LLD ld.lld)
  add_library(test_options INTERFACE)
  target_link_libraries(test_options INTERFACE GTest::gtest GTest::gmock pelo_options)
  # Line numbers are all that a failed test shows. The last option shows the precompiled header to a
  # compiler cache.
  target_compile_options(test_options INTERFACE
    -O0 -g1 $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
  if(PELO_LLD AND NOT CMAKE_CROSSCOMPILING)
    target_link_options(test_options INTERFACE -fuse-ld=lld)
  endif()
  # A program, not a library: it must be compiled as the programs are that use its header.
  file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "int main() {}\n")
  add_executable(test_headers EXCLUDE_FROM_ALL ${PROJECT_BINARY_DIR}/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE test_options)
  target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <gmock/gmock.h>)
  add_library(unit_test_main STATIC ${PROJECT_SOURCE_DIR}/tests/support/unit_test_main.cpp)
  target_link_libraries(unit_test_main PRIVATE test_options)
endif()

# pelo_test_executable(NAME FILES...): a program on GoogleTest. It is compiled without optimisation,
# whatever the code under test is, and from a precompiled header: GoogleTest is most of a build.
function(pelo_test_executable name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE test_options)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_precompile_headers(${name} REUSE_FROM test_headers)
    return()
  endif()
  # CMake's own way of naming clang's precompiled headers holds the path of the build directory, so
  # that a compiler cache would find nothing of another one's. The cache takes the sum beside the
  # header for its content, which holds that path too.
  set(header ${PROJECT_BINARY_DIR}/CMakeFiles/test_headers.dir/cmake_pch.hxx.pch)
  file(WRITE ${header}.sum "GoogleTest ${GTest_VERSION}\n")
  target_compile_options(${name} PRIVATE "SHELL:-include-pch ${header}")
  add_dependencies(${name} test_headers)
endfunction()

# pelo_discover_tests(NAME SECONDS LABELS...): makes each test case one of ctest's, with these labels and
# those of cmake/test_labels.cmake. Each runs in a process of its own, because the daemon's singletons
# are built once per process.
function(pelo_discover_tests name seconds)
  gtest_discover_tests(${name} TEST_LIST ${name}_list DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${seconds})
  get_target_property(sources ${name} SOURCES)
  list(FILTER sources INCLUDE REGEX "_test\\.cpp$")
  list(TRANSFORM sources PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
  file(WRITE ${script}
       "set(tests \${${name}_list})\n"
       "set(sources \"${sources}\")\n"
       "set(program_labels \"${ARGN}\")\n"
       "include(${PROJECT_SOURCE_DIR}/cmake/test_labels.cmake)\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()

# pelo_test(NAME [KERNEL] FILES... USES TARGETS...): unit tests that stand beside the code. Those of a
# KERNEL program need more of a kernel than user-mode emulation offers.
function(pelo_test name)
  if(NOT PELO_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "KERNEL" "" "USES" ${ARGN})
  pelo_test_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${ARG_USES} unit_test_main)
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")
  set(labels unit)
  if(ARG_KERNEL)
    list(APPEND labels kernel)
  endif()
  pelo_discover_tests(${name} 120 ${labels})
endfunction()
