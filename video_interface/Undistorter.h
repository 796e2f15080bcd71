#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace OVRA {

// Removes lens distortion from camera frames with the camera's fixed calibration: the output is
// byte for byte what cv::undistort gives with the same camera matrix and distortion coefficients
// (and no new camera matrix), but the remap tables are built once per frame size and reused for
// every later frame of that size (buildUndistortionMaps says how they match cv::undistort's). The
// tables do not depend on the pixel type, so a change of type alone reuses them. 8-bit frames of 1
// or 3 channels, the camera's, go through our own remap (remapFixedBilinear, the same bytes as
// cv::remap at a fraction of its time); any other type through cv::remap.
//
// Not shared between threads: the capture thread owns one.
class Undistorter {
public:
    // The calibration of the vehicle's camera.
    Undistorter();
    // Any 3 x 3 camera matrix and distortion vector that cv::undistort accepts.
    Undistorter(const cv::Mat& cameraMatrix, const cv::Mat& distortionCoefficients);

    // Undistorts source into destination, which must already have the source's size and type (it
    // may be a header over memory of its own, such as a shared frame slot: it is written in place,
    // never reallocated). Throws std::invalid_argument when the sizes or types differ and
    // cv::Exception for what cv::remap refuses. source and destination must not overlap.
    void undistort(const cv::Mat& source, cv::Mat& destination);

    // How many stripes of rows the remap works on at once, on OpenCV's thread pool. One, by default:
    // the capture has a frame's period to spare, and a second thread costs more CPU than it saves.
    void setThreads(int threads) { mThreads = threads; }

    // How many times the tables were built so far.
    std::uint64_t getMapBuildCount() const { return mMapBuildCount; }

    static cv::Mat defaultCameraMatrix();
    static cv::Mat defaultDistortionCoefficients();

private:
    void buildMaps(cv::Size size);

    cv::Mat mCameraMatrix;           // CV_64F, 3 x 3
    cv::Mat mDistortionCoefficients; // CV_64F
    cv::Size mMapSize;               // size the tables below were built for; empty before the first frame
    cv::Mat mMap1;                   // CV_16SC2
    cv::Mat mMap2;                   // CV_16UC1
    std::uint64_t mMapBuildCount = 0;
    int mThreads = 1;
};

} // namespace OVRA
