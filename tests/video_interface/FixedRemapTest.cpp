#include "video_interface/remap/FixedRemap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <hwy/targets.h>
#include <opencv2/imgproc.hpp>

#include "video_interface/Undistorter.h"
#include "video_interface/remap/UndistortionMaps.h"

namespace {

using OVRA::remapFixedBilinear;

// Every case runs once per instruction set the kernels were compiled for that this machine has.
class FixedRemapTest : public testing::TestWithParam<std::int64_t> {
protected:
    void SetUp() override { hwy::SetSupportedTargetsForTest(GetParam()); }
    void TearDown() override { hwy::SetSupportedTargetsForTest(0); }

    // Ours against cv::remap itself, into a destination filled with garbage first, which must be
    // written in place. Ours reads a copy of the source in memory of exactly its size (OpenCV pads
    // its buffers), so that a read past the end shows under AddressSanitizer.
    static void expectSameAsOpenCv(const cv::Mat& src, const cv::Mat& map1, const cv::Mat& map2, int threads) {
        cv::Mat expected;
        cv::remap(src, expected, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        std::vector<uchar> sourceMemory(src.total() * src.elemSize());
        const cv::Mat source(src.size(), src.type(), sourceMemory.data());
        src.copyTo(source);
        cv::Mat actual(map1.size(), src.type(), cv::Scalar::all(0x5A));
        const uchar* const memory = actual.data;
        remapFixedBilinear(source, actual, map1, map2, threads);
        ASSERT_EQ(actual.data, memory);
        cv::Mat differs;
        cv::compare(expected.reshape(1), actual.reshape(1), differs, cv::CMP_NE);
        if (const int count = cv::countNonZero(differs); count != 0) {
            std::vector<cv::Point> where;
            cv::findNonZero(differs, where);
            ADD_FAILURE() << count << " bytes differ, the first at byte " << where[0].x << " of row " << where[0].y
                          << ": " << int(expected.reshape(1).at<uchar>(where[0])) << " expected, "
                          << int(actual.reshape(1).at<uchar>(where[0])) << " written";
        }
    }

    static cv::Mat randomImage(cv::Size size, int type) {
        cv::Mat image(size, type);
        cv::randu(image, 0, 256);
        return image;
    }

    // Integer coordinates uniform in [low, high) of each axis, fraction indices over all 16 bits
    // (only the low 10 count).
    static std::tuple<cv::Mat, cv::Mat> randomMaps(cv::Size size, cv::Point low, cv::Point high) {
        cv::Mat x(size, CV_16SC1);
        cv::Mat y(size, CV_16SC1);
        cv::randu(x, low.x, high.x);
        cv::randu(y, low.y, high.y);
        cv::Mat map1;
        cv::merge(std::vector<cv::Mat>{x, y}, map1);
        cv::Mat map2(size, CV_16UC1);
        cv::randu(map2, 0, 65536);
        return {map1, map2};
    }
};

TEST_P(FixedRemapTest, UndistortionMapsOfTheCameraMatchOpenCv) {
    for (const cv::Size size : {cv::Size(800, 1200), cv::Size(321, 243)}) {
        cv::Mat map1;
        cv::Mat map2;
        OVRA::buildUndistortionMaps(OVRA::Undistorter::defaultCameraMatrix(),
                                    OVRA::Undistorter::defaultDistortionCoefficients(), size, map1, map2);
        for (const int type : {CV_8UC3, CV_8UC1}) {
            for (const int threads : {1, 2}) {
                SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height) + ", " +
                             std::to_string(CV_MAT_CN(type)) + " channels, " + std::to_string(threads) + " threads");
                expectSameAsOpenCv(randomImage(size, type), map1, map2, threads);
            }
        }
    }
}

