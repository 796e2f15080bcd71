#include "video_interface/BufferManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "log/OVRALogImplementPrintf.h"
#include "tests/support/LogCapture.h"
#include "video_interface/VideoBufferManager.h"

// The registry, through the manager that derives from it; its frame path is in VideoBufferManagerTest.
namespace {

class BufferManagerTest : public ::testing::Test {
protected:
    void setStatus(std::size_t id, OVRA::ApplicationStatus_e value) {
        status.applicationStatus.at(id) = value;
        manager->applicationsStatusUpdated(status);
    }

    vidapp::test::LogCapture log;
    std::unique_ptr<BufferManager> manager = std::make_unique<VideoBufferManager>();
    OVRA::SystemApplicationStatus_t status{};
};

TEST_F(BufferManagerTest, RegistersIdsUpTo18WithTheTimeAndRejects19AndStartsStoppedWithNoFrameRate) {
    const std::uint64_t before = ovraSystemTimestamp_us() / 1000;
    manager->registerConsumer(18);
    const ConsumerRegisterInfo_t consumer = manager->getConsumerRegistry()[18];
    EXPECT_TRUE(consumer.registered && !consumer.active);
    EXPECT_TRUE(consumer.registrationTime_ms >= before &&
                consumer.registrationTime_ms <= ovraSystemTimestamp_us() / 1000);
    EXPECT_TRUE(log.contains("D: vidapp: ++registerConsumer(): registering consumer Id:[18] ((null)). "
                             "#Registered consumers=[1]"));
    EXPECT_THAT([&] { manager->registerConsumer(19); }, testing::ThrowsMessage<std::out_of_range>(testing::StrEq(
                                                            "array::at: __n (which is 19) >= _Nm (which is 19)")));
    EXPECT_THROW(manager->unregisterConsumer(19), std::out_of_range);
    EXPECT_EQ(manager->getNumberOfRegisteredConsumers(), 1U);

    EXPECT_TRUE(manager->isBufferManagerStopped());
    EXPECT_TRUE(log.contains("D: vidapp: BufferManager mStopped: [True]"));
    EXPECT_EQ(manager->getFramesRate_fps(), 0.0F) << "no period known: 0, not infinity";
    manager->updateFramesRate(50.0F);
    EXPECT_FLOAT_EQ(manager->getFramesRate_fps(), 20.0F);
}

TEST_F(BufferManagerTest, OnlyARegistrationWhileTheApplicationRunsActivatesAndUnregisteringUndoesIt) {
    setStatus(14, OVRA::INITIALIZING);
    manager->registerConsumer(14);
    setStatus(14, OVRA::RUNNING);
    EXPECT_EQ(manager->getNumberOfActiveConsumers(), 0U) << "a status change alone activates nobody";
    log.clear();
    manager->registerConsumer(14);
    setStatus(14, OVRA::TERMINATING);
    EXPECT_EQ(manager->getNumberOfActiveConsumers(), 1U);
    manager->unregisterConsumer(14);
    manager->unregisterConsumer(3);

    EXPECT_EQ(manager->getNumberOfRegisteredConsumers(), 0U);
    EXPECT_EQ(manager->getNumberOfActiveConsumers(), 0U);
    EXPECT_EQ(log.dump(), "D: vidapp: ++registerConsumer(): Consumer Id:[14] ((null)) is already registered!. "
                          "#Registered consumers=[1]\n"
                          "D: vidapp: ++registerConsumer(): #Active consumers=[1]\n"
                          "D: vidapp: applicationsStatusUpdated(): #Registered consumers=[1], #Active consumers=[1].  "
                          "{}\n"
                          "D: vidapp: --unregisterConsumer(): Unregistering consumer Id:[14] ((null)). "
                          "#registered consumers= 0\n"
                          "D: vidapp: --unregisterConsumer(): #Active consumers=[0]\n"
                          "D: vidapp: --unregisterConsumer(): Consumer Id:[3] (SRC_EXTINT) is already un-registered!. "
                          "#registered consumers=[0]\n"
                          "D: vidapp: --unregisterConsumer(): #Active consumers=[0]\n");
}

TEST_F(BufferManagerTest, AutoHitchVisionNeedsAnActiveVisionConsumerOrHitchBallDetector) {
    manager->registerConsumer(OVRA::SRC_AHIVIS);
    EXPECT_FALSE(manager->checkAutoHitchVisionOn()) << "registered but not active";
    setStatus(OVRA::SRC_HBALLD, OVRA::RUNNING);
    manager->registerConsumer(OVRA::SRC_HBALLD);
    EXPECT_TRUE(manager->checkAutoHitchVisionOn()) << "the hitch ball detector stands in";
    manager->unregisterConsumer(OVRA::SRC_HBALLD);
    EXPECT_FALSE(manager->checkAutoHitchVisionOn());
    setStatus(OVRA::SRC_AHIVIS, OVRA::RUNNING);
    manager->registerConsumer(OVRA::SRC_AHIVIS);
    EXPECT_TRUE(manager->checkAutoHitchVisionOn());
}

} // namespace
