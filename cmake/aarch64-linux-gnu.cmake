# Cross build for AArch64 Linux on a Debian x86-64 machine:
#   cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# It needs the cross compiler (g++-aarch64-linux-gnu, whose headers and libraries a clang build
# uses too); the tests also need qemu-user and the arm64 packages libgtest-dev, libssl-dev and
# libstdc++6 (scripts/test-aarch64.sh installs them).  Test discovery and ctest run the test
# programs under qemu-aarch64, by default as a processor with the crypto extensions;
# -DZIRN_QEMU_CPU=<model> picks another one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
# g++ by default; -DCMAKE_CXX_COMPILER=clang++-16 (or later) builds with clang instead.
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)

# Debian's multiarch layout: the arm64 libraries and their CMake packages live in
# /usr/lib/aarch64-linux-gnu beside the host's, the cross C library in /usr/aarch64-linux-gnu.
# Searching those (and the host's /usr for headers and the architecture-independent CMake
# packages) finds the arm64 GoogleTest and OpenSSL, never the x86-64 ones.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# FindOpenSSL asks pkg-config first, whose default answer is the host's library.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# The programs run on the arm64 runtime of the multiarch packages (libc6:arm64,
# libstdc++6:arm64: /lib/ld-linux-aarch64.so.1 and /lib/aarch64-linux-gnu), so qemu gets no -L
# and QEMU_LD_PREFIX must stay unset: the cross compiler's loader in /usr/aarch64-linux-gnu
# would load the multiarch C library, another build of glibc, and a fork() then never returns.
set(ZIRN_QEMU_CPU max CACHE STRING "qemu-aarch64 processor model the test programs run as")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -cpu ${ZIRN_QEMU_CPU})
