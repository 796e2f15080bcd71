#include "video_interface/FrameSlotWriter.h"

#include <algorithm>
#include <cstring>

namespace OVRA {

void FrameSlotWriter::write(const cv::Mat& frame, ISPFrame_t& slot, std::uint64_t timestamp_us,
                            std::uint32_t sequenceNumber) {
    const std::size_t imageBytes = frame.total() * frame.elemSize();
    const std::size_t dirtyBytes = std::max(mDirtyBytes, imageBytes);
    mDirtyBytes = dirtyBytes; // also right when the undistortion fails half way
    cv::Mat pixels(frame.rows, frame.cols, frame.type(), slot.pixels);
    mUndistorter.undistort(frame, pixels);
    std::memset(slot.pixels + imageBytes, 0, dirtyBytes - imageBytes);
    mDirtyBytes = imageBytes;
    slot.width = static_cast<std::uint32_t>(frame.cols);
    slot.height = static_cast<std::uint32_t>(frame.rows);
    slot.timestamp = timestamp_us;
    slot.sequenceNumber = sequenceNumber;
    std::memset(slot.reserved, 0, sizeof(slot.reserved));
}

} // namespace OVRA
