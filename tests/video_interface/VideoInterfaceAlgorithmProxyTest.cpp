#include "video_interface/VideoInterfaceAlgorithmProxy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/OVRAException.h"
#include "common/SharedMemory.h"
#include "framework/CommonMessageHandler.h"
#include "log/DynamicDebug.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/VidappFrames.h"
#include "video_interface/VideoBufferManager.h"

namespace {

using namespace std::chrono_literals;
using OVRA::VideoInterfaceAlgorithmProxy;
using OVRAInterSystemMessages::VideoInterfaceResults_t;

constexpr auto CAPTURE_TIMEOUT = 20s;

// True when every line appears as a whole line of text, in this order (other lines may come between).
bool hasLinesInOrder(const std::string& text, const std::vector<std::string>& lines) {
    std::size_t at = 0;
    for (const std::string& line : lines) {
        std::size_t found = text.find(line + "\n", at);
        while (found != std::string::npos && found != 0 && text[found - 1] != '\n') {
            found = text.find(line + "\n", found + 1);
        }
        if (found == std::string::npos) {
            return false;
        }
        at = found + line.size() + 1;
    }
    return true;
}

// An error record as the log front end makes it: cut to 127 characters, a cut marked "***".
std::string errorRecord(std::uint32_t code, const std::string& text) {
    std::string record = "E:  Error Code:      " + std::to_string(code) + ", Error Message:      vidapp: " + text;
    if (record.size() > 128) {
        record = record.substr(0, 124) + "***";
    } else if (record.size() == 128) {
        record.pop_back();
    }
    return record;
}

// The message hub as the proxy sees it: records every message and, for each frame announcement,
// the bytes of slot 0 at that moment. It can be told to fail sends.
class RecordingOutput : public FeatureAppOutput {
public:
    struct Message {
        unsigned id;
        std::vector<std::uint8_t> payload;
        std::vector<std::uint8_t> slot; // slot 0 when a VIDEO_INTERFACE_RESULTS was sent
    };

    void sendFeatureAppResults(unsigned int messageId, const void* data, unsigned long size) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (failures > 0) {
            --failures;
            throw CommunicationException(1011, "send failed");
        }
        if (size > OVRA::PDU_MAX_PAYLOAD_SIZE && refuseLargePayloads) {
            throw std::invalid_argument("Invalid parameter to sendFeatureAppResults\n");
        }
        Message message{messageId, {}, {}};
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        message.payload.assign(bytes, bytes + size);
        if (messageId == OVRA::VIDEO_INTERFACE_RESULTS) {
            if (!slotView) {
                slotView = std::make_unique<SharedMemory>("IMAGE_FRAME", true);
                slotView->attach(sizeof(ISPFrame_t), 1, false);
            }
            const auto* slot = static_cast<const std::uint8_t*>(slotView->getAddress(0));
            message.slot.assign(slot, slot + sizeof(ISPFrame_t));
        }
        messages.push_back(std::move(message));
        lock.unlock();
        changed.notify_all();
    }
    void sendFeatureAppResults(OVRA::PDUWriteOnly&) override { throw std::logic_error("not used by the proxy"); }
    void sendFeatureAppResults(OVRA::PDUReadWrite&) override { throw std::logic_error("not used by the proxy"); }

    bool waitForMessages(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return messages.size() >= count; });
    }
    std::vector<Message> sent() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
    void failNextSends(int count) {
        std::lock_guard<std::mutex> lock(mutex);
        failures = count;
    }

    bool refuseLargePayloads = false;

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Message> messages;          // mutex
    int failures = 0;                       // mutex
    std::unique_ptr<SharedMemory> slotView; // mutex
};

class NoApplication : public FeatureAppInput {
public:
    void decodeMessagePayload(const OVRA::PDUMessage_t&) override {}
};

class VideoInterfaceAlgorithmProxyTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/proxy-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    std::unique_ptr<VideoInterfaceAlgorithmProxy>
    makeProxy(const OVRA::FrameSourceSettings& settings = {},
              const OVRA::VideoInterfaceConfiguration_t& configuration = {}) {
        auto proxy = std::make_unique<VideoInterfaceAlgorithmProxy>(configuration, settings);
        proxy->setCommonMessageHandler(&output);
        return proxy;
    }

    // Frames from PGM files of the test directory, in name order.
    OVRA::FrameSourceSettings framesOf(const std::vector<cv::Mat>& images) {
        for (std::size_t i = 0; i < images.size(); ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame%03zu.pgm", i);
            vidapp::test::writePgmImage(directory + name, images[i]);
        }
        OVRA::FrameSourceSettings settings;
        settings.frameDirectory = directory;
        return settings;
    }

    static OVRA::VideoInterfaceInputAggregate_t triggeredBy(std::uint32_t messageId) {
        OVRA::VideoInterfaceInputAggregate_t input{};
        input.header.triggerMessageId = messageId;
        return input;
    }

    std::vector<RecordingOutput::Message> results() {
        std::vector<RecordingOutput::Message> found;
        for (auto& message : output.sent()) {
            if (message.id == OVRA::VIDEO_INTERFACE_RESULTS) {
                found.push_back(std::move(message));
            }
        }
        return found;
    }

    vidapp::test::LogCapture log;
    RecordingOutput output;
    std::string directory;
};

TEST_F(VideoInterfaceAlgorithmProxyTest, InitializeCreatesTheFrameSegmentAndSchedulesTheStatusReport) {
    VIDAPP_REQUIRE_SANDBOX();
    // A leftover of a killed run, of another size: taken over.
    const int leftover = ::shm_open("IMAGE_FRAME4", O_CREAT | O_RDWR, 0600);
    ASSERT_GE(leftover, 0);
    ASSERT_EQ(::ftruncate(leftover, 4096), 0);
    ::close(leftover);
    auto proxy = makeProxy();

    proxy->initialize();

    for (int i = 1; i <= 10; ++i) {
        struct stat status {};
        const std::string path = "/dev/shm/IMAGE_FRAME" + std::to_string(i);
        ASSERT_EQ(::stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_size, 3072024);
        EXPECT_EQ(status.st_mode & 0777, 0640U);
    }
    EXPECT_EQ(proxy->getStatusTask().taskState.load(), OVRA::TASK_SCHEDULED);
    EXPECT_EQ(proxy->getRestartGlobalRecoveryTrials(), 5U);
    EXPECT_FALSE(proxy->isTargetBuild());
    for (const char* line : {"I: vidapp: VideoInterfaceAlgorithmProxy::initialize()",
                             "D: vidapp: initialize(): mRestartGlobalRecoveryTrials= 5",
                             "D: vidapp: initialize(): mVideoInterfaceLogTimeInterval_ms= 5000",
                             "D: vidapp: initialize(): Linux build (Hostsim). ",
                             "V: vidapp: VideoInterfaceAlgorithmProxy::initialize() VideoInterface.JSON Contrast "
                             "enhancement turned [On]",
                             "D: vidapp: initialize(): buffer manager init'd OK", "D: vidapp: initialize(): success"}) {
        EXPECT_EQ(log.count(line), 1U) << line << "\n" << log.dump();
    }
    EXPECT_TRUE(log.waitFor("I: vidapp: readSharedCommand() function:", 5s));

    proxy->stopFeatureApp();
    EXPECT_TRUE(log.contains("D: vidapp: stopFeatureApp():  STOPPED."));
    EXPECT_EQ(proxy->getStatusTask().taskState.load(), OVRA::TASK_CANCELLED);
    proxy->stopFeatureApp(); // idempotent

    proxy.reset();
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/IMAGE_FRAME1")) << "the segment goes with the proxy";
}

