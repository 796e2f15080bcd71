#pragma once

#include <opencv2/core.hpp>

namespace OVRA {

// Writes into dst exactly the bytes that
//     cv::remap(src, dst, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT)
// writes, for 8-bit images of 1 or 3 channels and fixed-point maps: map1 CV_16SC2 (integer x, y),
// map2 CV_16UC1 (fraction index: 5 bits of y fraction, then 5 bits of x fraction). Neighbours
// outside src count as 0, as OpenCV's constant border does. Only faster.
//
// dst is created like cv::remap creates it (map1's size, src's type): a header of the right size
// and type over memory of its own is written in place. src and dst may be the same Mat, as with
// cv::remap (src is then copied first); otherwise they must not overlap.
//
// threads: how many stripes of rows run at once on OpenCV's thread pool (bounded by
// cv::getNumThreads()); 1 or less keeps all the work on the calling thread.
//
// Throws cv::Exception for other types or for maps of different sizes.
void remapFixedBilinear(const cv::Mat& src, cv::Mat& dst, const cv::Mat& map1, const cv::Mat& map2, int threads = 1);

} // namespace OVRA
