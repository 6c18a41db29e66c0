# Toolchain file for the 32-bit x86 build on a 64-bit Debian host with the
# multilib compilers (g++-multilib):
#
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386-linux-gnu.cmake
#
# The host's GoogleTest libraries are 64-bit, so this build compiles
# GoogleTest from Debian's sources (/usr/src/googletest) into the build tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# Time and file offsets are 64-bit, as on 64-bit hosts: the daemon keeps
# working past January 2038 and reads and writes files of any size.
set(CMAKE_C_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

set(OSTREL_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from its sources in the build tree")