TEST_F(VideoInterfaceAlgorithmProxyTest, InitializeFailureIsLoggedWithItsCodeAndRethrown) {
    VIDAPP_REQUIRE_SANDBOX();
    ASSERT_EQ(::mkdir("/dev/shm/IMAGE_FRAME1", 0700), 0);
    auto proxy = makeProxy();

    try {
        proxy->initialize();
        FAIL() << "initialize() should have thrown";
    } catch (const SharedMemoryException& e) {
        EXPECT_EQ(e.getCode(), 1100U);
    }
    EXPECT_EQ(log.count(errorRecord(1100, "initialize() exception: [SharedMemory::create(): shm_open() failed with "
                                          "error:[Is a directory]]")),
              1U)
        << log.dump();
    EXPECT_EQ(log.countErrors(1100), 2U) << "the shared memory layer's record and the proxy's";
    ::rmdir("/dev/shm/IMAGE_FRAME1");
}

TEST_F(VideoInterfaceAlgorithmProxyTest, ConfigurationDecidesLogIntervalAndContrastLines) {
    VIDAPP_REQUIRE_SANDBOX();
    OVRA::VideoInterfaceConfiguration_t configuration;
    configuration.videoInterfaceLogTimeInterval_ms = 0;
    configuration.contrastEnhancement = false;
    configuration.restartGlobalRecoveryTrials = 2;
    auto proxy = makeProxy({}, configuration);

    proxy->initialize();

    EXPECT_EQ(proxy->getStatusTask().taskState.load(), OVRA::TASK_NEW) << "interval 0: no status report";
    EXPECT_TRUE(log.contains("initialize(): mVideoInterfaceLogTimeInterval_ms= 0"));
    EXPECT_TRUE(log.contains("initialize(): mRestartGlobalRecoveryTrials= 2"));
    EXPECT_TRUE(log.contains("Contrast enhancement turned [Off]"));
}

TEST_F(VideoInterfaceAlgorithmProxyTest, StatusReportComplainsWhileNoFrameRateIsKnown) {
    VIDAPP_REQUIRE_SANDBOX();
    if (VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms() != 0.0) {
        GTEST_SKIP() << "a frame rate was recorded earlier in this process; run the case on its own";
    }
    OVRA::VideoInterfaceConfiguration_t configuration;
    configuration.videoInterfaceLogTimeInterval_ms = 20;
    auto proxy = makeProxy({}, configuration);
    proxy->initialize();

    ASSERT_TRUE(log.waitFor(errorRecord(416, "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera "
                                             "Frame Rate: 0.000000"),
                            5s))
        << log.dump();

    proxy->recordCameraFramesRate_fps(30.0);
    proxy->stopFeatureApp();
    log.clear();
    proxy->logVideoInterfaceStatus();
    EXPECT_EQ(log.countErrors(416), 0U) << "a known rate is not reported";
}

// A status report that fails.
class FailingReportProxy : public VideoInterfaceAlgorithmProxy {
public:
    using VideoInterfaceAlgorithmProxy::VideoInterfaceAlgorithmProxy;
    ~FailingReportProxy() override { stopFeatureApp(); }
    void logVideoInterfaceStatus() override { throw std::runtime_error("report failed"); }
};

