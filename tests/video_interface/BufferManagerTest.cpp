#include "video_interface/BufferManager.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "log/OVRALogImplementPrintf.h"
#include "tests/support/LogCapture.h"

namespace {

// Keeps the buffer state in memory so that the registry's decisions can be watched: which slots
// are pushed back, and what sequence number each slot holds.
class InMemoryBufferManager : public BufferManager {
public:
    using BufferManager::BufferManager;

    // What the frame path does after storing a frame.
    void storeFrame(std::uint32_t sequenceNumber) {
        std::lock_guard<std::mutex> lock(getRegistryMutex());
        sequenceNumbers.at(mBufferLocations.at(mWritePosition)) = sequenceNumber;
        mWritePosition = (mWritePosition + 1) % NUMBER_OF_POSITIONS;
        notifyBufferListener();
    }

    bool isFullBuffer(std::size_t) override { return false; }
    void releaseBuffer(std::size_t index) override { released.push_back(index); }
    std::uint64_t getBufferReceivedTime_ms(std::size_t) override { return 0; }
    std::uint32_t getBufferSequenceNumber(std::size_t index) override { return sequenceNumbers.at(index); }
    void init() override {}
    void start() override {}
    void stop() override {}
    ISPFrame_t* getWriteBuffer() override { return nullptr; }
    bool receiveBufferContents() override { return true; }
    void invalidateBuffers() override { resetBufferLocations(); }

    std::vector<std::size_t> released;
    std::array<std::uint32_t, NUMBER_OF_SLOTS> sequenceNumbers{};
};

class RecordingListener : public BufferListener {
public:
    void bufferReady(std::size_t bufferIndex) override {
        announced.push_back(bufferIndex);
        if (failWith != nullptr) {
            throw std::runtime_error(failWith);
        }
    }

    std::vector<std::size_t> announced;
    const char* failWith = nullptr;
};

class BufferManagerTest : public ::testing::Test {
protected:
    void setStatus(std::size_t id, OVRA::ApplicationStatus_e value) {
        status.applicationStatus.at(id) = value;
        manager.applicationsStatusUpdated(status);
    }

    // Registered while its application runs.
    void activate(std::uint32_t id) {
        setStatus(id, OVRA::RUNNING);
        manager.registerConsumer(id);
    }

    vidapp::test::LogCapture log;
    RecordingListener listener;
    InMemoryBufferManager manager{&listener};
    OVRA::SystemApplicationStatus_t status{};
};

TEST_F(BufferManagerTest, RegistersIdsUpTo18AndRejects19) {
    manager.registerConsumer(18);
    EXPECT_EQ(manager.getNumberOfRegisteredConsumers(), 1U);
    EXPECT_TRUE(log.contains("D: vidapp: ++registerConsumer(): registering consumer Id:[18] ((null)). "
                             "#Registered consumers=[1]"))
        << log.dump();

    try {
        manager.registerConsumer(19);
        FAIL() << "id 19 was accepted";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "array::at: __n (which is 19) >= _Nm (which is 19)");
    }
    EXPECT_THROW(manager.unregisterConsumer(19), std::out_of_range);
    EXPECT_EQ(manager.getNumberOfRegisteredConsumers(), 1U);
}

TEST_F(BufferManagerTest, RegistrationStampsTheTimeWithTheClockDivisor) {
    const auto now_ms = [] {
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              std::chrono::system_clock::now().time_since_epoch())
                                              .count()) /
               getClockDivisor();
    };
    const std::uint64_t before = now_ms();
    manager.registerConsumer(2);
    const std::uint64_t after = now_ms();

    const auto registry = manager.getConsumerRegistry();
    EXPECT_TRUE(registry[2].registered);
    EXPECT_FALSE(registry[2].active);
    EXPECT_GE(registry[2].registrationTime_ms, before);
    EXPECT_LE(registry[2].registrationTime_ms, after);
    EXPECT_TRUE(log.contains("registering consumer Id:[2] (SRC_LAUNCHER). #Registered consumers=[1]"));
}

TEST_F(BufferManagerTest, OnlyAConsumerRegisteringWhileItsApplicationRunsBecomesActive) {
    setStatus(14, OVRA::INITIALIZING);
    manager.registerConsumer(14);
    EXPECT_EQ(manager.getNumberOfActiveConsumers(), 0U);

    setStatus(14, OVRA::RUNNING);
    EXPECT_EQ(manager.getNumberOfActiveConsumers(), 0U) << "a status change alone activates nobody";

    log.clear();
    manager.registerConsumer(14);
    EXPECT_EQ(manager.getNumberOfRegisteredConsumers(), 1U);
    EXPECT_EQ(manager.getNumberOfActiveConsumers(), 1U);
    EXPECT_EQ(log.dump(), "D: vidapp: ++registerConsumer(): Consumer Id:[14] ((null)) is already registered!. "
                          "#Registered consumers=[1]\n"
                          "D: vidapp: ++registerConsumer(): #Active consumers=[1]\n");

    manager.registerConsumer(14);
    EXPECT_EQ(manager.getNumberOfActiveConsumers(), 1U);
    EXPECT_EQ(log.count("#Active consumers=[1]"), 1U);
}

TEST_F(BufferManagerTest, UnregisteringLowersTheCountsOrLogsAlreadyUnregistered) {
    activate(3);
    log.clear();

    manager.unregisterConsumer(3);
    manager.unregisterConsumer(4);

    EXPECT_EQ(manager.getNumberOfRegisteredConsumers(), 0U);
    EXPECT_EQ(manager.getNumberOfActiveConsumers(), 0U);
    EXPECT_EQ(log.dump(), "D: vidapp: --unregisterConsumer(): Unregistering consumer Id:[3] (SRC_EXTINT). "
                          "#registered consumers= 0\n"
                          "D: vidapp: --unregisterConsumer(): #Active consumers=[0]\n"
                          "D: vidapp: --unregisterConsumer(): Consumer Id:[4] (to_usgmon) is already un-registered!. "
                          "#registered consumers=[0]\n"
                          "D: vidapp: --unregisterConsumer(): #Active consumers=[0]\n");
}

