# Toolchain: the appliance's ABI, 32-bit ARM with hard float, by Debian's cross compiler
# (g++-arm-linux-gnueabihf). Programs of the build run under user-mode emulation (qemu-user-static),
# which knows no fanotify: scripts/test-arm runs what needs that in an emulated machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# No notes on how templates were passed before GCC 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# What is looked for must be of this ABI: nothing of the build machine's but programs. Libraries
# that are headers alone, and GoogleTest, come through cross/.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/arm-linux-gnueabihf/lib/pkgconfig)
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/cross)

# The ClamAV engine's, once scripts/armhf-libraries has fetched them; without them there is the stub.
set(libraries ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-libraries)
cmake_path(NORMAL_PATH libraries)
set(library_folder ${libraries}/usr/lib/arm-linux-gnueabihf)
if(EXISTS ${libraries})
  list(APPEND CMAKE_FIND_ROOT_PATH ${libraries})
  set(ENV{PKG_CONFIG_LIBDIR} ${library_folder}/pkgconfig)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${libraries})
  add_link_options(LINKER:-rpath-link,${library_folder})
endif()

# The loader and the libraries of the cross compiler's own C library. Those of an installed
# libc6:armhf would be another build, and mixing the two crashes.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf)
