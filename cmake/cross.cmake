# A build for a camera of another architecture, VANDREL_ARCH, with Debian's cross compiler and the
# libraries that .ci/dependencies.sh unpacks into build/sysroot.
set(CMAKE_SYSTEM_NAME Linux)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VANDREL_ARCH)
if(VANDREL_ARCH STREQUAL "aarch64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(triplet aarch64-linux-gnu)
elseif(VANDREL_ARCH STREQUAL "armhf")
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(triplet arm-linux-gnueabihf)
else()
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
  set(triplet x86_64-linux-gnu)
endif()
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${VANDREL_ARCH})
get_filename_component(sysroot ${sysroot} ABSOLUTE)

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The C library is the cross compiler's own; what GLib needs besides is found when linking.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${sysroot}/usr/lib/${triplet} -Wl,-rpath-link,${sysroot}/lib/${triplet}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR}
    "${sysroot}/usr/lib/${triplet}/pkgconfig:${sysroot}/usr/share/pkgconfig")
# Unit tests of that architecture run through the emulator.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR}-static -L ${sysroot})
