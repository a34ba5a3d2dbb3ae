# Cross build for 32-bit ARM (hard float) with Debian's cross toolchain
# (g++-arm-linux-gnueabihf) and multiarch armhf packages (liblog):
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# ctest runs the armhf executables under qemu-arm (user mode) against the
# cross toolchain's own C and C++ runtime.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVREL_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TAVREL_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVREL_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TAVREL_CROSS_TRIPLET})

# The cross toolchain's runtime lives in /usr/<triplet>; armhf packages from
# the archive (liblog) are multiarch under /usr/lib/<triplet>. Libraries and
# headers are looked up in both, host programs only on the host, and CMake
# packages never on the host, so that no amd64 package config is picked up.
set(TAVREL_CROSS_SYSROOT /usr/${TAVREL_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH ${TAVREL_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-arm resolves the program interpreter under the sysroot (-L). The
# host's ld.so.cache also lists the multiarch armhf libc, which belongs to a
# different glibc build than the toolchain's ld.so; the library path keeps
# the loader on the toolchain's runtime and adds liblog's directory.
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(TAVREL_QEMU_ARM qemu-arm)
  if(TAVREL_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR
      ${TAVREL_QEMU_ARM} -L ${TAVREL_CROSS_SYSROOT}
      -E LD_LIBRARY_PATH=${TAVREL_CROSS_SYSROOT}/lib:/usr/lib/${TAVREL_CROSS_TRIPLET}/android)
  endif()
endif()
