#include "video_interface/VideoInterfaceAlgorithmProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <thread>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "tests/support/Expect.h"
#include "tests/support/Sandbox.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"
#include "video_interface/VideoBufferManager.h"

// Frames in slot 0 and at the router, the default camera, hitch-ball stop, SIGINT: see VidappProcessTest.
namespace {

using namespace std::chrono_literals;
using OVRA::VideoInterfaceAlgorithmProxy;
using Messages = std::vector<std::pair<unsigned, std::vector<std::uint8_t>>>;

// Stands in for the message hub: keeps every message, and fails the first `failures` sends.
class VideoInterfaceAlgorithmProxyTest : public ::testing::Test, public FeatureAppOutput {
protected:
    void sendFeatureAppResults(unsigned int messageId, const void* data, unsigned long size) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (failures > 0) {
            --failures;
            throw CommunicationException(1011, "send failed");
        }
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        messages.emplace_back(messageId, std::vector<std::uint8_t>(bytes, bytes + size));
    }
    void sendFeatureAppResults(OVRA::PDUWriteOnly&) override { throw std::logic_error("not used by the proxy"); }
    void sendFeatureAppResults(OVRA::PDUReadWrite&) override { throw std::logic_error("not used by the proxy"); }
    Messages sent() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }

    std::unique_ptr<VideoInterfaceAlgorithmProxy> makeProxy(std::uint32_t logInterval_ms = 5000) {
        OVRA::VideoInterfaceConfiguration_t configuration;
        configuration.videoInterfaceLogTimeInterval_ms = logInterval_ms;
        auto proxy = std::make_unique<VideoInterfaceAlgorithmProxy>(configuration, OVRA::FrameSourceSettings{});
        proxy->setCommonMessageHandler(this);
        return proxy;
    }

    unsigned run(VideoInterfaceAlgorithmProxy& proxy, std::uint32_t triggerMessageId) {
        OVRA::VideoInterfaceInputAggregate_t input{};
        input.header.triggerMessageId = triggerMessageId;
        return proxy.featureAppRun(input, *this);
    }

    // The error record as the log front end makes it: cut to 127 characters, a cut marked "***".
    bool loggedError(std::uint32_t code, const std::string& text) {
        const std::string record =
            "E:  Error Code:      " + std::to_string(code) + ", Error Message:      vidapp: " + text;
        return log.contains(record.size() > 128 ? record.substr(0, 124) + "***" : record.substr(0, 127));
    }

    // A directory in the sandbox's private /dev/shm holding the images as PGM files, in name order.
    static std::string framesIn(const std::string& name, const std::vector<cv::Mat>& images) {
        const std::string path = "/dev/shm/" + name;
        std::filesystem::create_directories(path);
        for (std::size_t i = 0; i < images.size(); ++i) {
            vidapp::test::writePgmImage(path + "/" + std::to_string(i) + ".pgm", images[i]);
        }
        return path;
    }

    // Starts a capture from that directory (or pipeline) through the flag word; waits for the error
    // 416 of its end.
    void captureUntil(VideoInterfaceAlgorithmProxy& proxy, const std::string& directory, const std::string& text,
                      const std::string& pipeline = "") {
        OVRA::FrameSourceSettings settings;
        settings.frameDirectory = directory;
        settings.pipeline = pipeline;
        proxy.setFrameSourceSettings(settings);
        setDebugBits("+)");
        ASSERT_TRUE(vidapp::test::waitUntil([&] { return loggedError(416, text); }, 20s)) << log.dump();
    }

    vidapp::test::LogCapture log;
    int failures = 0; // set before the proxy's threads start, then under mutex
    std::mutex mutex;
    Messages messages; // mutex
};

