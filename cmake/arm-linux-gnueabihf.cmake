# Cross build for the gateway's 32-bit ARM (hard-float EABI) with Debian's
# cross compiler and the :armhf development packages of the libraries:
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
# Any other SDK: cmake/cross-linux.cmake.
set(TAVEL_CROSS_TRIPLET arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake")
