#include "video_interface/Undistorter.h"

#include <gtest/gtest.h>

#include <cstring>

#include <opencv2/calib3d.hpp>
#include <opencv2/videoio.hpp>

namespace {

using OVRA::Undistorter;

TEST(UndistorterTest, CameraFramesMatchUndistortByteForByteWithMapsBuiltOncePerSize) {
    Undistorter undistorter;
    // The camera's own size and format, sizes whose stripes do not divide the height evenly, and a
    // second pixel type of the same size, which needs no new maps.
    const std::vector<std::tuple<int, int, std::string, int>> cases = {
        {800, 1200, "BGR", CV_8UC3}, {321, 243, "BGR", CV_8UC3},   {1280, 720, "BGR", CV_8UC3},
        {4100, 4, "GRAY8", CV_8UC1}, {640, 480, "GRAY8", CV_8UC1}, {640, 480, "BGR", CV_8UC3}};
    for (const auto& [width, height, format, type] : cases) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height) + " " + format);
        // GStreamer's moving ball, through OpenCV as the camera path delivers it.
        cv::VideoCapture capture("videotestsrc num-buffers=3 pattern=ball ! video/x-raw,width=" +
                                     std::to_string(width) + ",height=" + std::to_string(height) +
                                     ",framerate=10/1 ! videoconvert ! video/x-raw,format=" + format + " ! appsink",
                                 cv::CAP_GSTREAMER);
        std::vector<cv::Mat> frames;
        for (cv::Mat frame; capture.read(frame);) {
            frames.push_back(frame.clone());
        }
        ASSERT_EQ(frames.size(), 3U) << "the GStreamer test source did not deliver";
        EXPECT_NE(cv::norm(frames[0], frames[2], cv::NORM_INF), 0.0) << "the frames should differ";
        for (const cv::Mat& frame : frames) {
            ASSERT_EQ(frame.type(), type);
            cv::Mat actual(frame.size(), frame.type());
            undistorter.undistort(frame, actual);
            cv::Mat expected;
            cv::undistort(frame, expected, Undistorter::defaultCameraMatrix(),
                          Undistorter::defaultDistortionCoefficients());
            ASSERT_TRUE(expected.isContinuous() && actual.isContinuous() && expected.type() == actual.type());
            EXPECT_EQ(std::memcmp(expected.data, actual.data, expected.total() * expected.elemSize()), 0)
                << cv::norm(expected, actual, cv::NORM_INF) << " at most apart";
        }
    }
    EXPECT_EQ(undistorter.getMapBuildCount(), 5U);
    cv::Mat wrongSize(480, 641, CV_8UC3);
    cv::Mat wrongType(480, 640, CV_8UC1);
    EXPECT_THROW(undistorter.undistort(cv::Mat(480, 640, CV_8UC3), wrongSize), std::invalid_argument);
    EXPECT_THROW(undistorter.undistort(cv::Mat(480, 640, CV_8UC3), wrongType), std::invalid_argument);
}

} // namespace