TEST_F(VideoInterfaceAlgorithmProxyTest, InitializeLogsAFailureAndTakesOverLeftoversAndStopAndExitLeaveNothing) {
    VIDAPP_REQUIRE_SANDBOX();
    ASSERT_TRUE(std::filesystem::create_directory("/dev/shm/IMAGE_FRAME1"));
    EXPECT_THAT(vidapp::test::failureOf<SharedMemoryException>([&] { makeProxy()->initialize(); }),
                testing::StartsWith("1100 "));
    EXPECT_TRUE(loggedError(
        1100, "initialize() exception: [SharedMemory::create(): shm_open() failed with error:[Is a directory]]"));
    EXPECT_EQ(log.countErrors(1100), 2U) << "the shared memory layer's record and the proxy's";
    std::filesystem::remove("/dev/shm/IMAGE_FRAME1");
    log.clear();

    vidapp::test::writeFileBytes("/dev/shm/IMAGE_FRAME4", std::string(4096, 'x')); // a killed run's, of another size
    auto proxy = makeProxy();
    proxy->initialize();
    EXPECT_EQ(std::filesystem::file_size("/dev/shm/IMAGE_FRAME4"), 3072024U);
    EXPECT_EQ(vidapp::test::frameObjects().size(), 10U);
    EXPECT_EQ(proxy->getStatusTask().taskState.load(), OVRA::TASK_SCHEDULED);
    for (const char* line :
         {"I: vidapp: VideoInterfaceAlgorithmProxy::initialize()", "D: vidapp: initialize(): success",
          "D: vidapp: initialize(): mRestartGlobalRecoveryTrials= 5",
          "D: vidapp: initialize(): Linux build (Hostsim). ",
          "D: vidapp: initialize(): mVideoInterfaceLogTimeInterval_ms= 5000",
          "V: vidapp: VideoInterfaceAlgorithmProxy::initialize() VideoInterface.JSON Contrast enhancement turned [On]",
          "D: vidapp: initialize(): buffer manager init'd OK"}) {
        EXPECT_EQ(log.count(line), 1U) << line;
    }
    EXPECT_TRUE(log.waitFor("I: vidapp: readSharedCommand() function:", 5s));
    proxy->stopFeatureApp();
    proxy->stopFeatureApp();
    EXPECT_EQ(log.count("D: vidapp: stopFeatureApp():  STOPPED."), 2U);
    EXPECT_EQ(proxy->getStatusTask().taskState.load(), OVRA::TASK_CANCELLED);
    proxy.reset();
    EXPECT_TRUE(vidapp::test::frameObjects().empty()) << "the segment goes with the proxy";
}

