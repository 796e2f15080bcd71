#include "video_interface/VideoInterfacePipe.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/OVRAException.h"
#include "tests/support/LogCapture.h"

namespace {

using OVRAInterSystemMessages::CameraSupport_t;
using OVRAInterSystemMessages::VideoConsumerRegister_t;

class RecordingListener : public OVRA::VideoInterfaceMessageListener {
public:
    void processReceivedMessage(const CameraSupport_t& message) override { cameraSupport.push_back(message); }
    void processReceivedMessage(const OVRA::SystemApplicationStatus_t& message) override {
        applicationStatus.push_back(message);
    }
    void processReceivedMessage(const VideoConsumerRegister_t& message) override {
        consumerRegister.push_back(message);
    }

    std::size_t calls() const { return cameraSupport.size() + applicationStatus.size() + consumerRegister.size(); }

    std::vector<CameraSupport_t> cameraSupport;
    std::vector<OVRA::SystemApplicationStatus_t> applicationStatus;
    std::vector<VideoConsumerRegister_t> consumerRegister;
};

// Shows the record being filled.
class InspectablePipe : public OVRA::VideoInterfacePipe {
public:
    using VideoInterfacePipe::currentRecord;
    using VideoInterfacePipe::VideoInterfacePipe;
};

class VideoInterfacePipeTest : public ::testing::Test {
protected:
    void SetUp() override { pipe.setMessageListener(&listener); }

    // A message whose payload bytes count 1, 2, 3, ...
    const OVRA::PDUMessage_t& message(std::uint32_t id, std::uint32_t payloadSize) {
        pdu.messageId = id;
        pdu.length = payloadSize + 16;
        for (std::uint32_t i = 0; i < payloadSize; ++i) {
            pdu.payload[i] = static_cast<std::uint8_t>(i + 1);
        }
        return pdu;
    }

    static std::uint32_t codeOf(const std::function<void()>& call, std::string& text) {
        try {
            call();
        } catch (const OVRA::InvalidMessageIDException& e) {
            text = e.what();
            return e.getCode();
        }
        return 0;
    }

    vidapp::test::LogCapture log;
    InspectablePipe pipe{4, 1};
    RecordingListener listener;
    OVRA::PDUMessage_t pdu{};
};

TEST_F(VideoInterfacePipeTest, CameraSupportDataIsStoredAndHandedToTheListener) {
    EXPECT_EQ(pipe.write(message(OVRA::CAMERA_SUPPORT_DATA, 248)), 248u);

    ASSERT_EQ(listener.cameraSupport.size(), 1u);
    EXPECT_EQ(listener.cameraSupport[0].rvcCameraOnStatus, 12u);
    EXPECT_EQ(std::memcmp(&pipe.currentRecord()->cameraSupportData, pdu.payload, 248), 0);
    EXPECT_EQ(log.count("D: vidapp: writeToBuffer VideoInterfacePipe"), 1u) << log.dump();
}

TEST_F(VideoInterfacePipeTest, ApplicationStatusAlsoLandsOverTheCameraSupportField) {
    EXPECT_EQ(pipe.write(message(OVRA::SYSTEM_APPLICATION_STATUS, 19)), 19u);

    ASSERT_EQ(listener.applicationStatus.size(), 1u);
    EXPECT_EQ(listener.applicationStatus[0].applicationStatus[18], 19u);
    const OVRA::VideoInterfaceInputAggregate_t& record = *pipe.currentRecord();
    EXPECT_EQ(std::memcmp(&record.systemApplicationStatus, pdu.payload, 19), 0);
    EXPECT_EQ(std::memcmp(&record.cameraSupportData, pdu.payload, 19), 0);
    EXPECT_EQ(record.cameraSupportData.reserved1[8], 0u);
}

TEST_F(VideoInterfacePipeTest, ConsumerRegisterTakesOneToFourBytes) {
    EXPECT_EQ(pipe.write(message(OVRA::VIDEO_CONSUMER_REGISTER, 4)), 4u);
    EXPECT_EQ(pipe.write(message(OVRA::VIDEO_CONSUMER_REGISTER, 1)), 1u);

    ASSERT_EQ(listener.consumerRegister.size(), 2u);
    EXPECT_EQ(listener.consumerRegister[1].consumerId, 1u);
    EXPECT_EQ(listener.consumerRegister[1].reserved[2], 0u);
}

TEST_F(VideoInterfacePipeTest, WrongSizesAreNotTaken) {
    pipe.setMessageListener(nullptr);
    pipe.write(message(OVRA::CAMERA_SUPPORT_DATA, 248));
    pipe.setMessageListener(&listener);
    const OVRA::VideoInterfaceInputAggregate_t before = *pipe.currentRecord();

    for (const auto& [id, size] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
             {16, 247}, {16, 249}, {0x80000004, 18}, {0x80000004, 20}, {0x8000001C, 0}, {0x8000001C, 5}}) {
        EXPECT_EQ(pipe.write(message(id, size)), 0u) << id << " " << size;
    }
    pdu.length = 8;
    EXPECT_EQ(pipe.write(pdu), 0u);

