# Cross build for a Linux target with any GCC-style SDK.
#
#   cmake -S . -B build-x -DCMAKE_TOOLCHAIN_FILE=cmake/cross-linux.cmake \
#         -DTAVEL_CROSS_PREFIX=/opt/sdk/bin/armv7a-vendor-linux-gnueabi- \
#         -DCMAKE_SYSROOT=/opt/sdk/sysroots/armv7a-vendor-linux-gnueabi
#
# Inputs (cache variables or environment variables of the same name):
#   TAVEL_CROSS_TRIPLET  the target triplet, e.g. arm-linux-gnueabihf; the
#                        compilers are TRIPLET-gcc and TRIPLET-g++ on PATH
#   TAVEL_CROSS_PREFIX   instead, the compilers' full prefix (a directory and
#                        the part of the name before gcc/g++); the triplet is
#                        then asked from the compiler
#   CMAKE_SYSROOT        the SDK's target root (headers, libraries, .pc files);
#                        without it the target's libraries are Debian's
#                        multiarch packages (the :ARCH -dev packages)
#   TAVEL_SYSROOT_ONLY   ON: headers, start files and libraries from the
#                        sysroot only, never from the compiler's own target
#                        tree (Debian's cross compiler with a sysroot of
#                        another Debian release)
#   CMAKE_C_COMPILER, CMAKE_CXX_COMPILER  override the derived names
#   CMAKE_CROSSCOMPILING_EMULATOR         overrides qemu-ARCH -L ROOT
#
# The Debian armhf build is cmake/arm-linux-gnueabihf.cmake, which sets the
# triplet and includes this file.  The project's CMakeLists, not this file,
# sets the 32-bit targets' 64-bit off_t and time_t.
set(CMAKE_SYSTEM_NAME Linux)

foreach(_tavel_var TAVEL_CROSS_TRIPLET TAVEL_CROSS_PREFIX TAVEL_SYSROOT_ONLY)
  if(NOT ${_tavel_var} AND DEFINED ENV{${_tavel_var}})
    set(${_tavel_var} "$ENV{${_tavel_var}}")
  endif()
endforeach()
# try_compile projects read this file again without the cache: source
# checks get the inputs through the platform variables, whole test
# projects (check_ipo_supported) only through the environment.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVEL_CROSS_TRIPLET TAVEL_CROSS_PREFIX TAVEL_SYSROOT_ONLY)
foreach(_tavel_var TAVEL_CROSS_TRIPLET TAVEL_CROSS_PREFIX TAVEL_SYSROOT_ONLY)
  if(${_tavel_var})
    set(ENV{${_tavel_var}} "${${_tavel_var}}")
  endif()
endforeach()

if(TAVEL_CROSS_PREFIX)
  set(_tavel_prefix "${TAVEL_CROSS_PREFIX}")
elseif(TAVEL_CROSS_TRIPLET)
  set(_tavel_prefix "${TAVEL_CROSS_TRIPLET}-")
else()
  message(FATAL_ERROR "cross-linux.cmake: set TAVEL_CROSS_TRIPLET or TAVEL_CROSS_PREFIX")
endif()
if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER "${_tavel_prefix}gcc")
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER "${_tavel_prefix}g++")
endif()
if(NOT TAVEL_CROSS_TRIPLET)
  execute_process(COMMAND "${CMAKE_C_COMPILER}" -dumpmachine OUTPUT_VARIABLE TAVEL_CROSS_TRIPLET
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT TAVEL_CROSS_TRIPLET)
    message(FATAL_ERROR "cross-linux.cmake: ${CMAKE_C_COMPILER} -dumpmachine gave no triplet")
  endif()
endif()
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${TAVEL_CROSS_TRIPLET}")
# The host's binutils would refuse target objects (cmake --install --strip,
# CPack, the symbol check of the platform stand-ins).
find_program(CMAKE_STRIP "${_tavel_prefix}strip")
find_program(CMAKE_NM "${_tavel_prefix}nm")

