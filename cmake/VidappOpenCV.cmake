# OpenCV 4 from Debian's per-module packages. Debian ships the CMake package files only in the
# all-modules package (which pulls in VTK and more), so the six modules used are found directly.
# The headers are SYSTEM includes: they do not build warning-free under C++20.
find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
add_library(vidapp_opencv INTERFACE)
target_include_directories(vidapp_opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
foreach(module core imgproc calib3d videoio highgui imgcodecs)
    find_library(OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
    target_link_libraries(vidapp_opencv INTERFACE ${OPENCV_${module}_LIBRARY})
endforeach()

find_package(PkgConfig REQUIRED)
pkg_check_modules(GSTREAMER REQUIRED IMPORTED_TARGET gstreamer-1.0 gstreamer-app-1.0 gstreamer-video-1.0)
