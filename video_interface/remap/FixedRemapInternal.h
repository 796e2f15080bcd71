#pragma once

// What the per-instruction-set kernels of FixedRemap.cpp share.

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace OVRA::fixed_remap {

constexpr int COEF_BITS = 15;       // weights are fixed point with 15 fraction bits
constexpr int FRACTION_MASK = 1023; // 32 x 32 sub-pixel positions
constexpr int ROUND = 1 << (COEF_BITS - 1);

// 1024 entries of 4 weights (top left, top right, bottom left, bottom right), built as OpenCV
// builds the table cv::remap uses, so that each sum rounds the same way.
const std::int16_t* bilinearWeights();

struct Job {
    const std::uint8_t* src;
    std::ptrdiff_t srcStep;
    int srcWidth;
    int srcHeight;
    int channels; // 1 or 3
    // Largest source offset whose vector loads (the two rows of 8 bytes from it) stay inside src;
    // negative when offsets do not fit 32 bits, which sends every pixel down the exact scalar path.
    std::int32_t vectorOffsetLimit;
    const std::uint8_t* map1;
    std::ptrdiff_t map1Step;
    const std::uint8_t* map2;
    std::ptrdiff_t map2Step;
    std::uint8_t* dst;
    std::ptrdiff_t dstStep;
    int width; // of dst and the maps
    const std::int16_t* weights;
};

// One pixel the way OpenCV computes a pixel whose neighbours may lie outside the source: those
// count as 0.
inline void remapPixelExact(const Job& job, int sx, int sy, unsigned fraction, std::uint8_t* out) {
    const int cn = job.channels;
    if (sx >= job.srcWidth || sx + 1 < 0 || sy >= job.srcHeight || sy + 1 < 0) {
        std::fill(out, out + cn, std::uint8_t{0});
        return;
    }
    const std::int16_t* w = job.weights + (fraction & FRACTION_MASK) * 4;
    const bool left = sx >= 0;
    const bool right = sx + 1 < job.srcWidth;
    const std::uint8_t* top = sy >= 0 ? job.src + sy * job.srcStep : nullptr;
    const std::uint8_t* bottom = sy + 1 < job.srcHeight ? job.src + (sy + 1) * job.srcStep : nullptr;
    const auto at = [cn](const std::uint8_t* row, bool inside, int x, int c) {
        return row != nullptr && inside ? row[x * cn + c] : 0;
    };
    for (int c = 0; c < cn; ++c) {
        const int sum = at(top, left, sx, c) * w[0] + at(top, right, sx + 1, c) * w[1] +
                        at(bottom, left, sx, c) * w[2] + at(bottom, right, sx + 1, c) * w[3];
        out[c] = static_cast<std::uint8_t>(std::clamp((sum + ROUND) >> COEF_BITS, 0, 255));
    }
}

} // namespace OVRA::fixed_remap
