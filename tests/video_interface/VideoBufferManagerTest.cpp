#include "video_interface/VideoBufferManager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dirent.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ProcessState.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::failureOf;
using vidapp::test::shmObjects;

// Reads back what the algorithm proxy would put into its ImageReady message.
class RecordingListener : public BufferListener {
public:
    struct Announcement {
        std::size_t index;
        std::uint32_t sequenceNumber;
    };

    void bufferReady(std::size_t bufferIndex) override {
        announced.push_back({bufferIndex, manager->getBufferSequenceNumber(bufferIndex)});
    }

    std::vector<std::size_t> indexes() const {
        std::vector<std::size_t> result;
        for (const auto& a : announced) {
            result.push_back(a.index);
        }
        return result;
    }

    VideoBufferManager* manager = nullptr;
    std::vector<Announcement> announced;
};

// A capture loop of the test's own: writes a number of frames through the manager.
class FrameSource : public ImageCapturer {
public:
    void startImageCapturing() override {
        ++starts;
        if (failStart) {
            throw ISPGraphException(1, "graph load failed");
        }
        if (failOtherwise) {
            throw std::runtime_error("camera unplugged");
        }
        for (int i = 0; i < framesPerStart; ++i) {
            ISPFrame_t* frame = manager->getWriteBuffer();
            frame->sequenceNumber = nextSequence++;
            manager->receiveBufferContents();
        }
    }
    void stopImageCapturing() override {
        ++stops;
        if (failStop) {
            throw ISPGraphException(1, "graph unload failed");
        }
    }

    VideoBufferManager* manager = nullptr;
    int framesPerStart = 0;
    std::uint32_t nextSequence = 0;
    int starts = 0;
    int stops = 0;
    bool failStart = false;
    bool failStop = false;
    bool failOtherwise = false;
};

class VideoBufferManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        // About 30 MB of staging frames: never on the stack.
        manager = std::make_unique<VideoBufferManager>(&source, &listener);
        listener.manager = manager.get();
        source.manager = manager.get();
        // The staging frames are one array and the ring starts at slot 0.
        stagingBase = manager->getWriteBuffer();
    }

    void activateConsumer(std::uint32_t id) {
        OVRA::SystemApplicationStatus_t status{};
        status.applicationStatus.at(id) = OVRA::RUNNING;
        manager->applicationsStatusUpdated(status);
        manager->registerConsumer(id);
    }

    // Fills the staging frame the manager hands out and gives it back.
    std::size_t writeFrame(std::uint32_t sequenceNumber) {
        ISPFrame_t* frame = manager->getWriteBuffer();
        const auto slot = static_cast<std::size_t>(frame - stagingBase);
        frame->sequenceNumber = sequenceNumber;
        manager->receiveBufferContents();
        return slot;
    }

    std::vector<std::size_t> fullSlots() {
        std::vector<std::size_t> full;
        for (std::size_t i = 0; i < BufferManager::NUMBER_OF_SLOTS; ++i) {
            if (manager->isFullBuffer(i)) {
                full.push_back(i);
            }
        }
        return full;
    }

    vidapp::test::LogCapture log;
    RecordingListener listener;
    FrameSource source;
    std::unique_ptr<VideoBufferManager> manager;
    ISPFrame_t* stagingBase = nullptr;
};

TEST_F(VideoBufferManagerTest, TenFramesUseSlotsZeroToEightThenZeroAgain) {
    manager->init();
    activateConsumer(14);

    std::vector<std::size_t> written;
    for (std::uint32_t frame = 0; frame < 10; ++frame) {
        written.push_back(writeFrame(frame));
    }

    const std::vector<std::size_t> ring{0, 1, 2, 3, 4, 5, 6, 7, 8, 0};
    EXPECT_EQ(written, ring);
    EXPECT_EQ(listener.indexes(), ring);
    EXPECT_EQ(listener.announced.back().sequenceNumber, 9U);
    EXPECT_EQ(manager->getNumberOfReceivedFrames(), 10U);
    EXPECT_EQ(fullSlots(), (std::vector<std::size_t>{0})) << "only the ready buffer is out";
    EXPECT_TRUE(log.contains("V: vidapp: VideoBufferManager.getWriteBuffer(): allocating buffer#[8] for storing new "
                             "frame"));
    EXPECT_TRUE(log.contains("V: vidapp: VideoBufferManager.receiveBufferContents(): receive frame into buffer#[8]"));
    EXPECT_EQ(log.count("I: vidapp: store() success"), 10U);
}

