#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "communication/OVRAInterSystemMessages.h"
#include "tests/support/Pgm.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/Undistorter.h"

// Frames for the tests of the capture path: images to feed in, and the bytes the frame slot must
// hold afterwards, computed the plain way (cv::undistort, a zeroed slot, the header). Header-only,
// for the tests that link the video application (and with it OpenCV).
namespace vidapp::test {

// A grey image that differs from row to row, column to column and from one seed to the next.
inline cv::Mat patternImage(int width, int height, int seed) {
    cv::Mat image(height, width, CV_8UC1);
    for (int y = 0; y < height; ++y) {
        auto* row = image.ptr<std::uint8_t>(y);
        for (int x = 0; x < width; ++x) {
            row[x] = static_cast<std::uint8_t>((x + 3 * y + 37 * seed + (x * y) / 7) % 256);
        }
    }
    return image;
}

inline void writePgmImage(const std::string& path, const cv::Mat& image) {
    writePgm(path, static_cast<unsigned>(image.cols), static_cast<unsigned>(image.rows),
             std::vector<std::uint8_t>(image.datastart, image.dataend));
}

inline cv::Mat undistorted(const cv::Mat& image) {
    cv::Mat result;
    cv::undistort(image, result, OVRA::Undistorter::defaultCameraMatrix(),
                  OVRA::Undistorter::defaultDistortionCoefficients());
    return result;
}

// The whole slot after a frame: the undistorted image, zeros up to the header, the header, and
// four zero bytes.
inline std::vector<std::uint8_t> expectedSlot(const cv::Mat& image, std::uint64_t timestamp,
                                              std::uint32_t sequenceNumber) {
    std::vector<std::uint8_t> slot(sizeof(ISPFrame_t), 0);
    // Grey images come from PGM files, which vidapp stores in the camera's layout.
    cv::Mat bgr = image;
    if (image.channels() == 1) {
        cv::cvtColor(image, bgr, cv::COLOR_GRAY2BGR);
    }
    const cv::Mat pixels = undistorted(bgr);
    std::memcpy(slot.data(), pixels.data, pixels.total() * pixels.elemSize());
    ISPFrame_t header{};
    header.width = static_cast<std::uint32_t>(image.cols);
    header.height = static_cast<std::uint32_t>(image.rows);
    header.timestamp = timestamp;
    header.sequenceNumber = sequenceNumber;
    const std::size_t headerOffset = offsetof(ISPFrame_t, width);
    std::memcpy(slot.data() + headerOffset, reinterpret_cast<const std::uint8_t*>(&header) + headerOffset,
                sizeof(ISPFrame_t) - headerOffset);
    return slot;
}

// "" when equal, else where the first difference lies.
inline std::string firstDifference(const std::vector<std::uint8_t>& expected, const std::vector<std::uint8_t>& actual) {
    if (expected.size() != actual.size()) {
        return "sizes differ: " + std::to_string(expected.size()) + " and " + std::to_string(actual.size());
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (expected[i] != actual[i]) {
            return "first difference at byte " + std::to_string(i) + ": expected " + std::to_string(expected[i]) +
                   ", found " + std::to_string(actual[i]);
        }
    }
    return "";
}

inline OVRAInterSystemMessages::VideoInterfaceResults_t parseResults(const std::uint8_t* payload) {
    OVRAInterSystemMessages::VideoInterfaceResults_t results{};
    std::memcpy(&results, payload, sizeof(results));
    return results;
}

} // namespace vidapp::test
