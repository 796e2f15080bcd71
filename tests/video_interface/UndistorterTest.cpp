#include "video_interface/Undistorter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include "tests/support/Pgm.h"
#include "video_interface/ImageFile.h"

namespace {

using OVRA::Undistorter;

// Frames from GStreamer's test source through OpenCV, as the camera path delivers them: the moving
// ball pattern, so that every frame differs.
std::vector<cv::Mat> testSourceFrames(int width, int height, const std::string& format, int frames) {
    const std::string pipeline = "videotestsrc num-buffers=" + std::to_string(frames) +
                                 " pattern=ball ! video/x-raw,width=" + std::to_string(width) +
                                 ",height=" + std::to_string(height) +
                                 ",framerate=10/1 ! videoconvert ! video/x-raw,format=" + format + " ! appsink";
    cv::VideoCapture capture(pipeline, cv::CAP_GSTREAMER);
    std::vector<cv::Mat> result;
    cv::Mat frame;
    while (capture.isOpened() && capture.read(frame) && !frame.empty()) {
        result.push_back(frame.clone());
    }
    return result;
}

class UndistorterTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/undistorter-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    // What cv::undistort gives with the camera's calibration and no new camera matrix.
    static cv::Mat reference(const cv::Mat& source) {
        cv::Mat expected;
        cv::undistort(source, expected, Undistorter::defaultCameraMatrix(),
                      Undistorter::defaultDistortionCoefficients());
        return expected;
    }

    // Undistorts source with the object under test and checks every byte against cv::undistort.
    void expectIdenticalToUndistort(const cv::Mat& source) {
        cv::Mat actual(source.size(), source.type());
        undistorter.undistort(source, actual);
        const cv::Mat expected = reference(source);
        ASSERT_EQ(expected.size(), actual.size());
        ASSERT_EQ(expected.type(), actual.type());
        const std::size_t bytes = expected.total() * expected.elemSize();
        ASSERT_TRUE(expected.isContinuous() && actual.isContinuous());
        EXPECT_EQ(std::memcmp(expected.data, actual.data, bytes), 0)
            << source.cols << " x " << source.rows << " type " << source.type() << ": "
            << cv::norm(expected, actual, cv::NORM_INF) << " at most apart";
    }

    Undistorter undistorter;
    std::string directory;
};

TEST_F(UndistorterTest, CameraFramesMatchUndistortByteForByte) {
    struct Case {
        int width;
        int height;
        const char* format;
        int type;
    };
    // The camera's own size and format, and sizes whose stripes do not divide the height evenly.
    const std::vector<Case> cases = {
        {800, 1200, "BGR", CV_8UC3}, {640, 480, "GRAY8", CV_8UC1}, {321, 243, "BGR", CV_8UC3},
        {1280, 720, "BGR", CV_8UC3}, {4100, 4, "GRAY8", CV_8UC1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height) + " " + c.format);
        const std::vector<cv::Mat> frames = testSourceFrames(c.width, c.height, c.format, 3);
        ASSERT_EQ(frames.size(), 3U) << "the GStreamer test source did not deliver";
        EXPECT_NE(cv::norm(frames[0], frames[2], cv::NORM_INF), 0.0) << "the frames should differ";
        for (const cv::Mat& frame : frames) {
            ASSERT_EQ(frame.type(), c.type);
            expectIdenticalToUndistort(frame);
        }
    }
}

TEST_F(UndistorterTest, PgmImagesMatchUndistortByteForByte) {
    const std::vector<cv::Size> sizes = {{800, 1200}, {640, 480}, {1, 7}, {4097, 3}, {333, 77}, {2, 2048}};
    for (const cv::Size& size : sizes) {
        SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height));
        const std::string path = directory + "/image.pgm";
        const auto width = static_cast<unsigned>(size.width);
        const auto height = static_cast<unsigned>(size.height);
        vidapp::test::writePgm(path, width, height, vidapp::test::pgmTestPattern(width, height));
        const ImageFile image(path.c_str());
        const cv::Mat source(size, CV_8UC1, const_cast<std::uint8_t*>(image.getPixelsArray()));
        expectIdenticalToUndistort(source);
    }
}

TEST_F(UndistorterTest, RandomImagesOfOtherTypesMatchUndistort) {
    cv::RNG random(20240611);
    for (const int type : {CV_8UC4, CV_16UC1, CV_32FC1, CV_8UC2}) {
        SCOPED_TRACE(type);
        cv::Mat source(117, 203, type);
        random.fill(source, cv::RNG::UNIFORM, 0, 255);
        expectIdenticalToUndistort(source);
    }
}

TEST_F(UndistorterTest, MapsAreBuiltOncePerSize) {
    const std::vector<cv::Mat> frames = testSourceFrames(320, 240, "BGR", 4);
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(undistorter.getMapBuildCount(), 0U);
    for (const cv::Mat& frame : frames) {
        expectIdenticalToUndistort(frame);
    }
    EXPECT_EQ(undistorter.getMapBuildCount(), 1U) << "same size: the tables are reused";

    cv::Mat grey;
    cv::extractChannel(frames[0], grey, 1);
    expectIdenticalToUndistort(grey);
    EXPECT_EQ(undistorter.getMapBuildCount(), 1U) << "the tables do not depend on the pixel type";

    cv::Mat smaller = frames[1](cv::Rect(0, 0, 160, 120)).clone();
    expectIdenticalToUndistort(smaller);
    EXPECT_EQ(undistorter.getMapBuildCount(), 2U) << "a new size builds new tables";
    expectIdenticalToUndistort(frames[2]);
    EXPECT_EQ(undistorter.getMapBuildCount(), 3U) << "and going back builds them again";
}

TEST_F(UndistorterTest, WritesInPlaceIntoMemoryOfItsOwn) {
    const std::vector<cv::Mat> frames = testSourceFrames(64, 48, "BGR", 1);
    ASSERT_EQ(frames.size(), 1U);
    const std::size_t imageBytes = 64 * 48 * 3;
    constexpr std::uint8_t GUARD = 0xA5;
    std::vector<std::uint8_t> memory(imageBytes + 64, GUARD);
    cv::Mat destination(48, 64, CV_8UC3, memory.data());

    undistorter.undistort(frames[0], destination);

    EXPECT_EQ(destination.data, memory.data());
    const cv::Mat expected = reference(frames[0]);
    EXPECT_EQ(std::memcmp(memory.data(), expected.data, imageBytes), 0);
    for (std::size_t i = imageBytes; i < memory.size(); ++i) {
        ASSERT_EQ(memory[i], GUARD) << "byte " << i << " beyond the image was written";
    }
}

TEST_F(UndistorterTest, DestinationOfAnotherSizeOrTypeIsRefused) {
    const cv::Mat source(48, 64, CV_8UC3, cv::Scalar(1, 2, 3));
    cv::Mat wrongSize(48, 65, CV_8UC3);
    cv::Mat wrongType(48, 64, CV_8UC1);
    EXPECT_THROW(undistorter.undistort(source, wrongSize), std::invalid_argument);
    EXPECT_THROW(undistorter.undistort(source, wrongType), std::invalid_argument);
    EXPECT_EQ(undistorter.getMapBuildCount(), 0U);
}

} // namespace
