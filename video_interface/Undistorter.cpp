#include "video_interface/Undistorter.h"

#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "video_interface/remap/FixedRemap.h"
#include "video_interface/remap/UndistortionMaps.h"

namespace OVRA {

cv::Mat Undistorter::defaultCameraMatrix() {
    return (cv::Mat_<double>(3, 3) << 486.9067526773129, 0, 410.003209075657, //
            0, 973.9639729707335, 612.4323765442008,                          //
            0, 0, 1);
}

cv::Mat Undistorter::defaultDistortionCoefficients() {
    return (cv::Mat_<double>(1, 5) << -0.415965905593153, 0.2166983718648871, -7.807583529294884e-05,
            -3.375019732230854e-05, -0.0634709399366343);
}

Undistorter::Undistorter() : Undistorter(defaultCameraMatrix(), defaultDistortionCoefficients()) {}

Undistorter::Undistorter(const cv::Mat& cameraMatrix, const cv::Mat& distortionCoefficients) {
    cameraMatrix.convertTo(mCameraMatrix, CV_64F);
    distortionCoefficients.convertTo(mDistortionCoefficients, CV_64F);
}

void Undistorter::undistort(const cv::Mat& source, cv::Mat& destination) {
    if (source.size() != destination.size() || source.type() != destination.type()) {
        throw std::invalid_argument("Undistorter::undistort(): destination differs from the source in size or type");
    }
    if (source.empty()) {
        return;
    }
    if (source.size() != mMapSize) {
        buildMaps(source.size());
    }
    const uchar* const target = destination.data;
    if (source.depth() == CV_8U && (source.channels() == 1 || source.channels() == 3)) {
        remapFixedBilinear(source, destination, mMap1, mMap2, mThreads);
    } else {
        cv::remap(source, destination, mMap1, mMap2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    }
    // A reallocation would leave the caller's memory (a shared slot) unwritten.
    CV_Assert(destination.data == target);
}

void Undistorter::buildMaps(cv::Size size) {
    buildUndistortionMaps(mCameraMatrix, mDistortionCoefficients, size, mMap1, mMap2);
    mMapSize = size;
    ++mMapBuildCount;
}

} // namespace OVRA
