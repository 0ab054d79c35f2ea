# Cross build for the gateway's 32-bit ARM (hard-float EABI) with Debian's
# cross compiler and the :armhf development packages of the libraries.
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVEL_ARM_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TAVEL_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVEL_ARM_TRIPLET}-g++)
# The host's strip would refuse ARM objects (cmake --install --strip, CPack).
find_program(CMAKE_STRIP ${TAVEL_ARM_TRIPLET}-strip)

# 64-bit file offsets and inode numbers, as every current 32-bit distribution
# builds: without them stat(), fstat() and readdir() fail with EOVERFLOW on
# files past 2 GiB or on file systems that hand out 64-bit inode numbers or
# directory cookies (an emulated run on a 64-bit host always does).  None of
# the platform headers carries off_t or ino_t, so the record layouts shared
# with the device libraries do not change.  time_t stays 32-bit: it is part of
# the platform ABI, which the device's libraries fix.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# Debian's multiarch layout: the armhf libraries and headers live in the host
# tree under arm-linux-gnueabihf directories, the C library in
# /usr/arm-linux-gnueabihf.  Programs (python3, dbus-daemon, qemu) are the
# host's; libraries, headers and CMake package files are the target's only.
set(CMAKE_LIBRARY_ARCHITECTURE ${TAVEL_ARM_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${TAVEL_ARM_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must see the armhf .pc files and never the host's, or dbus-1
# would hand the x86-64 include directory (dbus-arch-deps.h) to the target.
# The environment is read again on every configure run, so set it here rather
# than in the calling script.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${TAVEL_ARM_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# Target binaries (gtest discovery, ctest) run under user-mode emulation; no
# binfmt registration is needed.  The prefix is the host root on purpose: the
# loader, libc, libstdc++, libcurl and libdbus then all come from the same
# :armhf multiarch packages.  A prefix of /usr/arm-linux-gnueabihf would pair
# the cross toolchain's ld.so with the multiarch libc.so.6 (a different glibc
# build), and the very first pthread_create crashes in that mix.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/)
