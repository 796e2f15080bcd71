# The Debian package "vidapp" (cpack -G DEB in the build directory; scripts/package does it for
# this machine and for the vehicle computer). Under /usr: bin/vidapp and libexec/vidapp/vidapp (the
# launcher finds the process at ../libexec/vidapp/vidapp), the tools in bin/, the README and docs
# in share/doc/vidapp with an example ProtocolVersion.ini. The install rules of the programs are
# beside their targets.

install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION share/doc/vidapp)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION share/doc/vidapp FILES_MATCHING PATTERN "*.md" PATTERN "*.png")

# What the system's configuration directory holds on the vehicle ("/NFS").
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packaging/ProtocolVersion.ini @ONLY CONTENT [[
; Protocol versions (hexadecimal) that vidapp stamps into its messages and expects in those it
; receives. vidapp reads /NFS/ProtocolVersion.ini once at start; without it both are 0.
[Protocol]
T1D_VER=0102
DIAG_INTF_VER=0001
]])
install(FILES ${CMAKE_BINARY_DIR}/packaging/ProtocolVersion.ini DESTINATION share/doc/vidapp/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vidapp)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "vidapp developers <vidapp@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "video interface process of the driver-assistance system")
set(CPACK_PACKAGE_DESCRIPTION [[vidapp owns the vehicle's camera: it captures frames through GStreamer, removes lens
distortion, publishes every frame in the shared memory segment IMAGE_FRAME and announces it to
the router with a CRC-protected UDP message. With the operator tools: vidapp-dlog, vidapp-peer,
vidapp-frame-dump and the others.]])
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Libraries from the programs themselves (dpkg-shlibdeps); the GStreamer elements that the
# host pipelines use (videoconvert, appsink) are loaded at run time and named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "gstreamer1.0-plugins-base")

if(CMAKE_CROSSCOMPILING)
    if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        message(FATAL_ERROR "Packaging knows the aarch64 cross build only, not ${CMAKE_SYSTEM_PROCESSOR}")
    endif()
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    # dpkg-shlibdeps runs on this machine: it finds the libraries in the arm64 root, the packages
    # that hold them in the root's package database (whose file lists name them where they lie
    # here, see scripts/arm64-root), and reads them with the aarch64 objdump.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packaging/CPackProjectConfig.cmake @ONLY CONTENT [[
set(ENV{DEB_HOST_ARCH} arm64)
set(ENV{DPKG_ADMINDIR} "@CMAKE_SYSROOT@/var/lib/dpkg")
]])
    set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/packaging/CPackProjectConfig.cmake)
endif()

include(CPack)
