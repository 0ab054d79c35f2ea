# The stand-in platform as installed by platform/CMakeLists.txt: the agent's
# build finds it with find_package(TavelPlatform CONFIG REQUIRED) under
# -DTAVEL_PLATFORM=external.  A vendor SDK gets a file of its own instead:
# see TavelPlatformConfig.cmake.in-sdk beside this file.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(PkgConfig)
# The bus stand-in runs on libdbus-1; its static library names this target.
if(NOT TARGET PkgConfig::TAVEL_PLATFORM_DBUS)
  pkg_check_modules(TAVEL_PLATFORM_DBUS REQUIRED IMPORTED_TARGET dbus-1)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/TavelPlatformTargets.cmake)