TEST_F(VideoBufferManagerTest, FramesLandByteForByteInTheSharedSlotsThatConsumersMap) {
    manager->init();
    ISPFrame_t* staging = manager->getWriteBuffer();
    for (std::size_t i = 0; i < ISPFrame_t::PIXELS_SIZE; ++i) {
        staging->pixels[i] = static_cast<std::uint8_t>(i * 7 + 3);
    }
    staging->width = 800;
    staging->height = 1200;
    staging->timestamp = 1234567890123ULL;
    staging->sequenceNumber = 42;
    ASSERT_TRUE(manager->receiveBufferContents());

    SharedMemory consumer(VideoBufferManager::SEGMENT_NAME, true);
    consumer.attach(sizeof(ISPFrame_t), BufferManager::NUMBER_OF_SLOTS, false);
    EXPECT_EQ(std::memcmp(consumer.getAddress(0), staging, sizeof(ISPFrame_t)), 0);

    staging->sequenceNumber = 43; // the queries read the shared slot, not the staging copy
    EXPECT_EQ(manager->getBufferSequenceNumber(0), 42U);
    EXPECT_EQ(manager->getBufferReceivedTime_ms(0), 1234567890123ULL);
    EXPECT_TRUE(log.contains("I: vidapp: getISPFrameInfo()"));
    EXPECT_EQ(failureOf<SharedMemoryException>([&] { manager->getBufferSequenceNumber(10); }).substr(0, 4), "1107");
}

TEST_F(VideoBufferManagerTest, TheListenerHearsOfFramesOnlyWhileAConsumerIsActive) {
    manager->init();
    writeFrame(1);
    writeFrame(2);
    EXPECT_TRUE(listener.announced.empty());
    EXPECT_TRUE(fullSlots().empty()) << "idle mode pushes every frame straight back";

    activateConsumer(15);
    writeFrame(3);
    ASSERT_EQ(listener.announced.size(), 1U);
    EXPECT_EQ(listener.announced[0].index, 2U);
    EXPECT_EQ(listener.announced[0].sequenceNumber, 3U);

    manager->unregisterConsumer(15);
    writeFrame(4);
    EXPECT_EQ(listener.announced.size(), 1U);
    EXPECT_TRUE(fullSlots().empty());
    EXPECT_TRUE(log.contains("notifyBufferListener(): Idle mode. Push back sequence number:[4], buffer index:[3]"));
}

TEST_F(VideoBufferManagerTest, ThePreviousReadyBufferIsPushedBackOnTheNextFrame) {
    manager->init();
    activateConsumer(14);
    writeFrame(10);
    EXPECT_EQ(fullSlots(), (std::vector<std::size_t>{0}));

    writeFrame(11);

    EXPECT_EQ(fullSlots(), (std::vector<std::size_t>{1}));
    EXPECT_TRUE(log.contains("V: vidapp: notifyBufferListener(): Push back previous Sequence Number:[10]. Buffer "
                             "Index:[0]."));
    EXPECT_EQ(log.count("V: vidapp: VideoBufferManager.releaseBuffer(): push back buffer#[0]"), 1U);

    manager->releaseBuffer(5);
    EXPECT_EQ(log.count("push back buffer#"), 1U) << "an empty slot is left alone silently";
    manager->releaseBuffer(1);
    EXPECT_TRUE(fullSlots().empty());
    EXPECT_THROW(manager->isFullBuffer(10), std::out_of_range);
    try {
        manager->releaseBuffer(10);
        FAIL();
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "array::at: __n (which is 10) >= _Nm (which is 10)");
    }
}

TEST_F(VideoBufferManagerTest, InvalidateBuffersPushesBackTheReadyBufferAndRestartsTheRing) {
    manager->init();
    activateConsumer(14);
    writeFrame(20);
    writeFrame(21);
    writeFrame(22);

    {
        std::lock_guard<std::mutex> lock(manager->getRegistryMutex());
        manager->invalidateBuffers();
        manager->invalidateBuffers();
    }
    EXPECT_TRUE(fullSlots().empty());
    EXPECT_EQ(log.count("V: vidapp: invalidateBuffers(): Push back previous Sequence Number:[22]. Buffer Index:[2]."),
              1U);

    log.clear();
    EXPECT_EQ(writeFrame(23), 0U);
    EXPECT_EQ(log.count("Push back previous"), 0U) << "no ready buffer is left after invalidation";
}

TEST_F(VideoBufferManagerTest, InitCreatesTheSegmentOnceAndDestructionRemovesIt) {
    manager->init();
    manager->init();

    EXPECT_TRUE(manager->isInitialized());
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.init(): initialized OK."), 1U);
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.init(): already initialized!"), 1U);
    const auto objects = shmObjects();
    EXPECT_EQ(objects.size(), 10U);
    EXPECT_EQ(objects.count("IMAGE_FRAME10"), 1U);
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/shm/IMAGE_FRAME1", &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(sizeof(ISPFrame_t)));

    manager.reset();
    EXPECT_TRUE(shmObjects().empty());
    EXPECT_TRUE(log.contains("D: vidapp: VideoBufferManager.stop(): stopped OK."));
}