TEST_F(VideoInterfaceAlgorithmProxyTest, FailingStatusReportIsLoggedAndCancelsItsTask) {
    VIDAPP_REQUIRE_SANDBOX();
    OVRA::VideoInterfaceConfiguration_t configuration;
    configuration.videoInterfaceLogTimeInterval_ms = 10;
    FailingReportProxy proxy(configuration, OVRA::FrameSourceSettings{});
    proxy.initialize();

    ASSERT_TRUE(log.waitFor("Exiting logging thread: report failed", 5s)) << log.dump();
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (proxy.getStatusTask().taskState.load() != OVRA::TASK_CANCELLED &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(proxy.getStatusTask().taskState.load(), OVRA::TASK_CANCELLED);
    EXPECT_EQ(log.countErrors(1), 1U);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, FirstRunAsksConsumersToRegisterAgainOnceAndOtherTriggersFail) {
    auto proxy = makeProxy();

    EXPECT_EQ(proxy->featureAppRun(triggeredBy(OVRA::SYSTEM_APPLICATION_STATUS), output), 0U);
    EXPECT_EQ(proxy->featureAppRun(triggeredBy(OVRA::VIDEO_CONSUMER_REGISTER), output), 0U);
    EXPECT_EQ(proxy->featureAppRun(triggeredBy(OVRA::RECEIVED_IMAGE_DATA), output), 0U);

    const auto sent = output.sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].id, OVRA::VIDEO_INTERFACE_REGISTER_AGAIN);
    EXPECT_EQ(sent[0].payload, std::vector<std::uint8_t>(4, 0));
    EXPECT_TRUE(log.contains("V: vidapp: featureAppRun(): triggering message ID:[0x80000004]"));
    EXPECT_TRUE(log.contains("V: vidapp: featureAppRun(): triggering message ID:[0x1a]"));

    EXPECT_EQ(proxy->featureAppRun(triggeredBy(OVRA::CAMERA_SUPPORT_DATA), output), 1006U);
    EXPECT_TRUE(log.contains(errorRecord(1006, "Unexpected trigger message ID:[0x10]"))) << log.dump();
    EXPECT_EQ(output.sent().size(), 1U);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, FailedRegisterAgainIsLoggedAndTheRunGoesOn) {
    auto proxy = makeProxy();
    output.failNextSends(1);

    EXPECT_EQ(proxy->featureAppRun(triggeredBy(OVRA::SYSTEM_APPLICATION_STATUS), output), 0U);

    EXPECT_TRUE(log.contains(errorRecord(1004, "sendRegisterAgainMessage() exception:[send failed]"))) << log.dump();
    proxy->featureAppRun(triggeredBy(OVRA::SYSTEM_APPLICATION_STATUS), output);
    EXPECT_TRUE(output.sent().empty()) << "only the first run asks";
}

TEST_F(VideoInterfaceAlgorithmProxyTest, FrameRateEstimateFollowsTheBufferManagersPeriod) {
    auto proxy = makeProxy();
    auto manager = std::make_unique<VideoBufferManager>();
    EXPECT_FLOAT_EQ(proxy->estimateFramesRate_fps(), 30.0F) << "no buffer manager: the initial estimate";
    proxy->setBufferManager(manager.get());

    const std::vector<std::pair<float, float>> steps = {
        {0.0F, 30.0F}, {65.0F, 15.0F}, {50.0F, 15.0F}, {33.0F, 30.0F}, {50.0F, 30.0F}, {74.0F, 15.0F}, {30.4F, 30.0F},
    };
    for (const auto& [period, expected] : steps) {
        manager->updateFramesRate(period);
        EXPECT_FLOAT_EQ(proxy->estimateFramesRate_fps(), expected) << period << " ms";
    }
    EXPECT_TRUE(log.contains("V: vidapp: estimateFramesRate(): [65.00] ms --> [15.0] fps")) << log.dump();
    EXPECT_TRUE(log.contains("V: vidapp: estimateFramesRate(): [50.00] ms --> [30.0] fps"));
    proxy->setBufferManager(nullptr);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, CameraRateIsKeptAndAnInvalidOneFallsBackTo15fps) {
    auto proxy = makeProxy();

    proxy->recordCameraFramesRate_fps(-1.0);

    EXPECT_EQ(proxy->getCameraFramesRate_fps(), 15.0);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms(), 66.66666666666667);
    EXPECT_TRUE(log.contains(errorRecord(
        419, "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera Frame Rate: -1.000000E+00")))
        << log.dump();
    EXPECT_TRUE(log.contains("V: vidapp: BufferManager.recordCameraFramesRate(): Frame Rate to 1.500000E+01 fps "
                             "(6.666667E+01 ms)"));

    proxy->recordCameraFramesRate_fps(25.0);
    proxy->recordCameraFramesRate_fps(25.0);
    EXPECT_EQ(log.count("Frame Rate to 2.500000E+01 fps (4.000000E+01 ms)"), 1U) << "the same rate is logged once";
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms(), 40.0);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, EveryConsumerRegistrationIsRefusedWith421) {
    auto proxy = makeProxy();

    for (const std::uint8_t id : {0, 14, 255}) {
        OVRAInterSystemMessages::VideoConsumerRegister_t message{};
        message.consumerId = id;
        proxy->processReceivedMessage(message);
        EXPECT_EQ(log.count(errorRecord(421, "process VideoConsumerRegister_t(): invalid video consumerId:[" +
                                                 std::to_string(id) + "]")),
                  1U)
            << log.dump();
    }
    EXPECT_EQ(log.countErrors(421), 3U);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, CameraSupportDataSetsThirtyFramesPerSecond) {
    auto proxy = makeProxy();
    OVRAInterSystemMessages::CameraSupport_t message{};
    message.rvcCameraOnStatus = 7;

    proxy->processReceivedMessage(message);

    EXPECT_EQ(proxy->getCameraFramesRate_fps(), 30.0);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms(), 33.333333333333336);
    EXPECT_TRUE(log.contains("V: vidapp: Camera Support Data message received"));
    EXPECT_TRUE(log.contains("Frame Rate to 3.000000E+01 fps (3.333333E+01 ms)"));
    // Until initialize() says otherwise the proxy takes itself for the target build.
    EXPECT_TRUE(log.contains("V: vidapp: process Camera Support message: rvcCameraOnStatus:[7]")) << log.dump();
}

