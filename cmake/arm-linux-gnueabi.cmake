# Cross build for the router: 32-bit ARM (armel, soft float) with Debian's cross compilers
# (g++-arm-linux-gnueabi, libc6-dev-armel-cross). Target libraries come from Debian's multiarch
# packages (dpkg --add-architecture armel; libcjson-dev:armel, libgtest-dev:armel,
# libgmock-dev:armel): the cross compiler searches /usr/include and /usr/lib/arm-linux-gnueabi
# after its own directories, and pkg-config reads only the armel .pc files.
#
#     cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake
#
# tools/install-deps-arm installs all of it; README.md ("Building for a router") has the rest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabi)

set(CROSS_TRIPLE arm-linux-gnueabi)
set(CMAKE_C_COMPILER ${CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${CROSS_TRIPLE}-g++)
find_program(CMAKE_AR ${CROSS_TRIPLE}-ar)
find_program(CMAKE_RANLIB ${CROSS_TRIPLE}-ranlib)
find_program(CMAKE_STRIP ${CROSS_TRIPLE}-strip)
find_program(CMAKE_OBJCOPY ${CROSS_TRIPLE}-objcopy)

# Host programs (cmake, pkg-config) come from the host; libraries and headers only from the
# target's directories, never the host's x86 ones.
set(CMAKE_FIND_ROOT_PATH /usr/${CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)

# pkg-config: the armel multiarch .pc files and the architecture-independent ones only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# GCC notes that parameter passing of some types changed in GCC 7.1 on ARM: nothing here is
# built with an older compiler, and the notes bury real warnings.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# The router has no libstdc++ of this compiler's version: C++ runtime always linked in.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc")

# Cross-built test programs run under user-mode emulation; the test root's launcher puts it
# between itself and the program (tests/testroot/launch --emulator).
find_program(CROSS_QEMU qemu-arm)
if(CROSS_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CROSS_QEMU})
endif()

# Benchmarks measure the build machine; they are not built for the router.
set(FAILOVER_BENCHMARKS OFF CACHE BOOL "Build the benchmarks")