    EXPECT_EQ(listener.calls(), 0u);
    const OVRA::VideoInterfaceInputAggregate_t& after = *pipe.currentRecord();
    constexpr std::size_t fields =
        sizeof(after.systemApplicationStatus) + sizeof(after.videoConsumerRegister) + sizeof(after.cameraSupportData);
    EXPECT_EQ(std::memcmp(&before.systemApplicationStatus, &after.systemApplicationStatus, fields), 0);
}

TEST_F(VideoInterfacePipeTest, OtherMessagesAreRefusedWith1006AndImageDataIsMarkedFirst) {
    std::string text;
    EXPECT_EQ(codeOf([&] { pipe.write(message(OVRA::VIDEO_INTERFACE_RESULTS, 24)); }, text), 1006u);
    EXPECT_EQ(text,
              "Image Processing Unit Pipe.writeToBuffer(): Unexpected message received.. Invalid messageId: 0x1d");
    EXPECT_EQ(codeOf([&] { pipe.write(message(OVRA::RECEIVED_IMAGE_DATA, 8)); }, text), 1006u);
    EXPECT_EQ(text,
              "Image Processing Unit Pipe.writeToBuffer(): Unexpected message received.. Invalid messageId: 0x1a");
    EXPECT_EQ(log.count("D: vidapp: [VIDEO_INTERFACE_PIPE] Rx RECEIVED_IMAGE_DATA"), 1u) << log.dump();

    EXPECT_EQ(codeOf([&] { pipe.writeToBuffer(0x80000008u, pdu.payload, 4); }, text), 1006u);
    EXPECT_EQ(text, "VideoInteracePipe.writeToBuffer(): Unexpected message received. Invalid messageId: 0x80000008");
    EXPECT_EQ(listener.calls(), 0u);
}

TEST_F(VideoInterfacePipeTest, MessageIdFormCopiesIntoTheFieldOfTheId) {
    const std::uint8_t status[19] = {3, 3, 3};

    EXPECT_EQ(pipe.writeToBuffer(OVRA::SYSTEM_APPLICATION_STATUS, status, sizeof(status)), 19u);
    EXPECT_EQ(pipe.writeToBuffer(OVRA::CAMERA_SUPPORT_DATA, status, 249), 0u);

    const OVRA::VideoInterfaceInputAggregate_t& record = *pipe.currentRecord();
    EXPECT_EQ(record.systemApplicationStatus.applicationStatus[2], OVRA::RUNNING);
    EXPECT_EQ(record.cameraSupportData.reserved0[0], 0u);
    EXPECT_EQ(log.count("V: vidapp: writeToBuffer(): Received Message ID [0x80000004]"), 1u) << log.dump();
    EXPECT_EQ(listener.calls(), 0u);
}

TEST_F(VideoInterfacePipeTest, ArmedPipeTriggersOnceAfterImageDataWasSeen) {
    const std::uint8_t consumer[4] = {17};
    pipe.setTriggerArmed(true);
    pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4);
    EXPECT_EQ(log.count("V: vidapp: [VIDEO_INTERFACE_PIPE] isTrigger-looking for RECEIVED_IMAGE_DATA messages"), 1u)
        << log.dump();
    EXPECT_THROW(pipe.write(message(OVRA::RECEIVED_IMAGE_DATA, 8)), OVRA::InvalidMessageIDException);

    EXPECT_EQ(pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4), 4u);
    EXPECT_FALSE(pipe.isTriggerArmed());
    EXPECT_EQ(log.count("V: vidapp: [VIDEO_INTERFACE_PIPE] isTrigger-received RECEIVED_IMAGE_DATA messages"), 1u);
    EXPECT_EQ(log.count("V: vidapp: VideoInterfacePipe.writeToBuffer():triggering on message Id [0x8000001c]"), 1u);

    // The next message written hands the completed record over.
    EXPECT_EQ(pipe.write(message(OVRA::CAMERA_SUPPORT_DATA, 248)), 248u);
    const OVRA::VideoInterfaceInputAggregate_t* handed = pipe.read();
    EXPECT_EQ(handed->header.triggerMessageId, OVRA::VIDEO_CONSUMER_REGISTER);
    EXPECT_EQ(handed->videoConsumerRegister.consumerId, 17u);
    pipe.releaseReader();
    EXPECT_EQ(pipe.getMessagesTracker().getInternalMessages()[0x1c].count, 1u);

    pipe.writeToBuffer(OVRA::VIDEO_CONSUMER_REGISTER, consumer, 4);
    EXPECT_EQ(log.count("triggering on message Id"), 1u);
    EXPECT_EQ(log.count("isTrigger-"), 2u);
}

} // namespace
