#include "video_interface/remap/UndistortionMaps.h"

#include <algorithm>

#include <opencv2/calib3d.hpp>

namespace OVRA {

namespace {

constexpr int STRIPE_PIXELS = 1 << 12;

} // namespace

void buildUndistortionMaps(const cv::Mat& cameraMatrix, const cv::Mat& distortionCoefficients, cv::Size size,
                           cv::Mat& map1, cv::Mat& map2) {
    cv::Mat camera;
    cv::Mat distortion;
    cameraMatrix.convertTo(camera, CV_64F);
    distortionCoefficients.convertTo(distortion, CV_64F);
    const int stripeRows0 = std::min(std::max(1, STRIPE_PIXELS / std::max(size.width, 1)), size.height);
    cv::Mat full1(size, CV_16SC2);
    cv::Mat full2(size, CV_16UC1);
    const cv::Mat identity = cv::Mat::eye(3, 3, CV_64F);
    cv::Mat stripeCamera = camera.clone();
    const double v0 = stripeCamera.at<double>(1, 2);
    cv::Mat stripe1;
    cv::Mat stripe2;
    for (int y = 0; y < size.height; y += stripeRows0) {
        const int stripeRows = std::min(stripeRows0, size.height - y);
        stripeCamera.at<double>(1, 2) = v0 - y;
        cv::initUndistortRectifyMap(camera, distortion, identity, stripeCamera, cv::Size(size.width, stripeRows),
                                    CV_16SC2, stripe1, stripe2);
        stripe1.copyTo(full1.rowRange(y, y + stripeRows));
        stripe2.copyTo(full2.rowRange(y, y + stripeRows));
    }
    map1 = full1;
    map2 = full2;
}

} // namespace OVRA