# Programs (python3, dbus-daemon, qemu) are always the host's; headers,
# libraries and CMake package files the target's only.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
if(CMAKE_SYSROOT)
  set(CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  # pkg-config reports the sysroot's paths with the sysroot in front.  An
  # SDK's environment script may have set its own search path already: it
  # is kept, and only an unset one is derived from the sysroot.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
  if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
    set(ENV{PKG_CONFIG_LIBDIR}
        "${CMAKE_SYSROOT}/usr/lib/${TAVEL_CROSS_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
  endif()
  set(_tavel_target_root "${CMAKE_SYSROOT}")
  # Debian's cross compilers search their own target tree (/usr/TRIPLET: the
  # C library and libstdc++ of the host's release) before the sysroot.  With
  # a sysroot of another release (TAVEL_SYSROOT_ONLY) the headers, start
  # files and libraries must all be the sysroot's, or its libraries meet an
  # older C library at link time; the compiler's own headers (stddef.h and
  # the like) stay.
  if(TAVEL_SYSROOT_ONLY)
    execute_process(COMMAND "${CMAKE_C_COMPILER}" -print-file-name=include OUTPUT_VARIABLE _tavel_gcc_include
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND "${CMAKE_C_COMPILER}" -dumpversion OUTPUT_VARIABLE _tavel_gcc_version
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(_tavel_inc "${CMAKE_SYSROOT}/usr/include")
    set(_tavel_lib "${CMAKE_SYSROOT}/usr/lib/${TAVEL_CROSS_TRIPLET}")
    set(_tavel_c_dirs "-isystem ${_tavel_gcc_include} -isystem ${_tavel_inc}/${TAVEL_CROSS_TRIPLET} -isystem ${_tavel_inc}")
    set(CMAKE_C_FLAGS_INIT "-nostdinc ${_tavel_c_dirs}")
    set(CMAKE_CXX_FLAGS_INIT
        "-nostdinc -isystem ${_tavel_inc}/c++/${_tavel_gcc_version} -isystem ${_tavel_inc}/${TAVEL_CROSS_TRIPLET}/c++/${_tavel_gcc_version} -isystem ${_tavel_inc}/c++/${_tavel_gcc_version}/backward ${_tavel_c_dirs}"
    )
    foreach(_tavel_kind EXE SHARED MODULE)
      set(CMAKE_${_tavel_kind}_LINKER_FLAGS_INIT
          "-B${_tavel_lib}/ -L${CMAKE_SYSROOT}/lib/${TAVEL_CROSS_TRIPLET} -L${_tavel_lib} -L${CMAKE_SYSROOT}/usr/lib/gcc/${TAVEL_CROSS_TRIPLET}/${_tavel_gcc_version}"
      )
    endforeach()
  endif()
else()
  # Debian's multiarch layout: the target's libraries and headers live in the
  # host tree under TRIPLET directories, the C library in /usr/TRIPLET.
  set(CMAKE_LIBRARY_ARCHITECTURE "${TAVEL_CROSS_TRIPLET}")
  set(CMAKE_FIND_ROOT_PATH "/usr/${TAVEL_CROSS_TRIPLET}")
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
  # pkg-config must see the target's .pc files and never the host's, or
  # dbus-1 would hand the host's include directory (dbus-arch-deps.h) to
  # the target.  Set here because the environment is read again on every
  # configure run.
  if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
    set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${TAVEL_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
  endif()
  set(_tavel_target_root "/")
endif()

# Target binaries (gtest discovery, ctest) run under user-mode emulation; no
# binfmt registration is needed.  The prefix is the target's root, so the
# loader and every library come from the same C library build: for Debian's
# multiarch packages that is /, not /usr/TRIPLET, whose cross toolchain
# loader meets the multiarch libc.so.6 of another glibc build and crashes at
# the first pthread_create.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(_tavel_qemu qemu-arm)
  else()
    set(_tavel_qemu "qemu-${CMAKE_SYSTEM_PROCESSOR}")
  endif()
  find_program(TAVEL_QEMU "${_tavel_qemu}")
  if(TAVEL_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${TAVEL_QEMU};-L;${_tavel_target_root}")
  endif()
endif()
