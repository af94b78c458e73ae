# Cross build for the board (AArch64) with Debian's cross compilers and the
# arm64 multiarch packages; the tests run under qemu-user.
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(PARA_TARGET_TRIPLET aarch64-linux-gnu)

set(CMAKE_C_COMPILER ${PARA_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${PARA_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${PARA_TARGET_TRIPLET})

# Target libraries live beside the host's in the multiarch directories.
set(CMAKE_FIND_ROOT_PATH /usr/${PARA_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must answer with the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${PARA_TARGET_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# With the arm64 loader and runtime installed through multiarch (libc6:arm64,
# libstdc++6:arm64) qemu runs the tests as they are. The -L prefix is only
# the fallback: qemu 7.2 then hangs in fork() while another thread runs,
# which every test that spawns a shell next to a worker thread hits.
find_program(PARA_QEMU qemu-aarch64)
if(PARA_QEMU)
  if(EXISTS /lib/ld-linux-aarch64.so.1 AND EXISTS /usr/lib/${PARA_TARGET_TRIPLET}/libstdc++.so.6)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PARA_QEMU})
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PARA_QEMU} -L /usr/${PARA_TARGET_TRIPLET})
  endif()
endif()
