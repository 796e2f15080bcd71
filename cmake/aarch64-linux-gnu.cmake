# Cross build for the vehicle computer (AArch64 Linux): Debian's aarch64-linux-gnu g++ against the
# arm64 Debian root that scripts/arm64-root makes. Tests and try_run go through qemu-user.
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#         [-DVIDAPP_ARM64_ROOT=/var/cache/vidapp/arm64-root]
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(NOT VIDAPP_ARM64_ROOT)
    if(DEFINED ENV{VIDAPP_ARM64_ROOT})
        set(VIDAPP_ARM64_ROOT $ENV{VIDAPP_ARM64_ROOT})
    else()
        set(VIDAPP_ARM64_ROOT /var/cache/vidapp/arm64-root)
    endif()
endif()
set(VIDAPP_ARM64_ROOT ${VIDAPP_ARM64_ROOT} CACHE PATH "The arm64 Debian root to build against (scripts/arm64-root)")
if(NOT EXISTS ${VIDAPP_ARM64_ROOT}/usr/include/opencv4)
    message(FATAL_ERROR "No arm64 root with the build's libraries at ${VIDAPP_ARM64_ROOT}: run scripts/arm64-root")
endif()
# try_compile projects read this file again and need the root too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VIDAPP_ARM64_ROOT)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_SYSROOT ${VIDAPP_ARM64_ROOT})

# Headers, libraries and CMake packages from the root only; programs from this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the root's .pc files and puts the root in front of their paths.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VIDAPP_ARM64_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${VIDAPP_ARM64_ROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${VIDAPP_ARM64_ROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# The libraries that the arm64 programs load come from the root. The tests' own sandbox chain
# runs arm64 programs through binfmt_misc instead (scripts/arm64-root registers it), with
# QEMU_LD_PREFIX naming the root.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L ${VIDAPP_ARM64_ROOT})
