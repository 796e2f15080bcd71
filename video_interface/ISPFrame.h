#pragma once

#include <cstddef>
#include <cstdint>

// One frame slot of the shared segment "IMAGE_FRAME": the pixels and a small header. Other
// processes map the same bytes, so the layout is fixed to the byte (little-endian).
struct ISPFrame_t {
    static constexpr std::size_t PIXELS_SIZE = 3072000;

    std::uint8_t pixels[PIXELS_SIZE]; // row after row, as many bytes as the image holds
    std::uint32_t width;              // columns
    std::uint32_t height;             // rows
    std::uint64_t timestamp;          // received time: microseconds / clock divisor
    std::uint32_t sequenceNumber;
    std::uint8_t reserved[4]; // zero
};

static_assert(sizeof(ISPFrame_t) == 3072024, "a frame slot is fixed by the consumer processes");
static_assert(offsetof(ISPFrame_t, width) == 3072000);
static_assert(offsetof(ISPFrame_t, height) == 3072004);
static_assert(offsetof(ISPFrame_t, timestamp) == 3072008);
static_assert(offsetof(ISPFrame_t, sequenceNumber) == 3072016);
static_assert(offsetof(ISPFrame_t, reserved) == 3072020);
