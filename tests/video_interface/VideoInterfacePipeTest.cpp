#include "video_interface/VideoInterfacePipe.h"

#include <gtest/gtest.h>

#include <cstring>
#include <malloc.h>
#include <vector>

#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"

// Which payloads the pipe takes and passes on is also checked by the fuzz target datagram_path_fuzz.
namespace {

using OVRAInterSystemMessages::CameraSupport_t;
using OVRAInterSystemMessages::VideoConsumerRegister_t;

class VideoInterfacePipeTest : public ::testing::Test, public OVRA::VideoInterfaceMessageListener {
protected:
    class InspectablePipe : public OVRA::VideoInterfacePipe {
    public:
        using VideoInterfacePipe::currentRecord;
        using VideoInterfacePipe::VideoInterfacePipe;
    };

    void SetUp() override { pipe.setMessageListener(this); }
    void processReceivedMessage(const CameraSupport_t& message) override { cameraSupport.push_back(message); }
    void processReceivedMessage(const OVRA::SystemApplicationStatus_t& message) override { status.push_back(message); }
    void processReceivedMessage(const VideoConsumerRegister_t& message) override { consumers.push_back(message); }

    // Writes a message whose payload bytes count 1, 2, 3, ...
    unsigned long write(std::uint32_t id, std::uint32_t payloadSize) {
        pdu.messageId = id;
        pdu.length = payloadSize + 16;
        for (std::uint32_t i = 0; i < payloadSize; ++i) {
            pdu.payload[i] = static_cast<std::uint8_t>(i + 1);
        }
        return pipe.write(pdu);
    }

    vidapp::test::LogCapture log;
    InspectablePipe pipe{4, 1};
    OVRA::PDUMessage_t pdu{};
    std::vector<CameraSupport_t> cameraSupport;
    std::vector<OVRA::SystemApplicationStatus_t> status;
    std::vector<VideoConsumerRegister_t> consumers;
};

TEST_F(VideoInterfacePipeTest, TakesItsThreeMessagesWithoutKeepingMemoryAndRefusesOthersWithItsOwnTexts) {
    const OVRA::VideoInterfaceInputAggregate_t& record = *pipe.currentRecord();
    EXPECT_EQ(write(OVRA::SYSTEM_APPLICATION_STATUS, 19), 19u);
    EXPECT_EQ(std::memcmp(&record.systemApplicationStatus, pdu.payload, 19), 0);
    EXPECT_EQ(std::memcmp(&record.cameraSupportData, pdu.payload, 19), 0) << "also over the camera support field";
    EXPECT_EQ(record.cameraSupportData.reserved1[8], 0u);
    EXPECT_EQ(write(OVRA::CAMERA_SUPPORT_DATA, 248), 248u);
    EXPECT_EQ(std::memcmp(&record.cameraSupportData, pdu.payload, 248), 0);
    EXPECT_EQ(write(OVRA::VIDEO_CONSUMER_REGISTER, 4), 4u);
    EXPECT_EQ(write(OVRA::VIDEO_CONSUMER_REGISTER, 1), 1u);
    ASSERT_EQ(status.size() + cameraSupport.size() + consumers.size(), 4u);
    EXPECT_EQ(status[0].applicationStatus[18], 19u);
    EXPECT_EQ(cameraSupport[0].rvcCameraOnStatus, 12u);
    EXPECT_EQ(consumers[1].consumerId, 1u);
    EXPECT_EQ(consumers[1].reserved[2], 0u) << "a short registration is passed on zero-filled";
    EXPECT_EQ(log.count("D: vidapp: writeToBuffer VideoInterfacePipe"), 4u);

    EXPECT_EQ(write(OVRA::CAMERA_SUPPORT_DATA, 249), 0u);
    EXPECT_EQ(write(OVRA::VIDEO_CONSUMER_REGISTER, 5), 0u);
    pdu.length = 8;
    EXPECT_EQ(pipe.write(pdu), 0u);
    EXPECT_EQ(pipe.writeToBuffer(OVRA::SYSTEM_APPLICATION_STATUS, pdu.payload, 20), 0u);
    vidapp::test::expectFailure<OVRA::InvalidMessageIDException>(
        [&] { write(OVRA::RECEIVED_IMAGE_DATA, 8); }, 1006,
        "Image Processing Unit Pipe.writeToBuffer(): Unexpected message received.. Invalid messageId: 0x1a");
    EXPECT_EQ(log.count("D: vidapp: [VIDEO_INTERFACE_PIPE] Rx RECEIVED_IMAGE_DATA"), 1u);
    vidapp::test::expectFailure<OVRA::InvalidMessageIDException>(
        [&] { pipe.writeToBuffer(0x80000008u, pdu.payload, 4); }, 1006,
        "VideoInteracePipe.writeToBuffer(): Unexpected message received. Invalid messageId: 0x80000008");
    EXPECT_EQ(status.size() + cameraSupport.size() + consumers.size(), 4u) << "nothing refused is passed on";

    // No copy of a payload outlives its message (ASan's leak check would see one too).
    log.word() = 0;
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        write(OVRA::CAMERA_SUPPORT_DATA, 248);
        cameraSupport.clear();
    }
    EXPECT_LT(mallinfo2().uordblks, before + 65536);
}

TEST_F(VideoInterfacePipeTest, ArmedPipeTriggersOnceAfterImageDataWasSeen) {
    const std::uint8_t consumer[4] = {17};
    pipe.setTriggerArmed(true);
    pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4);
    EXPECT_EQ(log.count("V: vidapp: [VIDEO_INTERFACE_PIPE] isTrigger-looking for RECEIVED_IMAGE_DATA messages"), 1u);
    EXPECT_THROW(write(OVRA::RECEIVED_IMAGE_DATA, 8), OVRA::InvalidMessageIDException);
    // Datagrams never fire the trigger, whatever the mark: their form of writeToBuffer does not look.
    EXPECT_EQ(write(OVRA::VIDEO_CONSUMER_REGISTER, 4) + write(OVRA::SYSTEM_APPLICATION_STATUS, 19) +
                  write(OVRA::CAMERA_SUPPORT_DATA, 248),
              4u + 19u + 248u);
    EXPECT_TRUE(pipe.isTriggerArmed());
    EXPECT_EQ(pipe.getMessagesTracker().getInternalMessagesTracked(), 0u);
    EXPECT_EQ(pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4), 4u);
    EXPECT_FALSE(pipe.isTriggerArmed());
    EXPECT_EQ(log.count("V: vidapp: [VIDEO_INTERFACE_PIPE] isTrigger-received RECEIVED_IMAGE_DATA messages"), 1u);
    EXPECT_EQ(log.count("V: vidapp: VideoInterfacePipe.writeToBuffer():triggering on message Id [0x8000001c]"), 1u);

    EXPECT_EQ(write(OVRA::CAMERA_SUPPORT_DATA, 248), 248u); // hands the completed record over
    EXPECT_EQ(pipe.read()->header.triggerMessageId, OVRA::VIDEO_CONSUMER_REGISTER);
    pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4);
    EXPECT_EQ(log.count("triggering on message Id"), 1u);
    EXPECT_EQ(log.count("V: vidapp: writeToBuffer(): Received Message ID [0x8000001c]"), 3u);
}

} // namespace
