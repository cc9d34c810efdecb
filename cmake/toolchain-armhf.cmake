# Cross-build for the ARMv7 board (arm-linux-gnueabihf, hard float) with Debian's cross
# compiler. The target's libraries are Debian's armhf packages unpacked into a root
# directory in their multiarch layout (tools/test-armhf.sh makes it), not installed on the
# host: armhf -dev packages must match the host's versions exactly to be co-installed, which
# the host's security updates break.
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DTILTHWATCH_ARMHF_ROOT=<root> ...
#
# Tests run through qemu-arm with that root as the target's file system.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Try-compile projects read the toolchain again and need the root too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TILTHWATCH_ARMHF_ROOT)
if(NOT TILTHWATCH_ARMHF_ROOT)
  if(DEFINED ENV{TILTHWATCH_ARMHF_ROOT})
    set(TILTHWATCH_ARMHF_ROOT $ENV{TILTHWATCH_ARMHF_ROOT})
  else()
    message(FATAL_ERROR "Set TILTHWATCH_ARMHF_ROOT to the unpacked armhf packages")
  endif()
endif()
set(_root ${TILTHWATCH_ARMHF_ROOT})

# The C library and libstdc++ come from the cross toolchain itself; everything else from the
# root. Host programs (thrift, protoc) stay the host's.
set(CMAKE_FIND_ROOT_PATH ${_root} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${_root})
set(ENV{PKG_CONFIG_LIBDIR}
    "${_root}/usr/lib/arm-linux-gnueabihf/pkgconfig:${_root}/usr/share/pkgconfig")

# Libraries that the linked ones need in turn are looked up in the root as well.
set(_libdirs ${_root}/usr/lib/arm-linux-gnueabihf ${_root}/lib/arm-linux-gnueabihf)
string(REPLACE ";" ":" _rpath_link "${_libdirs}")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_rpath_link}")
endforeach()

# ARMv7-A with NEON, as Debian's armhf baseline and the board.
# Everything is built by the one compiler, so GCC's notes on an ABI change of GCC 7.1 say
# nothing here.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard -Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard -Wno-psabi")

string(REPLACE ";" ":" _ld_path "${_libdirs}")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${_root} -E LD_LIBRARY_PATH=${_ld_path})