TEST_F(VideoBufferManagerTest, InitReusesWhatACrashedEarlierRunLeft) {
    {
        SharedMemory earlierRun(VideoBufferManager::SEGMENT_NAME, true);
        earlierRun.create(sizeof(ISPFrame_t), 4, false);
    }
    manager->init();
    EXPECT_TRUE(manager->isInitialized());
}

TEST_F(VideoBufferManagerTest, InitFailsWith424WhenASlotNameIsTaken) {
    ASSERT_EQ(::mkdir("/dev/shm/IMAGE_FRAME3", 0700), 0);

    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->init(); }),
              "424 VideoBufferManager.init(): initialization error!");
    EXPECT_FALSE(manager->isInitialized());
    EXPECT_EQ(log.countErrors(1100), 1U);
    // The error record keeps only the start of the text.
    EXPECT_TRUE(log.contains("vidapp: VideoBufferManager.init(): shared memory exception: SharedMemory::crea"))
        << log.dump();

    ASSERT_EQ(::rmdir("/dev/shm/IMAGE_FRAME3"), 0);
    manager->init();
    EXPECT_TRUE(manager->isInitialized());
}

TEST_F(VideoBufferManagerTest, AFrameThatCannotBeStoredThrows423AndKeepsItsPosition) {
    activateConsumer(14);
    testing::internal::CaptureStdout();
    EXPECT_EQ(failureOf<BufferManagerException>([&] { writeFrame(5); }),
              "423 SharedMemory::getAddress() error: shared memory must be created or attached before accessing it.");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.ends_with("buffer#[0]\nstore() exception\n")) << out;
    EXPECT_EQ(log.countErrors(423), 1U);
    EXPECT_TRUE(fullSlots().empty());

    manager->init();
    EXPECT_EQ(writeFrame(6), 0U) << "the write position did not move";
    EXPECT_EQ(listener.indexes(), (std::vector<std::size_t>{0}));
}

TEST_F(VideoBufferManagerTest, StartRunsTheCaptureAndStartAndStopAreIdempotent) {
    manager->init();
    activateConsumer(14);
    source.framesPerStart = 3;
    EXPECT_TRUE(manager->isBufferManagerStopped());

    manager->start();
    manager->start();
    EXPECT_EQ(source.starts, 1);
    EXPECT_EQ(listener.indexes(), (std::vector<std::size_t>{0, 1, 2}));
    EXPECT_FALSE(manager->isBufferManagerStopped());
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.start(): STARTED."), 1U);

    manager->stop();
    manager->stop();
    EXPECT_EQ(source.stops, 1);
    EXPECT_EQ(log.count("D: vidapp: VideoBufferManager.stop(): STOPPED."), 1U);
    EXPECT_TRUE(manager->isBufferManagerStopped());

    manager->start();
    EXPECT_EQ(source.starts, 2) << "a stopped manager can be started again";
}

TEST_F(VideoBufferManagerTest, GraphFailuresBecome425And426AndOthersPassThrough) {
    source.failStart = true;
    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->start(); }),
              "425 VideoBufferManager.start(): Error loading ISPGraph");
    EXPECT_FALSE(manager->isBufferManagerStopped()) << "the stopped flag was already cleared";

    source.failStop = true;
    EXPECT_EQ(failureOf<BufferManagerException>([&] { manager->stop(); }),
              "426 VideoBufferManager.stop(): error unloading ISPGraph");
    EXPECT_TRUE(manager->isBufferManagerStopped());
    EXPECT_EQ(log.count("STARTED."), 0U);
    EXPECT_EQ(log.count("STOPPED."), 0U);

    source.failStart = false;
    source.failOtherwise = true;
    EXPECT_THROW(manager->start(), std::runtime_error);
}

TEST_F(VideoBufferManagerTest, CaptureOnItsOwnThreadWhileConsumersComeAndGo) {
    manager->init();
    source.framesPerStart = 40;
    std::thread capture([&] { manager->start(); });

    for (int round = 0; round < 40; ++round) {
        activateConsumer(14);
        manager->checkAutoHitchVisionOn();
        manager->getFramesRate_fps();
        manager->unregisterConsumer(14);
    }
    capture.join();

    EXPECT_EQ(manager->getNumberOfReceivedFrames(), 40U);
    EXPECT_LE(fullSlots().size(), 1U) << "at most the ready buffer is out";
    EXPECT_EQ(listener.announced.size(), manager->getNumberOfAnnouncedFrames());
}

} // namespace
