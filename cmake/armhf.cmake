# Cross build for the camera's architecture: 32-bit ARM, hard-float, glibc
# (Debian's armhf). The compilers are Debian's arm-linux-gnueabihf ones; the
# headers and libraries come from a sysroot: build/armhf-sysroot by default
# (scripts/armhf-sysroot.sh makes it), or the camera SDK's sysroot given as
# -DZANTREL_SYSROOT=DIR (or in the environment variable of the same name).
# Test programs run under qemu-arm through armhf-run.sh beside this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(NOT ZANTREL_SYSROOT)
  if(DEFINED ENV{ZANTREL_SYSROOT})
    set(ZANTREL_SYSROOT "$ENV{ZANTREL_SYSROOT}")
  else()
    set(ZANTREL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot")
  endif()
endif()
get_filename_component(ZANTREL_SYSROOT "${ZANTREL_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${ZANTREL_SYSROOT}/usr/include")
  message(FATAL_ERROR "No armhf sysroot at ${ZANTREL_SYSROOT}: run scripts/armhf-sysroot.sh")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZANTREL_SYSROOT)

set(CMAKE_SYSROOT "${ZANTREL_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# Headers, libraries and CMake packages only from the sysroot; programs
# (pkg-config, nm) from the machine.
set(CMAKE_FIND_ROOT_PATH "${ZANTREL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZANTREL_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ZANTREL_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ZANTREL_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/armhf-run.sh;${ZANTREL_SYSROOT}")