TEST_F(BufferManagerTest, StatusUpdateLogsTheCountsAndAnEmptyList) {
    activate(6);
    manager.registerConsumer(7);
    log.clear();

    setStatus(7, OVRA::TERMINATING);

    EXPECT_EQ(log.dump(),
              "D: vidapp: applicationsStatusUpdated(): #Registered consumers=[2], #Active consumers=[1].  {}\n");
}

TEST_F(BufferManagerTest, WithoutActiveConsumersEveryFrameIsPushedBackAtOnce) {
    manager.registerConsumer(5); // registered, but its application is not running
    manager.storeFrame(41);
    manager.storeFrame(42);

    EXPECT_TRUE(listener.announced.empty());
    EXPECT_EQ(manager.released, (std::vector<std::size_t>{0, 1}));
    EXPECT_EQ(manager.getNumberOfAnnouncedFrames(), 0U);
    EXPECT_TRUE(
        log.contains("V: vidapp: notifyBufferListener(): Idle mode. Push back sequence number:[42], buffer index:[1]"));
}

TEST_F(BufferManagerTest, EachAnnouncedFramePushesBackThePreviousOne) {
    activate(14);
    manager.storeFrame(7);
    EXPECT_EQ(listener.announced, (std::vector<std::size_t>{0}));
    EXPECT_TRUE(manager.released.empty());
    EXPECT_TRUE(log.contains("V: vidapp: notifyBufferListener(): READY frame Sequence Number:[7], buffer index:[0]."));

    manager.storeFrame(8);
    EXPECT_EQ(listener.announced, (std::vector<std::size_t>{0, 1}));
    EXPECT_EQ(manager.released, (std::vector<std::size_t>{0}));
    EXPECT_TRUE(
        log.contains("V: vidapp: notifyBufferListener(): Push back previous Sequence Number:[7]. Buffer Index:[0]."));
    EXPECT_EQ(manager.getNumberOfAnnouncedFrames(), 2U);
}

TEST_F(BufferManagerTest, WhenTheLastConsumerLeavesTheNextFrameTakesTheIdlePath) {
    activate(14);
    manager.storeFrame(1);
    manager.unregisterConsumer(14);
    EXPECT_TRUE(manager.released.empty()) << "unregistering pushes nothing back";

    manager.storeFrame(2);

    EXPECT_EQ(listener.announced, (std::vector<std::size_t>{0}));
    EXPECT_EQ(manager.released, (std::vector<std::size_t>{0, 1}));
}

TEST_F(BufferManagerTest, TheNotifyPositionWrapsAfterNinePositions) {
    activate(15);
    for (std::uint32_t frame = 0; frame < 10; ++frame) {
        manager.storeFrame(frame);
    }
    EXPECT_EQ(listener.announced, (std::vector<std::size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 0}));

    const std::size_t releasedBefore = manager.released.size();
    {
        std::lock_guard<std::mutex> lock(manager.getRegistryMutex());
        manager.resetBufferLocations();
    }
    manager.storeFrame(11);
    EXPECT_EQ(listener.announced.back(), 0U);
    EXPECT_EQ(manager.released.size(), releasedBefore) << "the reset forgot the ready buffer";
}

TEST_F(BufferManagerTest, AListenerFailureIsLoggedAs416AndTheFrameStaysReady) {
    activate(14);
    listener.failWith = "consumer socket closed";

    manager.storeFrame(3);

    EXPECT_EQ(log.countErrors(416), 1U);
    EXPECT_TRUE(log.contains("Error Message:      vidapp: consumer socket closed")) << log.dump();
    EXPECT_EQ(manager.getNumberOfAnnouncedFrames(), 0U);

    listener.failWith = nullptr;
    manager.storeFrame(4);
    EXPECT_EQ(manager.released, (std::vector<std::size_t>{0}));
}

TEST_F(BufferManagerTest, FrameRateIsZeroUntilAPeriodIsKnown) {
    EXPECT_EQ(manager.getFramesRate_fps(), 0.0F);
    manager.updateFramesRate(50.0F);
    EXPECT_FLOAT_EQ(manager.getFramesRate_ms(), 50.0F);
    EXPECT_FLOAT_EQ(manager.getFramesRate_fps(), 20.0F);
}

TEST_F(BufferManagerTest, AutoHitchVisionNeedsAnActiveAndRegisteredVisionConsumer) {
    EXPECT_FALSE(manager.checkAutoHitchVisionOn());

    manager.registerConsumer(OVRA::SRC_AHIVIS);
    EXPECT_FALSE(manager.checkAutoHitchVisionOn()) << "registered but not active";

    activate(OVRA::SRC_HBALLD);
    EXPECT_TRUE(manager.checkAutoHitchVisionOn()) << "the hitch ball detector stands in";

    manager.unregisterConsumer(OVRA::SRC_HBALLD);
    activate(OVRA::SRC_AHIVIS);
    EXPECT_TRUE(manager.checkAutoHitchVisionOn());
}

TEST_F(BufferManagerTest, StoppedFlagIsReportedInTheLog) {
    EXPECT_TRUE(manager.isBufferManagerStopped());
    EXPECT_TRUE(log.contains("D: vidapp: BufferManager mStopped: [True]"));
}

} // namespace
