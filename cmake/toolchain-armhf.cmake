# Cross-building for 32-bit ARM Linux panels (Debian's armhf: ARMv7, hard
# float) with Debian's g++-arm-linux-gnueabihf. The target's SQLite, OpenSSL
# and GoogleTest come from a sysroot directory holding the unpacked armhf
# packages (scripts/armhf-setup.sh makes one); the C library and libstdc++
# from /usr/arm-linux-gnueabihf. Binaries run under qemu-arm through
# CMAKE_CROSSCOMPILING_EMULATOR, so ctest runs the tests as on the target.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#         [-DSQLITE3DB_ARMHF_SYSROOT=/path/to/sysroot]
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT SQLITE3DB_ARMHF_SYSROOT)
  if(DEFINED ENV{SQLITE3DB_ARMHF_SYSROOT})
    set(SQLITE3DB_ARMHF_SYSROOT "$ENV{SQLITE3DB_ARMHF_SYSROOT}")
  else()
    get_filename_component(SQLITE3DB_ARMHF_SYSROOT
      "${CMAKE_CURRENT_LIST_DIR}/../build-armhf-sysroot" ABSOLUTE)
  endif()
endif()
set(SQLITE3DB_ARMHF_SYSROOT "${SQLITE3DB_ARMHF_SYSROOT}" CACHE PATH
  "Unpacked armhf packages (scripts/armhf-setup.sh)")
# try_compile projects read this file again: hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SQLITE3DB_ARMHF_SYSROOT)
if(NOT EXISTS "${SQLITE3DB_ARMHF_SYSROOT}/usr/include/sqlite3.h")
  message(FATAL_ERROR "No armhf sysroot in ${SQLITE3DB_ARMHF_SYSROOT}: run scripts/armhf-setup.sh")
endif()

set(CMAKE_FIND_ROOT_PATH "${SQLITE3DB_ARMHF_SYSROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# OpenSSL's opensslconf.h sits in the multiarch include directory; the
# linker needs the sysroot for the libraries' own dependencies.
set(_sqlite3db_multiarch "${SQLITE3DB_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${_sqlite3db_multiarch}")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${_sqlite3db_multiarch}")
set(_sqlite3db_rpath_link "-Wl,-rpath-link,${SQLITE3DB_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_sqlite3db_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_sqlite3db_rpath_link}")
# GCC notes an ABI change of GCC 7 for some 64-bit arguments; nothing here
# is linked against code built before it.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(ENV{PKG_CONFIG_LIBDIR}
  "${SQLITE3DB_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${SQLITE3DB_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${SQLITE3DB_ARMHF_SYSROOT}")

# The sysroot has lib/ pointing at /usr/arm-linux-gnueabihf/lib, so that
# qemu-arm -L finds the C library and the packages' libraries alike.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${SQLITE3DB_ARMHF_SYSROOT}")
