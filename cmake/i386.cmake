# Toolchain: 32-bit x86, which runs natively on an x86-64 kernel, fanotify included: the quick way to
# the ABI's width, and to the appliance's layout of the status area. It differs from ARM where plain
# char is signed, where 64-bit members are aligned to 4 bytes, and in that an x86-64 kernel opens
# large files without being asked to.
#
# g++-12-multilib: unlike g++-multilib it is installable beside the ARM cross compiler, but lacks the
# link /usr/include/asm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")

# The build machine's libraries are 64-bit ones, but for those that are headers alone.
set(CMAKE_FIND_ROOT_PATH /usr/lib32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib32/pkgconfig)
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/cross)
