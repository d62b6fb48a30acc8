# Cross-build for the board: 64-bit Arm Linux with Debian's aarch64-linux-gnu
# toolchain (g++-aarch64-linux-gnu). Target libraries come from Debian
# multiarch (dpkg --add-architecture arm64; libinih-dev:arm64,
# libgtest-dev:arm64, libgmock-dev:arm64), which puts them in
# /usr/lib/aarch64-linux-gnu next to the host's own; scripts/setup.sh
# installs them with ZELISP_SETUP_CROSS=1. Test programs run under
# qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# The toolchain's own sysroot first, then the multiarch tree under /: with
# CMAKE_LIBRARY_ARCHITECTURE set, libraries and package files are looked up
# in /usr/lib/aarch64-linux-gnu, never in the host's x86_64 directories.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must describe the target's libraries, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run on the multiarch Arm64 C library (libc6:arm64, which the
# multiarch packages above pull in): with -L / the Arm64 loader and libraries
# are found at their usual paths. The cross toolchain's own copy in
# /usr/aarch64-linux-gnu is for linking only; under qemu-user 7.2 its
# pthread_create never returns.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/)
