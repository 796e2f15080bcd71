// Bilinear remap with fixed-point maps, byte for byte as cv::remap computes it.
//
// Every destination pixel is (sum of the 4 neighbours times their 15-bit weights + 2^14) >> 15,
// with the weights from a table built the way OpenCV builds its own, so the integer sums, and so
// the bytes, are the same. The speed comes from how the work is laid out, not from other
// arithmetic:
// - a first pass over a run of a row turns the (x, y) of the maps into byte offsets into the source
//   with wide vectors, and flags the pixels whose four neighbours are all inside;
// - for those, one 128-bit vector holds one pixel's sums (3 channels) or four pixels' sums
//   (1 channel): the neighbours come from plain loads at the offsets and one byte shuffle, the
//   weights from broadcast loads, and two multiply-adds of 16-bit pairs give the sums. Wider
//   vectors would cost more shuffles to fill than they save;
// - the few other pixels (near and beyond the border) go through the scalar exact path.
// The kernels are compiled for each instruction set Highway knows and picked at run time.

#include "video_interface/remap/FixedRemap.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include <opencv2/core/utility.hpp>

#include "video_interface/remap/FixedRemapInternal.h"

// The kernels work on 128-bit vectors, which NEON runs as well as SVE would; and Highway 1.0.3
// gets some 128-bit operations wrong on 256-bit SVE (ConcatEven). AArch64 takes the NEON kernels.
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "video_interface/remap/FixedRemap.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h> // must come before highway.h
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace OVRA::fixed_remap {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

void remapPixelsExact(const Job& job, const std::int16_t* xy, const std::uint16_t* fractions, int count,
                      std::uint8_t* out) {
    for (int i = 0; i < count; ++i, out += job.channels) {
        remapPixelExact(job, xy[2 * i], xy[2 * i + 1], fractions[i], out);
    }
}

#if HWY_TARGET == HWY_SCALAR

// No 128-bit vectors on this target: every pixel the exact way.
void remapRows(const Job& job, int rowBegin, int rowEnd) {
    for (int y = rowBegin; y < rowEnd; ++y) {
        remapPixelsExact(job, reinterpret_cast<const std::int16_t*>(job.map1 + y * job.map1Step),
                         reinterpret_cast<const std::uint16_t*>(job.map2 + y * job.map2Step), job.width,
                         job.dst + y * job.dstStep);
    }
}

#else

using V8 = hn::Vec<hn::Full128<std::uint8_t>>;
using V16 = hn::Vec<hn::Full128<std::int16_t>>;
using V32 = hn::Vec<hn::Full128<std::int32_t>>;

// Pixels of a row handled per first pass: what it computes for them stays in L1.
constexpr int RUN = 256;
// How many pixels ahead the source rows are prefetched: a row of an undistortion map follows a
// curve across many source rows, so the next cache lines are rarely the adjacent ones.
constexpr int PREFETCH_AHEAD = 32;

template <typename T> HWY_INLINE T loadScalar(const void* p) {
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

// What the first pass computes for a run of pixels.
struct Run {
    alignas(64) std::int32_t offsets[RUN];       // of the top left neighbour in the source, in bytes
    alignas(64) std::int32_t weightOffsets[RUN]; // of the pixel's 4 weights in the table, in bytes
    alignas(64) std::int32_t vectorOk[RUN];      // -1: all four neighbours and the vector loads inside
};

// The first pass over n pixels; returns whether all of them may take the vector path.
bool prepareRun(const Job& job, const std::int16_t* xy, const std::uint16_t* fractions, int n, Run& run) {
    const hn::ScalableTag<std::int32_t> d32;
    const hn::RebindToUnsigned<decltype(d32)> du32;
    const hn::Repartition<std::int16_t, decltype(d32)> d16;
    const hn::Rebind<std::uint16_t, decltype(d32)> du16;
    const int lanes = static_cast<int>(hn::Lanes(d32));
    const auto step = hn::Set(d32, static_cast<std::int32_t>(job.srcStep));
    const auto channels = hn::Set(d32, job.channels);
    // x < width - 1 and y < height - 1 compared unsigned also rejects negative coordinates.
    const auto xEnd = hn::Set(du32, static_cast<std::uint32_t>(job.srcWidth - 1));
    const auto yEnd = hn::Set(du32, static_cast<std::uint32_t>(job.srcHeight - 1));
    const auto offsetEnd = hn::Set(d32, job.vectorOffsetLimit + 1);
    const auto fractionMask = hn::Set(du32, FRACTION_MASK);
    bool all = true;
    int i = 0;
    for (; i + lanes <= n; i += lanes) {
        const auto pairs = hn::BitCast(d32, hn::LoadU(d16, xy + 2 * i));
        const auto x = hn::ShiftRight<16>(hn::ShiftLeft<16>(pairs));
        const auto y = hn::ShiftRight<16>(pairs);
        const auto offset = hn::Add(hn::Mul(y, step), hn::Mul(x, channels));
        const auto inside = hn::And(hn::RebindMask(d32, hn::Lt(hn::BitCast(du32, x), xEnd)),
                                    hn::RebindMask(d32, hn::Lt(hn::BitCast(du32, y), yEnd)));
        const auto ok = hn::And(inside, hn::Lt(offset, offsetEnd));
        const auto fraction = hn::And(hn::PromoteTo(du32, hn::LoadU(du16, fractions + i)), fractionMask);
        hn::Store(offset, d32, run.offsets + i);
        hn::Store(hn::BitCast(d32, hn::ShiftLeft<3>(fraction)), d32, run.weightOffsets + i);
        hn::Store(hn::VecFromMask(d32, ok), d32, run.vectorOk + i);
        all = all && hn::AllTrue(d32, ok);
    }
    for (; i < n; ++i) {
        const int x = xy[2 * i];
        const int y = xy[2 * i + 1];
        const std::int64_t offset =
            static_cast<std::int64_t>(y) * job.srcStep + static_cast<std::int64_t>(x) * job.channels;
        const bool ok = static_cast<unsigned>(x) < static_cast<unsigned>(job.srcWidth - 1) &&
                        static_cast<unsigned>(y) < static_cast<unsigned>(job.srcHeight - 1) &&
                        offset <= job.vectorOffsetLimit;
        run.offsets[i] = ok ? static_cast<std::int32_t>(offset) : 0;
        run.weightOffsets[i] = (fractions[i] & FRACTION_MASK) * 8;
        run.vectorOk[i] = ok ? -1 : 0;
        all = all && ok;
    }
    return all;
}

HWY_INLINE bool allOk(const std::int32_t* vectorOk, int count) {
    std::int32_t all = -1;
    for (int i = 0; i < count; ++i) {
        all &= vectorOk[i];
    }
    return all != 0;
}

// (top pairs . top weights + bottom pairs . bottom weights + 2^14) >> 15 for each 32-bit lane.
HWY_INLINE V32 weightedSum(V16 top, V16 topWeights, V16 bottom, V16 bottomWeights) {
    const hn::Full128<std::int32_t> d32;
    auto odd = hn::Zero(d32);
    auto sum = hn::ReorderWidenMulAccumulate(d32, top, topWeights, hn::Zero(d32), odd);
    sum = hn::ReorderWidenMulAccumulate(d32, bottom, bottomWeights, sum, odd);
    return hn::ShiftRight<COEF_BITS>(hn::Add(hn::RearrangeToOddPlusEven(sum, odd), hn::Set(d32, ROUND)));
}

// Where the kernels read: the source from the top row of the neighbours and from the bottom row,
// and the weight table, all as bytes.
struct Sources {
    const std::uint8_t* top;
    const std::uint8_t* bottom;
    const std::uint8_t* weights;
};

// One 3-channel pixel: lanes 0..2 hold its channels, lane 3 is 0.
HWY_INLINE V32 pixelC3(const Sources& from, std::int32_t offset, std::int32_t weightOffset, V8 pairUp) {
    const hn::Full128<std::uint8_t> d8;
    const hn::Full64<std::uint8_t> d8h;
    const hn::Full128<std::int16_t> d16;
    const hn::Full128<std::int32_t> d32;
    // 8 bytes from each row: the left neighbour's 3 channels, the right one's, 2 unused.
    const auto top = hn::ZeroExtendVector(d8, hn::LoadU(d8h, from.top + offset));
    const auto bottom = hn::ZeroExtendVector(d8, hn::LoadU(d8h, from.bottom + offset));
    const std::uint8_t* w = from.weights + weightOffset;
    return weightedSum(hn::BitCast(d16, hn::TableLookupBytesOr0(top, pairUp)),
                       hn::BitCast(d16, hn::Set(d32, loadScalar<std::int32_t>(w))),
                       hn::BitCast(d16, hn::TableLookupBytesOr0(bottom, pairUp)),
                       hn::BitCast(d16, hn::Set(d32, loadScalar<std::int32_t>(w + 4))));
}

// Four 3-channel pixels as 12 bytes (and 4 zeros after them).
HWY_INLINE V8 groupC3(const Sources& from, const std::int32_t* offsets, const std::int32_t* weightOffsets, V8 pairUp,
                      V8 compact) {
    const hn::Full128<std::uint8_t> d8;
    const hn::Full128<std::uint32_t> du32;
    const auto p0 = hn::BitCast(du32, pixelC3(from, offsets[0], weightOffsets[0], pairUp));
    const auto p1 = hn::BitCast(du32, pixelC3(from, offsets[1], weightOffsets[1], pairUp));
    const auto p2 = hn::BitCast(du32, pixelC3(from, offsets[2], weightOffsets[2], pairUp));
    const auto p3 = hn::BitCast(du32, pixelC3(from, offsets[3], weightOffsets[3], pairUp));
    // Every value is below 256: lane c gets channel c of the four pixels, one per byte.
    const auto channels =
        hn::Or(hn::Or(p0, hn::ShiftLeft<8>(p1)), hn::Or(hn::ShiftLeft<16>(p2), hn::ShiftLeft<24>(p3)));
    return hn::TableLookupBytesOr0(hn::BitCast(d8, channels), compact);
}

HWY_INLINE void storeGroupC3(V8 packed, std::uint8_t* target) {
    const hn::Full128<std::uint8_t> d8;
    alignas(16) std::uint8_t buffer[16];
    hn::Store(packed, d8, buffer);
    std::memcpy(target, buffer, 12);
}

void remapRunC3(const Job& job, const std::int16_t* xy, const std::uint16_t* fractions, int n, bool allVector,
                const Run& run, std::uint8_t* out, int pixelsAfterRun) {
    const hn::Full128<std::uint8_t> d8;
    constexpr std::uint8_t Z = 0x80; // a shuffle index that yields 0
    // Neighbour bytes to 16-bit (left, right) pairs: blue, green, red, then zeros.
    alignas(16) static constexpr std::uint8_t PAIR_UP[16] = {0, Z, 3, Z, 1, Z, 4, Z, 2, Z, 5, Z, Z, Z, Z, Z};
    // Lanes of channels to pixels of 3 bytes.
    alignas(16) static constexpr std::uint8_t COMPACT[16] = {0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, Z, Z, Z, Z};
    const auto pairUp = hn::Load(d8, PAIR_UP);
    const auto compact = hn::Load(d8, COMPACT);
    const Sources from{job.src, job.src + job.srcStep, reinterpret_cast<const std::uint8_t*>(job.weights)};
    // A group's 16-byte store reaches 4 bytes into the next pixels, which are written after it; the
    // groups that end less than 2 pixels before the end of the row store their 12 bytes alone.
    const int overlapEnd = std::min(n, n + pixelsAfterRun - 2);
    int i = 0;
    if (allVector) {
        for (; i + 8 <= overlapEnd; i += 8) {
            hwy::Prefetch(from.top + run.offsets[std::min(i + PREFETCH_AHEAD, n - 1)]);
            hwy::Prefetch(from.bottom + run.offsets[std::min(i + PREFETCH_AHEAD, n - 1)]);
            hn::StoreU(groupC3(from, run.offsets + i, run.weightOffsets + i, pairUp, compact), d8, out + 3 * i);
            hn::StoreU(groupC3(from, run.offsets + i + 4, run.weightOffsets + i + 4, pairUp, compact), d8,
                       out + 3 * i + 12);
        }
    }
    for (; i + 4 <= n; i += 4) {
        if (!allVector && !allOk(run.vectorOk + i, 4)) {
            remapPixelsExact(job, xy + 2 * i, fractions + i, 4, out + 3 * i);
            continue;
        }
        const auto packed = groupC3(from, run.offsets + i, run.weightOffsets + i, pairUp, compact);
        if (i + 4 <= overlapEnd) {
            hn::StoreU(packed, d8, out + 3 * i);
        } else {
            storeGroupC3(packed, out + 3 * i);
        }
    }
    remapPixelsExact(job, xy + 2 * i, fractions + i, n - i, out + 3 * i);
}

// Four 1-channel pixels, one per 32-bit lane.
HWY_INLINE V32 quadC1(const Sources& from, const std::int32_t* offsets, const std::int32_t* weightOffsets, V8 pairUp) {
    const hn::Full128<std::uint8_t> d8;
    const hn::Full128<std::int16_t> d16;
    const hn::Full128<std::int32_t> d32;
    const hn::Full128<std::uint64_t> d64;
    const hn::Full64<std::uint64_t> d64h;
    // 4 bytes from each row per pixel, its two neighbours first.
    const auto row = [&](const std::uint8_t* base) {
        auto v = hn::Set(d32, loadScalar<std::int32_t>(base + offsets[0]));
        v = hn::InsertLane(v, 1, loadScalar<std::int32_t>(base + offsets[1]));
        v = hn::InsertLane(v, 2, loadScalar<std::int32_t>(base + offsets[2]));
        return hn::BitCast(d8, hn::InsertLane(v, 3, loadScalar<std::int32_t>(base + offsets[3])));
    };
    const auto weights = [&](int k) {
        return hn::Set(d64h, loadScalar<std::uint64_t>(from.weights + weightOffsets[k]));
    };
    // Per pixel (top pair, bottom pair) of weights; split into the top pairs and the bottom pairs.
    const auto w01 = hn::BitCast(d32, hn::Combine(d64, weights(1), weights(0)));
    const auto w23 = hn::BitCast(d32, hn::Combine(d64, weights(3), weights(2)));
    return weightedSum(hn::BitCast(d16, hn::TableLookupBytesOr0(row(from.top), pairUp)),
                       hn::BitCast(d16, hn::ConcatEven(d32, w23, w01)),
                       hn::BitCast(d16, hn::TableLookupBytesOr0(row(from.bottom), pairUp)),
                       hn::BitCast(d16, hn::ConcatOdd(d32, w23, w01)));
}

void remapRunC1(const Job& job, const std::int16_t* xy, const std::uint16_t* fractions, int n, bool allVector,
                const Run& run, std::uint8_t* out) {
    const hn::Full128<std::uint8_t> d8;
    const hn::Full64<std::uint8_t> d8h;
    const hn::Full128<std::uint32_t> du32;
    constexpr std::uint8_t Z = 0x80;
    // The two neighbour bytes of each 32-bit lane to a 16-bit pair.
    alignas(16) static constexpr std::uint8_t PAIR_UP[16] = {0, Z, 1, Z, 4, Z, 5, Z, 8, Z, 9, Z, 12, Z, 13, Z};
    // Lanes holding pixels k and k + 4 to 8 pixels in order.
    alignas(16) static constexpr std::uint8_t ORDER[16] = {0, 4, 8, 12, 1, 5, 9, 13, Z, Z, Z, Z, Z, Z, Z, Z};
    const auto pairUp = hn::Load(d8, PAIR_UP);
    const auto order = hn::Load(d8, ORDER);
    const Sources from{job.src, job.src + job.srcStep, reinterpret_cast<const std::uint8_t*>(job.weights)};
    const auto octet = [&](int i) {
        const auto q0 = hn::BitCast(du32, quadC1(from, run.offsets + i, run.weightOffsets + i, pairUp));
        const auto q1 = hn::BitCast(du32, quadC1(from, run.offsets + i + 4, run.weightOffsets + i + 4, pairUp));
        // Every value is below 256.
        const auto bytes = hn::TableLookupBytesOr0(hn::BitCast(d8, hn::Or(q0, hn::ShiftLeft<8>(q1))), order);
        hn::StoreU(hn::LowerHalf(d8h, bytes), d8h, out + i);
    };
    int i = 0;
    if (allVector) {
        for (; i + 16 <= n; i += 16) {
            octet(i);
            octet(i + 8);
        }
    }
    for (; i + 8 <= n; i += 8) {
        if (allVector || allOk(run.vectorOk + i, 8)) {
            octet(i);
        } else {
            remapPixelsExact(job, xy + 2 * i, fractions + i, 8, out + i);
        }
    }
    remapPixelsExact(job, xy + 2 * i, fractions + i, n - i, out + i);
}

void remapRows(const Job& job, int rowBegin, int rowEnd) {
    Run run;
    for (int y = rowBegin; y < rowEnd; ++y) {
        const auto* xyRow = reinterpret_cast<const std::int16_t*>(job.map1 + y * job.map1Step);
        const auto* fractionRow = reinterpret_cast<const std::uint16_t*>(job.map2 + y * job.map2Step);
        std::uint8_t* outRow = job.dst + y * job.dstStep;
        for (int x = 0; x < job.width; x += RUN) {
            const int n = std::min(RUN, job.width - x);
            const bool allVector = prepareRun(job, xyRow + 2 * x, fractionRow + x, n, run);
            if (job.channels == 3) {
                remapRunC3(job, xyRow + 2 * x, fractionRow + x, n, allVector, run, outRow + 3 * x, job.width - x - n);
            } else {
                remapRunC1(job, xyRow + 2 * x, fractionRow + x, n, allVector, run, outRow + x);
            }
        }
    }
}

#endif // HWY_TARGET == HWY_SCALAR

} // namespace HWY_NAMESPACE
} // namespace OVRA::fixed_remap
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace OVRA {

namespace fixed_remap {

HWY_EXPORT(remapRows);

void remapRowsDispatched(const Job& job, int rowBegin, int rowEnd) {
    HWY_DYNAMIC_DISPATCH(remapRows)(job, rowBegin, rowEnd);
}

namespace {

constexpr int TAB_SIZE = 32;

// OpenCV's initInterTab2D for INTER_LINEAR: float products of the 1-D weights (1 - t, t) scaled to
// 15 bits and saturated to short, so the whole-pixel entry 0 gets 32767. An entry whose sum is off
// is corrected at the largest (or smallest) weight of the 2 x 2 block that starts at kernel index
// ksize / 2 = 1, which for this 2-tap kernel reaches 3 shorts past the entry into the next one, not
// yet filled (zero). Entry 0 thus becomes {32767, 0, 0, 1}; the same steps give the same table.
// 4 spare zeros at the end keep that look-ahead inside the table for the last entry.
std::array<std::int16_t, TAB_SIZE * TAB_SIZE * 4 + 4> buildWeights() {
    std::array<std::int16_t, TAB_SIZE * TAB_SIZE * 4 + 4> table{};
    float oneD[TAB_SIZE * 2];
    const float scale = 1.f / TAB_SIZE;
    for (int i = 0; i < TAB_SIZE; ++i) {
        const float t = static_cast<float>(i) * scale;
        oneD[i * 2] = 1.f - t;
        oneD[i * 2 + 1] = t;
    }
    constexpr int KSIZE = 2;
    for (int i = 0; i < TAB_SIZE; ++i) {
        for (int j = 0; j < TAB_SIZE; ++j) {
            std::int16_t* itab = table.data() + (i * TAB_SIZE + j) * KSIZE * KSIZE;
            int isum = 0;
            for (int k1 = 0; k1 < KSIZE; ++k1) {
                const float vy = oneD[i * KSIZE + k1];
                for (int k2 = 0; k2 < KSIZE; ++k2) {
                    const float v = vy * oneD[j * KSIZE + k2];
                    itab[k1 * KSIZE + k2] = cv::saturate_cast<short>(v * (1 << COEF_BITS));
                    isum += itab[k1 * KSIZE + k2];
                }
            }
            if (isum != (1 << COEF_BITS)) {
                const int diff = isum - (1 << COEF_BITS);
                const int ksize2 = KSIZE / 2;
                int maxK1 = ksize2, maxK2 = ksize2, minK1 = ksize2, minK2 = ksize2;
                for (int k1 = ksize2; k1 < ksize2 + 2; ++k1) {
                    for (int k2 = ksize2; k2 < ksize2 + 2; ++k2) {
                        if (itab[k1 * KSIZE + k2] < itab[minK1 * KSIZE + minK2]) {
                            minK1 = k1, minK2 = k2;
                        } else if (itab[k1 * KSIZE + k2] > itab[maxK1 * KSIZE + maxK2]) {
                            maxK1 = k1, maxK2 = k2;
                        }
                    }
                }
                if (diff < 0) {
                    itab[maxK1 * KSIZE + maxK2] = static_cast<std::int16_t>(itab[maxK1 * KSIZE + maxK2] - diff);
                } else {
                    itab[minK1 * KSIZE + minK2] = static_cast<std::int16_t>(itab[minK1 * KSIZE + minK2] - diff);
                }
            }
        }
    }
    return table;
}

} // namespace

const std::int16_t* bilinearWeights() {
    static const auto table = buildWeights();
    return table.data();
}

} // namespace fixed_remap

void remapFixedBilinear(const cv::Mat& src, cv::Mat& dst, const cv::Mat& map1, const cv::Mat& map2, int threads) {
    CV_Assert(src.dims <= 2 && (src.type() == CV_8UC1 || src.type() == CV_8UC3) && !src.empty());
    CV_Assert(map1.dims <= 2 && map1.type() == CV_16SC2 && map2.type() == CV_16UC1 && map1.size() == map2.size());
    // Written in place, the source would change under the reads.
    const cv::Mat source = src.data == dst.data ? src.clone() : src;
    dst.create(map1.size(), source.type());
    if (dst.empty()) {
        return;
    }
    fixed_remap::Job job{};
    job.src = source.data;
    job.srcStep = static_cast<std::ptrdiff_t>(source.step);
    job.srcWidth = source.cols;
    job.srcHeight = source.rows;
    job.channels = source.channels();
    // The vector path reads 8 bytes from each of the two rows at an offset: at most this offset
    // keeps them inside the source's last row.
    const std::int64_t sourceBytes = static_cast<std::int64_t>(source.rows - 1) * job.srcStep +
                                     static_cast<std::int64_t>(source.cols) * job.channels;
    const std::int64_t limit = sourceBytes - job.srcStep - 8;
    job.vectorOffsetLimit =
        sourceBytes <= std::numeric_limits<std::int32_t>::max() && limit >= 0 ? static_cast<std::int32_t>(limit) : -1;
    job.map1 = map1.data;
    job.map1Step = static_cast<std::ptrdiff_t>(map1.step);
    job.map2 = map2.data;
    job.map2Step = static_cast<std::ptrdiff_t>(map2.step);
    job.dst = dst.data;
    job.dstStep = static_cast<std::ptrdiff_t>(dst.step);
    job.width = dst.cols;
    job.weights = fixed_remap::bilinearWeights();
    if (threads <= 1 || dst.rows < 2) {
        fixed_remap::remapRowsDispatched(job, 0, dst.rows);
        return;
    }
    cv::parallel_for_(
        cv::Range(0, dst.rows),
        [&job](const cv::Range& rows) { fixed_remap::remapRowsDispatched(job, rows.start, rows.end); }, threads);
}

} // namespace OVRA

#endif // HWY_ONCE
