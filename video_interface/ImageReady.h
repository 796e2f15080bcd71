#pragma once

#include <cstddef>
#include <cstdint>

namespace OVRA::ImageSupport {

// Payload of the internal message IMAGE_FRAME_READY: tells a consumer which shared frame slot to
// read. The image area is sent as zeros; consumers read the pixels from the slot.
struct ImageReady_t {
    static constexpr std::size_t IMAGE_SIZE = 2764928;

    std::uint8_t image[IMAGE_SIZE];
    std::uint32_t sequenceNumber;  // from the slot header
    std::uint32_t bufferIndex;     // the slot of "IMAGE_FRAME" to read
    std::uint64_t receivedTime_ms; // from the slot header
    float cameraFramesRate_fps;
    std::uint8_t targetBuild;
    std::uint8_t reserved0;    // 0
    std::uint8_t reserved1[2]; // zero
};

static_assert(sizeof(ImageReady_t) == 2764952, "the ImageReady payload is fixed by the consumer processes");
static_assert(offsetof(ImageReady_t, sequenceNumber) == 2764928);
static_assert(offsetof(ImageReady_t, bufferIndex) == 2764932);
static_assert(offsetof(ImageReady_t, receivedTime_ms) == 2764936);
static_assert(offsetof(ImageReady_t, cameraFramesRate_fps) == 2764944);
static_assert(offsetof(ImageReady_t, targetBuild) == 2764948);
static_assert(offsetof(ImageReady_t, reserved0) == 2764949);
static_assert(offsetof(ImageReady_t, reserved1) == 2764950);

} // namespace OVRA::ImageSupport
