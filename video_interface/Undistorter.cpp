#include "video_interface/Undistorter.h"

#include <algorithm>
#include <stdexcept>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace OVRA {

namespace {

// cv::undistort builds its tables for stripes of about 4096 pixels.
constexpr int STRIPE_PIXELS = 1 << 12;

} // namespace

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
    cv::remap(source, destination, mMap1, mMap2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    // A reallocation would leave the caller's memory (a shared slot) unwritten.
    CV_Assert(destination.data == target);
}

void Undistorter::buildMaps(cv::Size size) {
    const int stripeRows0 = std::min(std::max(1, STRIPE_PIXELS / std::max(size.width, 1)), size.height);
    cv::Mat map1(size, CV_16SC2);
    cv::Mat map2(size, CV_16UC1);
    const cv::Mat identity = cv::Mat::eye(3, 3, CV_64F);
    cv::Mat stripeCameraMatrix = mCameraMatrix.clone();
    const double v0 = stripeCameraMatrix.at<double>(1, 2);
    cv::Mat stripeMap1;
    cv::Mat stripeMap2;
    for (int y = 0; y < size.height; y += stripeRows0) {
        const int stripeRows = std::min(stripeRows0, size.height - y);
        // Each stripe's tables are computed as if its first row were row 0 of the image.
        stripeCameraMatrix.at<double>(1, 2) = v0 - y;
        cv::initUndistortRectifyMap(mCameraMatrix, mDistortionCoefficients, identity, stripeCameraMatrix,
                                    cv::Size(size.width, stripeRows), CV_16SC2, stripeMap1, stripeMap2);
        stripeMap1.copyTo(map1.rowRange(y, y + stripeRows));
        stripeMap2.copyTo(map2.rowRange(y, y + stripeRows));
    }
    mMap1 = map1;
    mMap2 = map2;
    mMapSize = size;
    ++mMapBuildCount;
}

} // namespace OVRA
