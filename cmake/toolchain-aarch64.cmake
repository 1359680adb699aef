# Cross build for the gateway: 64-bit little-endian ARM, glibc.
#   cmake -S . -B build/aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
# Uses Debian's cross toolchain (g++-aarch64-linux-gnu, binutils-aarch64-linux-gnu),
# whose headers and libraries live in /usr/aarch64-linux-gnu. Target programs
# (tests, test discovery) run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ZQ_TARGET_TRIPLE aarch64-linux-gnu)
set(ZQ_TARGET_ROOT /usr/${ZQ_TARGET_TRIPLE})

set(CMAKE_C_COMPILER ${ZQ_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ZQ_TARGET_TRIPLE}-g++)
# CMake derives ar, ranlib, strip, nm, readelf and objdump from the
# compiler's prefix (aarch64-linux-gnu-*).

# Debian's cross compiler already searches /usr/aarch64-linux-gnu/{include,lib};
# no --sysroot (it would look for /usr/aarch64-linux-gnu/usr/include).
# Libraries, headers and packages come from the target root only, plus
# whatever the caller adds to CMAKE_FIND_ROOT_PATH (a staging directory).
list(APPEND CMAKE_FIND_ROOT_PATH ${ZQ_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

if(EXISTS /usr/bin/qemu-aarch64-static)
  set(ZQ_QEMU /usr/bin/qemu-aarch64-static)
else()
  set(ZQ_QEMU qemu-aarch64-static)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZQ_QEMU};-L;${ZQ_TARGET_ROOT})