TEST_F(VideoInterfaceAlgorithmProxyTest, CameraRateAndEstimateAndTheImageReadyOfAFrameAndItsSequenceNumbers) {
    VIDAPP_REQUIRE_SANDBOX();
    auto proxy = makeProxy();
    proxy->logVideoInterfaceStatus();
    EXPECT_TRUE(
        loggedError(416, "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera Frame Rate: 0.000000"));
    proxy->recordCameraFramesRate_fps(-1.0);
    EXPECT_EQ(proxy->getCameraFramesRate_fps(), 15.0);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms(), 66.66666666666667);
    EXPECT_TRUE(loggedError(
        419, "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera Frame Rate: -1.000000E+00"));
    EXPECT_TRUE(log.contains(
        "V: vidapp: BufferManager.recordCameraFramesRate(): Frame Rate to 1.500000E+01 fps (6.666667E+01 ms)"));
    proxy->recordCameraFramesRate_fps(25.0);
    proxy->recordCameraFramesRate_fps(25.0);
    EXPECT_EQ(log.count("Frame Rate to 2.500000E+01 fps (4.000000E+01 ms)"), 1U) << "the same rate is logged once";
    proxy->logVideoInterfaceStatus();
    EXPECT_EQ(log.countErrors(416), 1U) << "a known rate is not reported";

    EXPECT_FLOAT_EQ(proxy->estimateFramesRate_fps(), 30.0F) << "no buffer manager: the initial estimate";
    auto manager = std::make_unique<VideoBufferManager>(); // 30 MB: never on the stack
    proxy->setBufferManager(manager.get());
    for (const auto& [period, expected] : std::vector<std::pair<float, float>>{
             {0.0F, 30.0F}, {65.0F, 15.0F}, {50.0F, 15.0F}, {33.0F, 30.0F}, {50.0F, 30.0F}, {74.0F, 15.0F}}) {
        manager->updateFramesRate(period);
        EXPECT_FLOAT_EQ(proxy->estimateFramesRate_fps(), expected) << period << " ms";
    }
    EXPECT_TRUE(log.contains("V: vidapp: estimateFramesRate(): [65.00] ms --> [15.0] fps"));
    EXPECT_TRUE(log.contains("V: vidapp: estimateFramesRate(): [50.00] ms --> [30.0] fps"));
    manager->init();
    manager->getWriteBuffer()->sequenceNumber = 41;
    manager->getWriteBuffer()->timestamp = 123456789;
    manager->receiveBufferContents();
    manager->updateFramesRate(66.0F);
    proxy->bufferReady(0);
    proxy->setBufferManager(nullptr);
    auto expected = std::make_unique<OVRA::ImageSupport::ImageReady_t>(); // all zeros
    expected->sequenceNumber = 41;
    expected->receivedTime_ms = 123456789;
    expected->cameraFramesRate_fps = 15.0F;
    expected->targetBuild = 1;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(expected.get());
    EXPECT_EQ(sent(), (Messages{{OVRA::IMAGE_FRAME_READY, std::vector<std::uint8_t>(bytes, bytes + 2764952)}}));
    EXPECT_TRUE(log.contains(
        "V: vidapp: VideoInterfaceAlgorithmProxy.bufferReady(): sending consumers ImageReady#41 message for buffer#0"));

    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0), 1U);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0xFFFFFFFDU), 0xFFFFFFFEU);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::nextSequenceNumber(0xFFFFFFFEU), 0U);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, FirstRunAsksConsumersToRegisterAgainOnceAndTheMessagesActedOnReachTheirEnds) {
    auto proxy = makeProxy();
    for (const std::uint32_t id : {0x80000004U, 0x8000001CU, 26U}) {
        EXPECT_EQ(run(*proxy, id), 0U) << id;
    }
    EXPECT_EQ(run(*proxy, OVRA::CAMERA_SUPPORT_DATA), 1006U);
    EXPECT_EQ(sent(), (Messages{{OVRA::VIDEO_INTERFACE_REGISTER_AGAIN, std::vector<std::uint8_t>(4)}}));
    EXPECT_TRUE(log.contains("V: vidapp: featureAppRun(): triggering message ID:[0x80000004]"));
    EXPECT_TRUE(log.contains("V: vidapp: featureAppRun(): triggering message ID:[0x1a]"));
    EXPECT_TRUE(loggedError(1006, "Unexpected trigger message ID:[0x10]"));

    auto refused = makeProxy(); // a refused request is logged, and only the first run asks
    failures = 1;
    run(*refused, OVRA::SYSTEM_APPLICATION_STATUS);
    run(*refused, OVRA::SYSTEM_APPLICATION_STATUS);
    EXPECT_TRUE(loggedError(1004, "sendRegisterAgainMessage() exception:[send failed]"));
    EXPECT_EQ(sent().size(), 1U);

    OVRAInterSystemMessages::CameraSupport_t camera{};
    camera.rvcCameraOnStatus = 7;
    proxy->processReceivedMessage(camera);
    EXPECT_EQ(VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms(), 33.333333333333336);
    EXPECT_TRUE(log.contains("V: vidapp: Camera Support Data message received"));
    // Until initialize() says otherwise the proxy takes itself for the target build.
    EXPECT_TRUE(log.contains("V: vidapp: process Camera Support message: rvcCameraOnStatus:[7]"));
    for (const std::uint8_t id : {0, 14, 255}) {
        proxy->processReceivedMessage(OVRAInterSystemMessages::VideoConsumerRegister_t{id, {}});
        EXPECT_TRUE(loggedError(421, "process VideoConsumerRegister_t(): invalid video consumerId:[" +
                                         std::to_string(id) + "]"));
    }
    OVRA::SystemApplicationStatus_t status{};
    status.applicationStatus[OVRA::SRC_AHIVIS] = OVRA::RUNNING;
    proxy->processReceivedMessage(status); // no buffer manager: nothing to do
    auto manager = std::make_unique<VideoBufferManager>();
    proxy->setBufferManager(manager.get());
    proxy->processReceivedMessage(status);
    manager->registerConsumer(OVRA::SRC_AHIVIS);
    EXPECT_EQ(manager->getNumberOfActiveConsumers(), 1U) << "the registry knows the consumer's application runs";
    EXPECT_EQ(log.count("applicationsStatusUpdated()"), 1U);
    proxy->setBufferManager(nullptr);
}

