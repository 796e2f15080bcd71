#pragma once

#include <opencv2/core.hpp>

namespace OVRA {

// The fixed-point remap tables (CV_16SC2 + CV_16UC1) with which one cv::remap over a whole frame
// gives what cv::undistort gives for that camera matrix and distortion vector (no new camera
// matrix). cv::undistort works in stripes of about 4096 pixels and builds each stripe's tables with
// the principal point moved up by the stripe's first row, so the tables are built the same way.
void buildUndistortionMaps(const cv::Mat& cameraMatrix, const cv::Mat& distortionCoefficients, cv::Size size,
                           cv::Mat& map1, cv::Mat& map2);

} // namespace OVRA
