#pragma once

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

#include "video_interface/ISPFrame.h"
#include "video_interface/Undistorter.h"

namespace OVRA {

// Writes camera frames into one frame slot: the undistorted image straight into the slot's pixels,
// zeros over whatever an earlier, larger image left beyond it, then the header. The capture loop and
// the benchmarks store frames through it, so both write the very same bytes.
//
// Used by one thread at a time (the capture's).
class FrameSlotWriter {
public:
    explicit FrameSlotWriter(Undistorter& undistorter) : mUndistorter(undistorter) {}

    // frame must fit the slot (frame.total() * frame.elemSize() <= ISPFrame_t::PIXELS_SIZE).
    void write(const cv::Mat& frame, ISPFrame_t& slot, std::uint64_t timestamp_us, std::uint32_t sequenceNumber);

    // The slot may hold anything: the next write clears all the pixels its image does not cover.
    void forgetSlot() { mDirtyBytes = ISPFrame_t::PIXELS_SIZE; }

private:
    Undistorter& mUndistorter;
    // Bytes of the slot's pixels that may not be zero: all of them until a write has cleared them.
    std::size_t mDirtyBytes = ISPFrame_t::PIXELS_SIZE;
};

} // namespace OVRA