TEST_F(VideoInterfaceAlgorithmProxyTest, ApplicationStatusReachesTheBufferManagerWhenThereIsOne) {
    auto proxy = makeProxy();
    OVRA::SystemApplicationStatus_t status{};
    status.applicationStatus[OVRA::SRC_AHIVIS] = OVRA::RUNNING;

    proxy->processReceivedMessage(status); // no buffer manager: nothing to do
    EXPECT_FALSE(log.contains("applicationsStatusUpdated()"));

    auto manager = std::make_unique<VideoBufferManager>();
    proxy->setBufferManager(manager.get());
    proxy->processReceivedMessage(status);

    EXPECT_TRUE(log.contains("D: vidapp: applicationsStatusUpdated(): #Registered consumers=[0], #Active "
                             "consumers=[0].  {}"))
        << log.dump();
    manager->registerConsumer(OVRA::SRC_AHIVIS);
    EXPECT_EQ(manager->getNumberOfActiveConsumers(), 1U) << "the manager knows the consumer's application runs";
    proxy->setBufferManager(nullptr);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, BufferReadyAnnouncesTheSlotOfTheBufferManager) {
    VIDAPP_REQUIRE_SANDBOX();
    auto manager = std::make_unique<VideoBufferManager>();
    manager->init();
    ISPFrame_t* frame = manager->getWriteBuffer();
    frame->sequenceNumber = 41;
    frame->timestamp = 123456789;
    manager->receiveBufferContents();
    manager->updateFramesRate(66.0F);
    auto proxy = makeProxy();
    proxy->setBufferManager(manager.get());

    proxy->bufferReady(0);

    const auto sent = output.sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].id, OVRA::IMAGE_FRAME_READY);
    ASSERT_EQ(sent[0].payload.size(), 2764952U);
    OVRA::ImageSupport::ImageReady_t expected{};
    std::memset(&expected, 0, sizeof expected);
    expected.sequenceNumber = 41;
    expected.bufferIndex = 0;
    expected.receivedTime_ms = 123456789;
    expected.cameraFramesRate_fps = 15.0F;
    expected.targetBuild = 1;
    EXPECT_EQ(std::memcmp(sent[0].payload.data(), &expected, sizeof expected), 0);
    EXPECT_TRUE(log.contains("V: vidapp: VideoInterfaceAlgorithmProxy.bufferReady(): sending consumers ImageReady#41 "
                             "message for buffer#0"))
        << log.dump();
    proxy->setBufferManager(nullptr);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, BufferReadyRefusedByTheHubIsLoggedAndSwallowed) {
    NoApplication application;
    CommonMessageHandler hub("to_vidapp", 0, application);
    auto proxy = makeProxy();
    proxy->setCommonMessageHandler(&hub);

    proxy->bufferReady(3);

    EXPECT_TRUE(
        log.contains(errorRecord(1045, "bufferReady() exception:[Invalid parameter to sendFeatureAppResults\n]")))
        << log.dump();
    EXPECT_FALSE(log.contains("sending consumers ImageReady"));
}

