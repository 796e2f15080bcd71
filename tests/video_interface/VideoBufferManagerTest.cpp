#include "video_interface/VideoBufferManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ProcessState.h"
#include "tests/support/Sandbox.h"

namespace {

using Slots = std::vector<std::size_t>;
using vidapp::test::failureOf;

// The fixture stands in for the algorithm proxy: it notes the slot and the sequence number (read
// back from shared memory) of each ready buffer, fails when told to, and runs what the test gives
// start() and stop().
class VideoBufferManagerTest : public ::testing::Test, public BufferListener, public ImageCapturer {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        manager = std::make_unique<VideoBufferManager>(this, this); // 30 MB: never on the stack
        stagingBase = manager->getWriteBuffer();                    // one array of staging frames; the ring starts at 0
    }
    void bufferReady(std::size_t bufferIndex) override {
        ready.emplace_back(bufferIndex, manager->getBufferSequenceNumber(bufferIndex));
        if (failure != nullptr) {
            throw std::runtime_error(failure);
        }
    }
    void startImageCapturing() override { onStart(); }
    void stopImageCapturing() override { onStop(); }

    void activateConsumer(std::uint32_t id) {
        OVRA::SystemApplicationStatus_t status{};
        status.applicationStatus.at(id) = OVRA::RUNNING;
        manager->applicationsStatusUpdated(status);
        manager->registerConsumer(id);
    }

    // Fills the staging frame the manager hands out, gives it back, and says which slot it was.
    std::size_t writeFrame(std::uint32_t sequenceNumber) {
        ISPFrame_t* frame = manager->getWriteBuffer();
        frame->sequenceNumber = sequenceNumber;
        manager->receiveBufferContents();
        return static_cast<std::size_t>(frame - stagingBase);
    }

    Slots fullSlots() {
        Slots full;
        for (std::size_t i = 0; i < BufferManager::NUMBER_OF_SLOTS; ++i) {
            if (manager->isFullBuffer(i)) {
                full.push_back(i);
            }
        }
        return full;
    }

    vidapp::test::LogCapture log;
    std::unique_ptr<VideoBufferManager> manager;
    ISPFrame_t* stagingBase = nullptr;
    std::vector<std::pair<std::size_t, std::uint32_t>> ready;
    const char* failure = nullptr;
    std::function<void()> onStart = [] {};
    std::function<void()> onStop = [] {};
};

TEST_F(VideoBufferManagerTest, TenFramesUseSlotsZeroToEightThenZeroAndOnlyTheReadyOneStaysOutWhileAConsumerIsActive) {
    manager->init();
    std::memset(stagingBase->pixels, 0x5A, ISPFrame_t::PIXELS_SIZE);
    stagingBase->pixels[ISPFrame_t::PIXELS_SIZE - 1] = 7;
    stagingBase->timestamp = 1234567890123ULL;
    Slots written{writeFrame(0), writeFrame(1)};
    EXPECT_TRUE(ready.empty() && fullSlots().empty()) << "with no active consumer every frame goes straight back";
    SharedMemory consumer(VideoBufferManager::SEGMENT_NAME, true);
    consumer.attach(sizeof(ISPFrame_t), BufferManager::NUMBER_OF_SLOTS, false);
    EXPECT_EQ(std::memcmp(consumer.getAddress(0), stagingBase, sizeof(ISPFrame_t)), 0);
    stagingBase->timestamp = 5; // the queries read the shared slot, not the staging copy
    EXPECT_EQ(manager->getBufferReceivedTime_ms(0), 1234567890123ULL);

    activateConsumer(14);
    for (std::uint32_t frame = 2; frame < 10; ++frame) {
        written.push_back(writeFrame(frame));
        EXPECT_EQ(fullSlots(), Slots{written.back()}) << "the previous ready buffer is pushed back";
    }
    EXPECT_EQ(written, (Slots{0, 1, 2, 3, 4, 5, 6, 7, 8, 0}));
    EXPECT_EQ(ready.size(), 8U);
    EXPECT_EQ(ready.back(), std::make_pair(std::size_t{0}, 9U));
    for (const char* line :
         {"V: vidapp: VideoBufferManager.getWriteBuffer(): allocating buffer#[8] for storing new frame",
          "V: vidapp: VideoBufferManager.receiveBufferContents(): receive frame into buffer#[8]",
          "V: vidapp: notifyBufferListener(): Idle mode. Push back sequence number:[1], buffer index:[1]",
          "V: vidapp: notifyBufferListener(): Push back previous Sequence Number:[8]. Buffer Index:[8].",
          "V: vidapp: notifyBufferListener(): READY frame Sequence Number:[9], buffer index:[0].",
          "V: vidapp: VideoBufferManager.releaseBuffer(): push back buffer#[8]", "I: vidapp: store() success"}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }

    failure = "consumer socket closed";
    EXPECT_EQ(writeFrame(10), 1U);
    EXPECT_TRUE(log.contains("E:  Error Code:      416, Error Message:      vidapp: consumer socket closed"));
    EXPECT_EQ(manager->getNumberOfAnnouncedFrames(), 8U);
    EXPECT_EQ(fullSlots(), Slots{1}) << "a frame whose announcement failed stays ready until the next";
    manager->unregisterConsumer(14);
    EXPECT_EQ(fullSlots(), Slots{1}) << "unregistering pushes nothing back";
    std::unique_lock<std::mutex> lock(manager->getRegistryMutex());
    manager->invalidateBuffers();
    manager->invalidateBuffers();
    lock.unlock();
    EXPECT_TRUE(fullSlots().empty());
    EXPECT_EQ(log.count("V: vidapp: invalidateBuffers(): Push back previous Sequence Number:[10]. Buffer Index:[1]."),
              1U);
    const std::size_t pushBacks = log.count("push back buffer#[");
    EXPECT_EQ(writeFrame(11), 0U) << "invalidation restarts the ring";
    EXPECT_TRUE(fullSlots().empty());
    EXPECT_EQ(log.count("push back buffer#["), pushBacks + 1) << "only the idle push-back: no ready buffer was left";
    manager->releaseBuffer(0);
    EXPECT_EQ(log.count("push back buffer#["), pushBacks + 1) << "an empty slot is left alone silently";
    EXPECT_EQ(ready.size(), 9U);
    EXPECT_THAT([&] { manager->releaseBuffer(10); }, testing::ThrowsMessage<std::out_of_range>(testing::StrEq(
                                                         "array::at: __n (which is 10) >= _Nm (which is 10)")));
}

