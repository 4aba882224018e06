# Toolchain for 64-bit Arm Linux with Debian's cross compiler (package g++-aarch64-linux-gnu):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Programs built for the target run on the build machine through qemu's user mode
# (package qemu-user), which CTest and gtest_discover_tests use as the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(LOGFERRY_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${LOGFERRY_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LOGFERRY_CROSS_TRIPLE}-g++)

# The target's libraries and headers as Debian's cross packages install them.
set(LOGFERRY_CROSS_ROOT /usr/${LOGFERRY_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${LOGFERRY_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L lets dynamically linked programs find the target's loader and libraries; statically
# linked ones do not need it.
find_program(LOGFERRY_QEMU_AARCH64 qemu-aarch64)
if(LOGFERRY_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${LOGFERRY_QEMU_AARCH64} -L ${LOGFERRY_CROSS_ROOT})
endif()