TEST_P(FixedRemapTest, RandomMapsInsideAcrossAndBeyondTheBorderMatchOpenCv) {
    // source size, destination size, coordinate range (low, high) in source pixels
    const std::vector<std::tuple<cv::Size, cv::Size, cv::Point, cv::Point>> cases = {
        {{640, 480}, {640, 480}, {0, 0}, {639, 479}},           // all four neighbours inside
        {{640, 480}, {257, 31}, {-2, -2}, {642, 482}},          // some across the border, some beyond
        {{101, 77}, {803, 9}, {-3, -3}, {104, 80}},             // odd widths, longer rows than the source
        {{33, 35}, {37, 3}, {-40, -40}, {80, 80}},              // mostly beyond
        {{50, 40}, {64, 16}, {-1000, 41}, {1000, 1000}},        // all below the source
        {{2, 2}, {19, 7}, {-1, -1}, {2, 2}},                    // a source of 2 x 2
        {{1, 1}, {9, 4}, {-1, -1}, {1, 1}},                     // a single source pixel: no pixel has all four
        {{29, 13}, {16, 4}, {27, 11}, {28, 12}},                // all at the last pixel that has all four
        {{7, 300}, {5, 300}, {-32768, -32768}, {32767, 32767}}, // the whole 16-bit range
    };
    cv::RNG& rng = cv::theRNG();
    rng.state = 20240611;
    for (const auto& [sourceSize, size, low, high] : cases) {
        for (const int type : {CV_8UC3, CV_8UC1}) {
            SCOPED_TRACE(std::to_string(sourceSize.width) + " x " + std::to_string(sourceSize.height) + " to " +
                         std::to_string(size.width) + " x " + std::to_string(size.height) + ", " +
                         std::to_string(CV_MAT_CN(type)) + " channels");
            const auto [map1, map2] = randomMaps(size, low, high);
            expectSameAsOpenCv(randomImage(sourceSize, type), map1, map2, 1);
        }
    }
}

TEST_P(FixedRemapTest, RegionsOfLargerImagesAndAnyNumberOfStripesMatchOpenCv) {
    cv::RNG& rng = cv::theRNG();
    rng.state = 7;
    for (const int type : {CV_8UC3, CV_8UC1}) {
        // Rows that do not follow each other in memory, for the source, both maps and the destination.
        const cv::Mat source = randomImage({300, 200}, type)(cv::Rect(13, 7, 251, 181));
        const auto [map1, map2] = randomMaps({260, 150}, {-2, -2}, {253, 183});
        const cv::Rect window(3, 5, 249, 137);
        cv::Mat expected;
        cv::remap(source, expected, map1(window), map2(window), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        for (const int threads : {1, 2, 3, 7, 200}) {
            SCOPED_TRACE(std::to_string(CV_MAT_CN(type)) + " channels, " + std::to_string(threads) + " stripes");
            cv::Mat canvas(160, 280, type, cv::Scalar::all(0x5A));
            cv::Mat actual = canvas(cv::Rect(17, 11, window.width, window.height));
            remapFixedBilinear(source, actual, map1(window), map2(window), threads);
            ASSERT_EQ(actual.data, canvas.ptr(11, 17));
            EXPECT_EQ(cv::norm(expected, actual, cv::NORM_INF), 0.0);
            // Nothing written around the region.
            actual.setTo(cv::Scalar::all(0x5A));
            EXPECT_EQ(cv::countNonZero(canvas.reshape(1) != 0x5A), 0);
        }
    }
}

TEST_P(FixedRemapTest, SourceAsItsOwnDestinationMatchesOpenCv) {
    const auto [map1, map2] = randomMaps({90, 60}, {-1, -1}, {90, 60});
    cv::Mat ours = randomImage({90, 60}, CV_8UC3);
    cv::Mat theirs = ours.clone();
    remapFixedBilinear(ours, ours, map1, map2);
    cv::remap(theirs, theirs, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    EXPECT_EQ(cv::norm(theirs, ours, cv::NORM_INF), 0.0);
}

std::string targetName(const testing::TestParamInfo<std::int64_t>& info) {
    return hwy::TargetName(info.param);
}

INSTANTIATE_TEST_SUITE_P(Targets, FixedRemapTest, testing::ValuesIn(hwy::SupportedAndGeneratedTargets()), targetName);

TEST(FixedRemapArgumentsTest, RefusesWhatItDoesNotCompute) {
    const cv::Mat map1(4, 4, CV_16SC2, cv::Scalar::all(1));
    const cv::Mat map2(4, 4, CV_16UC1, cv::Scalar::all(0));
    cv::Mat dst;
    for (const int type : {CV_8UC4, CV_8UC2, CV_16UC1, CV_32FC3}) {
        EXPECT_THROW(remapFixedBilinear(cv::Mat(4, 4, type), dst, map1, map2), cv::Exception) << type;
    }
    const cv::Mat image(4, 4, CV_8UC3, cv::Scalar::all(9));
    EXPECT_THROW(remapFixedBilinear(cv::Mat(), dst, map1, map2), cv::Exception);
    EXPECT_THROW(remapFixedBilinear(image, dst, map1, map2.rowRange(0, 3)), cv::Exception);
    cv::Mat floatMap;
    map1.convertTo(floatMap, CV_32FC2);
    EXPECT_THROW(remapFixedBilinear(image, dst, floatMap, map2), cv::Exception);
}

} // namespace