TEST_F(VideoBufferManagerTest, InitStoreAndGraphFailuresThrow423To426AndStartAndStopAreIdempotent) {
    ASSERT_TRUE(std::filesystem::create_directory("/dev/shm/IMAGE_FRAME3"));
    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->init(); }),
              "424 VideoBufferManager.init(): initialization error!");
    EXPECT_EQ(log.countErrors(1100), 1U);
    // The error record keeps only the start of the text.
    EXPECT_TRUE(log.contains("vidapp: VideoBufferManager.init(): shared memory exception: SharedMemory::crea"));
    activateConsumer(14);
    testing::internal::CaptureStdout();
    EXPECT_EQ(failureOf<BufferManagerException>([&] { writeFrame(5); }),
              "423 SharedMemory::getAddress() error: shared memory must be created or attached before accessing it.");
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::EndsWith("buffer#[0]\nstore() exception\n"));
    EXPECT_EQ(log.countErrors(423), 1U);
    EXPECT_TRUE(fullSlots().empty() && ready.empty());
    std::filesystem::remove("/dev/shm/IMAGE_FRAME3");
    SharedMemory(VideoBufferManager::SEGMENT_NAME, true).create(sizeof(ISPFrame_t), 4, true);
    manager->init();
    manager->init();
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.init(): initialized OK."), 1U);
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.init(): already initialized!"), 1U);
    EXPECT_EQ(vidapp::test::shmObjects().size(), 10U);
    EXPECT_EQ(std::filesystem::file_size("/dev/shm/IMAGE_FRAME10"), sizeof(ISPFrame_t));
    EXPECT_EQ(writeFrame(6), 0U) << "the failed store did not move the write position";

    manager->start();
    manager->start();
    manager->stop();
    manager->stop();
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.start(): STARTED."), 1U) << "a second start does nothing";
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.stop(): STOPPED."), 1U) << "nor does a second stop";
    onStart = [] { throw ISPGraphException(1, "graph load failed"); };
    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->start(); }),
              "425 VideoBufferManager.start(): Error loading ISPGraph");
    EXPECT_FALSE(manager->isBufferManagerStopped()) << "the stopped flag was already cleared";
    onStop = [] { throw ISPGraphException(1, "graph unload failed"); };
    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->stop(); }),
              "426 VideoBufferManager.stop(): error unloading ISPGraph");
    EXPECT_TRUE(manager->isBufferManagerStopped());
    manager.reset();
    EXPECT_TRUE(vidapp::test::shmObjects().empty());
    EXPECT_TRUE(log.contains("D: vidapp: VideoBufferManager.stop(): stopped OK."));
}

TEST_F(VideoBufferManagerTest, FramesWrittenOnTheirOwnThreadWhileConsumersComeAndGo) {
    manager->init();
    std::thread capture([&] {
        for (std::uint32_t frame = 0; frame < 40; ++frame) {
            writeFrame(frame);
        }
    });
    for (int round = 0; round < 40; ++round) {
        activateConsumer(14);
        manager->checkAutoHitchVisionOn();
        manager->getFramesRate_fps();
        manager->unregisterConsumer(14);
    }
    capture.join();
    EXPECT_EQ(manager->getNumberOfReceivedFrames(), 40U);
    EXPECT_LE(fullSlots().size(), 1U) << "at most the ready buffer is out";
    EXPECT_EQ(ready.size(), manager->getNumberOfAnnouncedFrames());
}

} // namespace
