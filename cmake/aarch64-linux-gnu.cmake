# Cross build for aarch64 Linux with Debian's cross compilers
# (g++-aarch64-linux-gnu); tests run under user-mode emulation
# (qemu-user-static) when it is installed. Used by scripts/test-aarch64.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(QZ_AARCH64_SYSROOT /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${QZ_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(QZ_QEMU_AARCH64 qemu-aarch64-static)
if(QZ_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QZ_QEMU_AARCH64} -L ${QZ_AARCH64_SYSROOT})
endif()