TEST_F(VideoInterfaceAlgorithmProxyTest, SequenceNumberNeverTakesAllOnes) {
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0), 1U);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0xFFFFFFFDU), 0xFFFFFFFEU);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0xFFFFFFFEU), 0U);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, HitchBallStopWithoutACaptureIsLeftPending) {
    auto proxy = makeProxy();
    setDebugBits("+'");

    proxy->updateCameraStopStatus();

    EXPECT_EQ(checkDebugOn(D_HITCH_BALL_STOP), 1);
    EXPECT_FALSE(log.contains("D_HITCH_BALL_STOP"));
}

// The capture loop, driven through the flag word as in the process, over frames from PGM files.
class VideoInterfaceAlgorithmProxyCaptureTest : public VideoInterfaceAlgorithmProxyTest {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        VideoInterfaceAlgorithmProxyTest::SetUp();
    }

    // No status report: its complaint about the unknown frame rate would mix with the capture's errors.
    std::unique_ptr<VideoInterfaceAlgorithmProxy> makeCapturingProxy(const OVRA::FrameSourceSettings& settings) {
        OVRA::VideoInterfaceConfiguration_t configuration;
        configuration.videoInterfaceLogTimeInterval_ms = 0;
        return makeProxy(settings, configuration);
    }

    // Waits for error 416 with this text (the capture's end, as a rule).
    void waitForError(const std::string& text, std::size_t count = 1) {
        const std::string record = errorRecord(416, text);
        const auto deadline = std::chrono::steady_clock::now() + CAPTURE_TIMEOUT;
        while (log.count(record) < count && std::chrono::steady_clock::now() < deadline) {
            log.waitFor(record, 10ms);
        }
        ASSERT_GE(log.count(record), count) << log.dump();
    }

    // The trace of one frame at level 3, in order.
    void expectFrameTraceInOrder() {
        const std::vector<std::string> trace = {
            "I: vidapp: mCaptureFrame",
            "I: vidapp: getISPFrameInfo()",
            "I: vidapp: store() getISPFrameInfo",
            "I: vidapp: store() setFull",
            "I: vidapp: store() success",
            "I: vidapp: sendFeatureAppResults(MessageIds_e::VIDEO_INTERFACE_RESULTS, &frameIndexData, "
            "sizeof(OVRAInterSystemMessages::VideoInterfaceResults_t))",
        };
        std::size_t next = 0;
        for (const auto& record : log.records()) {
            if (next < trace.size() && record.text == trace[next]) {
                ++next;
            }
        }
        EXPECT_EQ(next, trace.size()) << "trace line missing or out of order: "
                                      << trace[std::min(next, trace.size() - 1)];
    }
};

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, EveryImageLandsUndistortedInSlotZeroAndIsAnnounced) {
    // A leftover slot full of old bytes: the tail beyond the first image must read as zeros.
    {
        SharedMemory leftover("IMAGE_FRAME", true);
        leftover.create(sizeof(ISPFrame_t), 1, false);
        std::memset(leftover.getAddress(0), 0xEE, sizeof(ISPFrame_t));
    }
    // A larger frame after a smaller one, then a smaller one again.
    const std::vector<cv::Mat> images = {vidapp::test::patternImage(400, 300, 1),
                                         vidapp::test::patternImage(800, 1200, 2),
                                         vidapp::test::patternImage(320, 240, 3)};
    auto proxy = makeCapturingProxy(framesOf(images));
    testing::internal::CaptureStdout();
    proxy->initialize();
    const std::uint64_t before_us = ovraSystemTimestamp_us();

    setDebugBits("+)");
    waitForError("startImageCapturing(): Could not read the image file:");
    const std::uint64_t after_us = ovraSystemTimestamp_us();
    proxy->stopFeatureApp();
    const std::string out = testing::internal::GetCapturedStdout();

    const auto sent = results();
    ASSERT_EQ(sent.size(), images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        ASSERT_EQ(sent[i].payload.size(), sizeof(VideoInterfaceResults_t));
        const VideoInterfaceResults_t announced = vidapp::test::parseResults(sent[i].payload.data());
        EXPECT_EQ(announced.bufferIndex, 0U);
        EXPECT_EQ(announced.imageWidth, static_cast<std::uint32_t>(images[i].cols));
        EXPECT_EQ(announced.imageHeight, static_cast<std::uint32_t>(images[i].rows));
        EXPECT_EQ(announced.sequenceNumber, i);
        EXPECT_GE(announced.timestamp, before_us);
        EXPECT_LE(announced.timestamp, after_us);
        EXPECT_EQ(
            vidapp::test::firstDifference(vidapp::test::expectedSlot(images[i], announced.timestamp, i), sent[i].slot),
            "");
    }
    EXPECT_EQ(checkDebugOn(D_LIVE_STREAM_START), 0) << "the command is taken";
    EXPECT_FALSE(proxy->isCameraRunning());
    EXPECT_TRUE(
        hasLinesInOrder(out, {"readSharedCommand() function", "readSharedCommand(): D_LIVE_STREAM_START",
                              " Frame size : 400 x 300, 120000 Pixels 0 FPS", "Could not read the image file."}))
        << out;
    EXPECT_EQ(log.countErrors(416), 1U);
    EXPECT_EQ(log.count("I: vidapp: mCaptureFrame"), 4U) << "three frames and the read that found none";
    expectFrameTraceInOrder();
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest,
       HitchBallStopEndsTheCaptureAfterTheCurrentFrameAndALaterStartBeginsAgain) {
    std::vector<cv::Mat> images;
    for (int i = 0; i < 4; ++i) {
        images.push_back(vidapp::test::patternImage(64, 48, i));
    }
    auto proxy = makeCapturingProxy(framesOf(images));
    proxy->initialize();

    setDebugBits("+)'");
    ASSERT_TRUE(log.waitFor("I: vidapp: updateCameraStopStatus(): D_HITCH_BALL_STOP", CAPTURE_TIMEOUT)) << log.dump();
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (proxy->isCameraRunning() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_FALSE(proxy->isCameraRunning());
    EXPECT_EQ(checkDebugOn(D_HITCH_BALL_STOP), 0) << "the command is taken";
    ASSERT_EQ(results().size(), 1U) << "only the frame under way when the command came";

    setDebugBits("+)");
    waitForError("startImageCapturing(): Could not read the image file:");
    proxy->stopFeatureApp();

    const auto sent = results();
    ASSERT_EQ(sent.size(), 1 + images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
        EXPECT_EQ(vidapp::test::parseResults(sent[1 + i].payload.data()).sequenceNumber, i)
            << "a new capture counts from 0";
    }
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, DefaultCameraThatIsNotHereFailsToOpen) {
    EXPECT_EQ(OVRA::FrameSourceSettings{}.pipeline,
              "nvarguscamerasrc  ! video/x-raw(memory:NVMM), format=(string)NV12, width=(int)800, height=(int)1200, "
              "framerate=(fraction)4/1 !                         nvvidconv         ! video/x-raw,              "
              "format=(string)BGRx !                         videoconvert      ! video/x-raw,              "
              "format=(string)BGR  !                         appsink");
    auto proxy = makeCapturingProxy(OVRA::FrameSourceSettings{});
    testing::internal::CaptureStdout();
    proxy->initialize();

    setDebugBits("+)");
    waitForError("Failed to open camera.");
    proxy->stopFeatureApp();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_TRUE(hasLinesInOrder(out, {"readSharedCommand(): D_LIVE_STREAM_START", "Failed to open camera."})) << out;
    EXPECT_TRUE(log.contains(errorRecord(416, "Failed to open camera.")));
    EXPECT_TRUE(log.contains("pipeline refused: no element \"nvarguscamerasrc\"")) << log.dump();
    EXPECT_FALSE(proxy->isCameraRunning());
    EXPECT_TRUE(output.sent().empty());
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, DirectoryWithoutImagesFailsToOpen) {
    OVRA::FrameSourceSettings settings;
    settings.frameDirectory = directory; // empty
    auto proxy = makeCapturingProxy(settings);
    proxy->initialize();

    setDebugBits("+)");
    waitForError("Failed to open camera.");
    settings.frameDirectory = directory + "/missing";
    proxy->setFrameSourceSettings(settings);
    setDebugBits("+)");
    waitForError("Failed to open camera.", 2);
    proxy->stopFeatureApp();

    EXPECT_TRUE(log.contains("cannot list [" + directory + "/missing]")) << log.dump();
    EXPECT_TRUE(output.sent().empty());
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, ImageThatIsNotAPgmEndsTheCaptureWithAReadError) {
    auto settings = framesOf({vidapp::test::patternImage(64, 48, 1)});
    vidapp::test::writeFileBytes(directory + "/frame001.pgm", "P6\n2 2\n255\n............");
    auto proxy = makeCapturingProxy(settings);
    testing::internal::CaptureStdout();
    proxy->initialize();

    setDebugBits("+)");
    waitForError("startImageCapturing(): Capture read error:");
    proxy->stopFeatureApp();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(results().size(), 1U);
    EXPECT_TRUE(hasLinesInOrder(out, {"Capture read error"})) << out;
    EXPECT_FALSE(proxy->isCameraRunning());
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, ImageLargerThanTheSlotEndsTheCaptureAndTheProxyKeepsServing) {
    auto settings = framesOf({vidapp::test::patternImage(1800, 1800, 1)});
    auto proxy = makeCapturingProxy(settings);
    testing::internal::CaptureStdout();
    proxy->initialize();

    setDebugBits("+)");
    waitForError("startImageCapturing(): Image too large for the frame slot: 1800 x 1800 x 1 bytes (at most 3072000 "
                 "bytes)");
    EXPECT_TRUE(output.sent().empty());

    std::filesystem::remove(directory + "/frame000.pgm");
    framesOf({vidapp::test::patternImage(64, 48, 1)});
    setDebugBits("+)");
    EXPECT_TRUE(output.waitForMessages(1, CAPTURE_TIMEOUT)) << "a later start captures again";
    proxy->stopFeatureApp();
    EXPECT_TRUE(hasLinesInOrder(testing::internal::GetCapturedStdout(), {"Image too large for the frame slot."}));
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, StopFeatureAppEndsARunningCapturePromptly) {
    std::vector<cv::Mat> images(200, vidapp::test::patternImage(32, 24, 1));
    auto proxy = makeCapturingProxy(framesOf(images));
    proxy->initialize();
    setDebugBits("+)");
    ASSERT_TRUE(output.waitForMessages(2, CAPTURE_TIMEOUT));

    const auto stopAt = std::chrono::steady_clock::now();
    proxy->stopFeatureApp();
    const auto stopTime = std::chrono::steady_clock::now() - stopAt;

    EXPECT_LT(stopTime, 1s) << "the 95 ms pace and the one-second poll are interruptible";
    EXPECT_LT(output.sent().size(), images.size());
}

TEST_F(VideoInterfaceAlgorithmProxyCaptureTest, FailedSendCostsOneAnnouncementNotTheCapture) {
    const std::vector<cv::Mat> images = {vidapp::test::patternImage(64, 48, 1), vidapp::test::patternImage(64, 48, 2),
                                         vidapp::test::patternImage(64, 48, 3)};
    auto proxy = makeCapturingProxy(framesOf(images));
    output.failNextSends(1);
    proxy->initialize();

    setDebugBits("+)");
    waitForError("startImageCapturing(): Could not read the image file:");
    proxy->stopFeatureApp();

    EXPECT_TRUE(log.contains(errorRecord(1011, "startImageCapturing(): send exception:[send failed]"))) << log.dump();
    const auto sent = results();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(vidapp::test::parseResults(sent[0].payload.data()).sequenceNumber, 1U);
    EXPECT_EQ(vidapp::test::parseResults(sent[1].payload.data()).sequenceNumber, 2U);
}

} // namespace