TEST_F(VideoInterfaceAlgorithmProxyTest, CaptureFailuresEndTheCaptureALaterStartCapturesAgainAndStopIsPrompt) {
    VIDAPP_REQUIRE_SANDBOX();
    const cv::Mat small = vidapp::test::patternImage(64, 48, 1);
    const std::string notPgm = framesIn("notpgm", {small});
    vidapp::test::writeFileBytes(notPgm + "/1.pgm", "P6\n2 2\n255\n............");
    auto proxy = makeProxy(0); // no status report: its complaint would mix with the capture's errors
    failures = 1;
    testing::internal::CaptureStdout();
    proxy->initialize();
    captureUntil(*proxy, framesIn("frames", {small, vidapp::test::patternImage(80, 60, 2), small}),
                 "startImageCapturing(): Could not read the image file:");
    EXPECT_TRUE(loggedError(1011, "startImageCapturing(): send exception:[send failed]"));
    const Messages results = sent();
    ASSERT_EQ(results.size(), 2U) << "a failed send costs one announcement, not the capture";
    for (std::uint32_t i = 1; i < 3; ++i) {
        EXPECT_EQ(vidapp::test::parseResults(results[i - 1].second.data()).sequenceNumber, i);
        EXPECT_EQ(vidapp::test::parseResults(results[i - 1].second.data()).imageWidth, i == 1 ? 80U : 64U);
    }
    captureUntil(
        *proxy, "",
        "startImageCapturing(): Image too large for the frame slot: 1800 x 1800 x 3 bytes (at most 3072000 bytes)",
        "videotestsrc num-buffers=1 ! video/x-raw,format=BGR,width=1800,height=1800 ! appsink");
    captureUntil(*proxy, notPgm, "startImageCapturing(): Capture read error:");
    EXPECT_EQ(sent().size(), 3U) << "each later start captured again";
    // A header that claims more than a slot holds is refused before a pixel is read; so is a FIFO,
    // whose open would wait for a writer.
    const std::string hostile = framesIn("hostile", {});
    vidapp::test::writeFileBytes(hostile + "/0.pgm", "P5\n16384 16384\n255\n");
    ASSERT_EQ(mkfifo((hostile + "/1.pgm").c_str(), 0600), 0);
    captureUntil(*proxy, hostile, "Failed to open camera.");
    EXPECT_TRUE(loggedError(1045, "General STL exception: ImageFile ctor(): Image too large. File:[" + hostile +
                                      "/0.pgm] claims 16384 x 16384 pixels, more than 1024000"));
    std::filesystem::remove(hostile + "/0.pgm");
    log.clear();
    captureUntil(*proxy, hostile, "Failed to open camera.");
    EXPECT_TRUE(loggedError(1045, "General STL exception: ImageFile ctor(): error openning file:[" + hostile +
                                      "/1.pgm]. error:[Not a regular file]"));

    OVRA::FrameSourceSettings endless; // runs until the application stops
    endless.frameDirectory = framesIn("many", std::vector<cv::Mat>(200, small));
    proxy->setFrameSourceSettings(endless);
    setDebugBits("+)");
    EXPECT_TRUE(vidapp::test::waitUntil([&] { return sent().size() >= 5; }, 20s));
    const auto stopAt = std::chrono::steady_clock::now();
    proxy->stopFeatureApp();
    EXPECT_LT(std::chrono::steady_clock::now() - stopAt, 1s) << "the pace and the poll are interruptible";
    EXPECT_FALSE(proxy->isCameraRunning()) << "the capture ended with the application";
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(HasFailure()) << out; // the failure messages went to the captured output
    for (const char* line :
         {"readSharedCommand() function\n", "readSharedCommand(): D_LIVE_STREAM_START\n",
          "Could not read the image file.\n", "Image too large for the frame slot.\n", "Capture read error\n"}) {
        EXPECT_THAT(out, testing::HasSubstr(line));
    }
}

// The capture paces itself at 95 ms after each frame's message, and the command thread reads the flag
// word once a second.
TEST_F(VideoInterfaceAlgorithmProxyTest, TheCapturePacesAt95MsAndTheWordIsPolledOnceASecond) {
    VIDAPP_REQUIRE_SANDBOX();
    auto proxy = makeProxy(0);
    proxy->initialize();
    const auto stampOf = [&](std::size_t index) { // the frame's time stamp, µs
        return vidapp::test::parseResults(sent().at(index).second.data()).timestamp;
    };
    captureUntil(*proxy, framesIn("paced", std::vector<cv::Mat>(6, vidapp::test::patternImage(64, 48, 1))),
                 "startImageCapturing(): Could not read the image file:");
    ASSERT_EQ(sent().size(), 6U);
    for (std::size_t i = 1; i < 6; ++i) {
        const std::uint64_t interval_us = stampOf(i) - stampOf(i - 1);
        EXPECT_GE(interval_us, 95000U) << i;
        EXPECT_LT(interval_us, 400000U) << i;
    }
    // The polls go on a second apart from the end of the capture (the last frame's pace and the end of
    // the frames); a start given half a second after one of them waits for the next.
    const std::uint64_t poll_us = stampOf(5) + 95000;
    const std::uint64_t now_us = ovraSystemTimestamp_us();
    const std::uint64_t commandAt_us = poll_us + ((now_us - poll_us) / 1000000 + 1) * 1000000 + 500000;
    std::this_thread::sleep_for(std::chrono::microseconds(commandAt_us - ovraSystemTimestamp_us()));
    setDebugBits("+)");
    ASSERT_TRUE(vidapp::test::waitUntil([&] { return sent().size() == 7U; }, 5s)) << log.dump();
    const std::uint64_t waited_us = stampOf(6) - commandAt_us;
    EXPECT_GT(waited_us, 300000U) << "the start waits for the next poll";
    EXPECT_LT(waited_us, 800000U) << "which comes a second after the one before";
    proxy->stopFeatureApp();
}

} // namespace
