#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// Payload records that cross process boundaries, and the fixed payload size of every host
// message. All little-endian, laid out exactly as other processes read them.
namespace OVRAInterSystemMessages {

// Payload bytes of each host message ID 0..30; received host messages are checked against it.
inline constexpr std::array<std::uint64_t, 31> HOST_MESSAGE_SIZE = {
    0,   8920, 20,  136, 64,  720, 1068, 284,  2528, 2528, 2528,  2528, 5024, 4,  48, 60,
    248, 32,   472, 40,  836, 20,  492,  3804, 8,    600,  10096, 8,    1,    24, 32,
};

// VIDEO_INTERFACE_RESULTS (host message 29): one captured frame, written to slot 0.
struct VideoInterfaceResults_t {
    std::uint32_t bufferIndex; // always 0
    std::uint32_t imageWidth;
    std::uint32_t imageHeight;
    std::uint32_t sequenceNumber;
    std::uint64_t timestamp; // as in the slot header
};
static_assert(sizeof(VideoInterfaceResults_t) == 24);
static_assert(offsetof(VideoInterfaceResults_t, timestamp) == 16);

// CAMERA_SUPPORT_DATA (host message 16). Only the camera-on status is read by this process.
struct CameraSupport_t {
    std::uint8_t reserved0[11];
    std::uint8_t rvcCameraOnStatus;
    std::uint8_t reserved1[236];
};
static_assert(sizeof(CameraSupport_t) == 248);
static_assert(offsetof(CameraSupport_t, rvcCameraOnStatus) == 11);

// VIDEO_CONSUMER_REGISTER (internal message 0x8000001C): the consumer's source application.
struct VideoConsumerRegister_t {
    std::uint8_t consumerId; // SourceAppNames_e
    std::uint8_t reserved[3];
};
static_assert(sizeof(VideoConsumerRegister_t) == 4);

// APP_GUID_STATUS (internal message 0x8000002E): an application reporting its own state, the
// READY report to the launcher at start-up.
struct AppGUIDStatus_t {
    char guid[16];        // at most 7 characters of the application name, NUL-filled
    std::uint32_t status; // ApplicationStatus_e
};
static_assert(sizeof(AppGUIDStatus_t) == 20);

// VIDEO_INTERFACE_REGISTER_AGAIN (internal message 0x8000001D).
struct VideoInterfaceRegisterAgain_t {
    std::uint32_t reserved; // 0
};
static_assert(sizeof(VideoInterfaceRegisterAgain_t) == 4);

} // namespace OVRAInterSystemMessages
