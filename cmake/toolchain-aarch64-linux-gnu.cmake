# Cross build for the device: AArch64 Linux with Debian's aarch64-linux-gnu compilers
# (scripts/setup-aarch64 installs them). Programs of the build run under qemu-aarch64 with the cross
# C library as its library prefix, so nothing depends on the host's binfmt_misc registrations.
#
#   cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake \
#         -DCMAKE_PREFIX_PATH=<prefix of AArch64 dependencies, e.g. GoogleTest>
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QV_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${QV_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QV_CROSS_TRIPLE}-g++)

# Debian's cross compilers find their headers and libraries in this tree by themselves; it is no
# --sysroot (the tree has no usr/ level), only the root that find_*() and the emulator search.
set(QV_AARCH64_SYSROOT /usr/${QV_CROSS_TRIPLE})

find_program(QV_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(NOT QV_QEMU_AARCH64)
  message(FATAL_ERROR "qemu-aarch64 not found: run scripts/setup-aarch64")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${QV_QEMU_AARCH64} -L ${QV_AARCH64_SYSROOT})

# Look for libraries, headers and packages only in the cross tree and in the prefixes given for
# AArch64 dependencies, never in the host's /usr: a host x86-64 library must not be picked up.
# A prefix outside the roots would be re-rooted under them and missed, so each becomes a root too.
set(CMAKE_FIND_ROOT_PATH ${QV_AARCH64_SYSROOT} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
