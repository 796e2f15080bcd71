#include "video_interface/remap/FixedRemap.h"

#include <gtest/gtest.h>

#include <cstdint>
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

    // Ours against cv::remap itself, written into a region of a larger destination filled with
    // garbage first: in place, and nothing around it. inPlace: the region holds the source as well.
    static void expectSameAsOpenCv(const cv::Mat& src, const cv::Mat& map1, const cv::Mat& map2, int threads,
                                   bool inPlace = false) {
        cv::Mat expected;
        cv::remap(src, expected, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        cv::Mat canvas(map1.rows + 2, map1.cols + 2, src.type(), cv::Scalar::all(0x5A));
        cv::Mat actual = canvas(cv::Rect(1, 1, map1.cols, map1.rows));
        if (inPlace) {
            src.copyTo(actual);
        }
        remapFixedBilinear(inPlace ? actual : src, actual, map1, map2, threads);
        ASSERT_EQ(actual.data, canvas.ptr(1, 1));
        std::vector<cv::Point> where;
        cv::findNonZero(expected.reshape(1) != actual.reshape(1), where);
        EXPECT_TRUE(where.empty()) << where.size() << " bytes differ, the first at byte " << where[0].x << " of row "
                                   << where[0].y << ": " << int(expected.reshape(1).at<uchar>(where[0]))
                                   << " expected, " << int(actual.reshape(1).at<uchar>(where[0])) << " written";
        actual.setTo(cv::Scalar::all(0x5A));
        EXPECT_EQ(cv::countNonZero(canvas.reshape(1) != 0x5A), 0) << "written around the destination";
    }

    // A random image in memory of exactly its size (OpenCV pads its buffers), so that a read past
    // its end shows under AddressSanitizer.
    cv::Mat randomImage(cv::Size size, int type) {
        cv::Mat image(size, type, memory.emplace_back(size.area() * CV_ELEM_SIZE(type)).data());
        cv::randu(image, 0, 256);
        return image;
    }

    // Integer coordinates uniform in [low, high) of each axis, fraction indices over all 16 bits
    // (only the low 10 count).
    static std::tuple<cv::Mat, cv::Mat> randomMaps(cv::Size size, cv::Point low, cv::Point high) {
        cv::Mat map1(size, CV_16SC2);
        cv::Mat map2(size, CV_16UC1);
        cv::randu(map1, cv::Scalar(low.x, low.y), cv::Scalar(high.x, high.y));
        cv::randu(map2, 0, 65536);
        return {map1, map2};
    }

    std::vector<std::vector<uchar>> memory; // of the random images
};

TEST_P(FixedRemapTest, UndistortionMapsOfTheCameraMatchOpenCv) {
    for (const cv::Size size : {cv::Size(800, 1200), cv::Size(321, 243)}) {
        cv::Mat map1;
        cv::Mat map2;
        OVRA::buildUndistortionMaps(OVRA::Undistorter::defaultCameraMatrix(),
                                    OVRA::Undistorter::defaultDistortionCoefficients(), size, map1, map2);
        for (const int type : {CV_8UC3, CV_8UC1}) {
            for (const int threads : {1, 2}) {
                SCOPED_TRACE(testing::Message() << size << ", " << CV_MAT_CN(type) << " channels, " << threads);
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
    cv::theRNG().state = 20240611;
    for (const auto& [sourceSize, size, low, high] : cases) {
        for (const int type : {CV_8UC3, CV_8UC1}) {
            SCOPED_TRACE(testing::Message() << sourceSize << " to " << size << ", " << CV_MAT_CN(type) << " channels");
            const auto [map1, map2] = randomMaps(size, low, high);
            expectSameAsOpenCv(randomImage(sourceSize, type), map1, map2, 1);
        }
    }
}

TEST_P(FixedRemapTest, RegionsOfLargerImagesAnyNumberOfStripesAndInPlaceMatchOpenCv) {
    cv::theRNG().state = 7;
    for (const int type : {CV_8UC3, CV_8UC1}) {
        // Rows that do not follow each other in memory, for the source and both maps.
        const cv::Mat source = randomImage({300, 200}, type)(cv::Rect(13, 7, 251, 181));
        const auto [map1, map2] = randomMaps({260, 190}, {-2, -2}, {253, 183});
        for (const int threads : {1, 2, 3, 7, 200}) {
            SCOPED_TRACE(testing::Message() << CV_MAT_CN(type) << " channels, " << threads << " stripes");
            expectSameAsOpenCv(source, map1(cv::Rect(3, 5, 249, 137)), map2(cv::Rect(3, 5, 249, 137)), threads);
        }
        // The source as its own destination: the maps as large as the source.
        const cv::Rect same(3, 5, 251, 181);
        expectSameAsOpenCv(source, map1(same), map2(same), 3, true);
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FixedRemapTest, testing::ValuesIn(hwy::SupportedAndGeneratedTargets()),
                         [](const auto& target) { return hwy::TargetName(target.param); });

TEST(FixedRemapArgumentsTest, RefusesWhatItDoesNotCompute) {
    const cv::Mat map1(4, 4, CV_16SC2, cv::Scalar::all(1));
    const cv::Mat map2(4, 4, CV_16UC1, cv::Scalar::all(0));
    const cv::Mat image(4, 4, CV_8UC3, cv::Scalar::all(9));
    const std::tuple<cv::Mat, cv::Mat, cv::Mat, const char*> refused[] = {
        {cv::Mat(4, 4, CV_8UC4), map1, map2, "4 channels"},
        {cv::Mat(4, 4, CV_8UC2), map1, map2, "2 channels"},
        {cv::Mat(4, 4, CV_16UC1), map1, map2, "16-bit pixels"},
        {cv::Mat(4, 4, CV_32FC3), map1, map2, "float pixels"},
        {cv::Mat(), map1, map2, "no source"},
        {image, map1, map2.rowRange(0, 3), "maps of different sizes"},
        {image, cv::Mat(4, 4, CV_32FC2), map2, "a float map"},
        {image, map1, cv::Mat(4, 4, CV_16SC1), "signed fraction indices"},
    };
    for (const auto& [src, first, second, what] : refused) {
        cv::Mat dst;
        EXPECT_THROW(remapFixedBilinear(src, dst, first, second), cv::Exception) << what;
    }
}

} // namespace
