#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include <opencv2/videoio.hpp>

#include "common/SharedMemory.h"
#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"

// The real vidapp process, run in the test's sandbox and watched through the test's own sockets,
// shared memory and flag word.
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vidapp::test::Child;
using vidapp::test::ChildOptions;
using vidapp::test::ChildResult;
using vidapp::test::FlagWord;
using vidapp::test::frameObjects;
using vidapp::test::toMessage;
using vidapp::test::waitUntil;

constexpr const char* VIDAPP = vidapp::test::VIDAPP_PATH;
constexpr std::uint64_t LOGGING = vidapp::test::VIDAPP_LOGGING;
const std::string PATTERN_PIPELINE_CAPS = "video/x-raw,width=320,height=240,framerate=10/1 ! videoconvert ! "
                                          "video/x-raw,format=BGR ! appsink";

class VidappProcessTest : public vidapp::test::VidappProcess {
protected:
    // The next VIDEO_INTERFACE_RESULTS, with a copy of slot 0 taken while vidapp is held (SIGSTOP).
    // vidapp waits 95 ms after each message before it reads its next frame, so a hold that took
    // effect well within that time finds the slot still holding this message's frame; after the last
    // frame nothing follows. A test held up longer (a loaded machine) compares the message only.
    struct Announcement {
        std::vector<std::uint8_t> datagram;
        std::vector<std::uint8_t> slot;
        bool slotHoldsThisFrame = false;
    };
    std::optional<Announcement> nextAnnouncement(bool lastFrame) {
        auto datagram = router.receive(MESSAGE_TIMEOUT);
        if (!datagram) {
            return std::nullopt;
        }
        vidapp->signal(SIGSTOP);
        const bool held = vidapp::test::waitUntilStopped(vidapp->pid());
        const std::uint64_t heldAt_us = ovraSystemTimestamp_us();
        if (!slotView) {
            slotView = std::make_unique<SharedMemory>("IMAGE_FRAME", true);
            slotView->attach(sizeof(ISPFrame_t), 1, false);
        }
        const auto* slot = static_cast<const std::uint8_t*>(slotView->getAddress(0));
        Announcement announcement{std::move(*datagram), {slot, slot + sizeof(ISPFrame_t)}};
        vidapp->signal(SIGCONT);
        const std::uint64_t sentAt_us = toMessage(announcement.datagram).timestamp;
        announcement.slotHoldsThisFrame = held && (lastFrame || heldAt_us < sentAt_us + 80000);
        return announcement;
    }

    // Checks the message and slot 0 of the frame-th frame: header, protection, payload, pixels.
    // A router configured like vidapp (the same ProtocolVersion.ini) verifies the message.
    void expectFrame(const Announcement& announcement, const cv::Mat& image, std::uint32_t frame,
                     DataValidity& receiver, std::uint16_t version) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        ASSERT_EQ(announcement.datagram.size(), 48U);
        const OVRA::PDUMessage_t message = toMessage(announcement.datagram);
        EXPECT_EQ(message.messageId, OVRA::VIDEO_INTERFACE_RESULTS);
        EXPECT_EQ(message.length, 40U);
        EXPECT_EQ(message.count, frame + 1);
        EXPECT_EQ(message.version, version);
        EXPECT_EQ(message.crc, DataValidity::computeMessageCRC(&message));
        EXPECT_EQ(receiver.verify(&message, announcement.datagram.size()), DataValidity::OK);
        const auto results = vidapp::test::parseResults(message.payload);
        EXPECT_EQ(results.bufferIndex, 0U);
        EXPECT_EQ(results.imageWidth, static_cast<std::uint32_t>(image.cols));
        EXPECT_EQ(results.imageHeight, static_cast<std::uint32_t>(image.rows));
        EXPECT_EQ(results.sequenceNumber, frame);
        EXPECT_GT(results.timestamp, 0U);
        EXPECT_LE(results.timestamp, message.timestamp);
        if (!announcement.slotHoldsThisFrame) {
            std::printf("frame %u: the test was held up too long to compare slot 0\n", frame);
            return;
        }
        EXPECT_EQ(vidapp::test::firstDifference(vidapp::test::expectedSlot(image, results.timestamp, frame),
                                                announcement.slot),
                  "");
    }

    std::unique_ptr<SharedMemory> slotView;
};

TEST_F(VidappProcessTest, ReportsReadyAndCreatesTheFrameSegment) {
    ASSERT_TRUE(flags.attached());
    const std::uint64_t before_us = ovraSystemTimestamp_us();
    startVidapp();
    const std::uint64_t after_us = ovraSystemTimestamp_us();

    ASSERT_EQ(readyReport.size(), 44U);
    OVRA::PDUMessage_t expected{};
    expected.messageId = 0x8000002E;
    expected.length = 36;
    expected.count = 1;
    expected.version = 0;
    expected.timestamp = toMessage(readyReport).timestamp;
    std::memcpy(expected.payload, "vidapp", 6);
    expected.payload[16] = 3;
    expected.crc = DataValidity::computeMessageCRC(&expected);
    EXPECT_EQ(std::memcmp(readyReport.data(), &expected, 44), 0);
    EXPECT_GE(expected.timestamp, before_us);
    EXPECT_LE(expected.timestamp, after_us);

    for (int i = 1; i <= 10; ++i) {
        struct stat status {};
        const std::string path = "/dev/shm/IMAGE_FRAME" + std::to_string(i);
        ASSERT_EQ(::stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_size, 3072024);
        EXPECT_EQ(status.st_mode & 0777, 0640U) << path;
    }
    stopVidapp();
}

TEST_F(VidappProcessTest, ImagesOfAFrameDirectoryReachTheRouterAndSlotZero) {
    vidapp::test::writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    DataValidity configuredReceiver; // reads the same file: version 0x0102
    ASSERT_EQ(configuredReceiver.getT1DVersion(), 0x0102);
    {
        // What a killed run left: the slot must not show it.
        SharedMemory leftover("IMAGE_FRAME", true);
        leftover.create(sizeof(ISPFrame_t), 1, false);
        std::memset(leftover.getAddress(0), 0x5A, sizeof(ISPFrame_t));
    }
    const std::vector<cv::Mat> images = {vidapp::test::patternImage(800, 1200, 1),
                                         vidapp::test::patternImage(320, 240, 2),
                                         vidapp::test::patternImage(640, 480, 3)};
    for (std::size_t i = 0; i < images.size(); ++i) {
        vidapp::test::writePgmImage(frameDirectory + "/" + std::to_string(i) + ".pgm", images[i]);
    }
    flags.set(LOGGING | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});

    for (std::uint32_t frame = 0; frame < images.size(); ++frame) {
        const auto announcement = nextAnnouncement(frame + 1 == images.size());
        ASSERT_TRUE(announcement.has_value()) << "frame " << frame << "\n" << vidapp->out();
        expectFrame(*announcement, images[frame], frame, configuredReceiver, 0x0102);
    }
    ASSERT_TRUE(vidapp->waitForOutput("Could not read the image file.\n", MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_NE(vidapp->out().find(" Frame size : 800 x 1200, 960000 Pixels 0 FPS\n"), std::string::npos);
    EXPECT_EQ(flags.value() & D_LIVE_STREAM_START, 0U) << "the command is taken";
    stopVidapp();
}

TEST_F(VidappProcessTest, FramesOfAGStreamerPipelineReachTheRouterAndSlotZero) {
    const std::string pipeline = "videotestsrc num-buffers=3 pattern=ball ! " + PATTERN_PIPELINE_CAPS;
    std::vector<cv::Mat> frames;
    {
        cv::VideoCapture capture(pipeline, cv::CAP_ANY);
        cv::Mat frame;
        while (capture.read(frame)) {
            frames.push_back(frame.clone());
        }
    }
    ASSERT_EQ(frames.size(), 3U);
    flags.set(LOGGING | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_CAMERA_PIPELINE=" + pipeline});

    for (std::uint32_t frame = 0; frame < frames.size(); ++frame) {
        const auto announcement = nextAnnouncement(frame + 1 == frames.size());
        ASSERT_TRUE(announcement.has_value()) << "frame " << frame << "\n" << vidapp->out();
        expectFrame(*announcement, frames[frame], frame, verifier, 0);
    }
    ASSERT_TRUE(vidapp->waitForOutput("Capture read error\n", MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_NE(vidapp->out().find(" Frame size : 320 x 240, 76800 Pixels 10 FPS\n"), std::string::npos);
    stopVidapp();
}

TEST_F(VidappProcessTest, HitchBallStopEndsTheCaptureAfterTheCurrentFrame) {
    for (int i = 0; i < 5; ++i) {
        vidapp::test::writePgmImage(frameDirectory + "/" + std::to_string(i) + ".pgm",
                                    vidapp::test::patternImage(64, 48, i));
    }
    flags.set(LOGGING | D_LIVE_STREAM_START | D_HITCH_BALL_STOP);
    startVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});

    const auto first = router.receive(MESSAGE_TIMEOUT);
    ASSERT_TRUE(first.has_value()) << vidapp->out();
    ASSERT_TRUE(vidapp->waitForOutput("vidapp: updateCameraStopStatus(): D_HITCH_BALL_STOP\n", MESSAGE_TIMEOUT));
    EXPECT_FALSE(router.receive(500ms).has_value()) << "no frame after the stop";
    EXPECT_EQ(flags.value() & D_HITCH_BALL_STOP, 0U) << "the command is taken";

    // Still serving: a new start captures from the first image again.
    flags.set(D_LIVE_STREAM_START);
    const auto again = router.receive(MESSAGE_TIMEOUT);
    ASSERT_TRUE(again.has_value()) << vidapp->out();
    const OVRA::PDUMessage_t message = toMessage(*again);
    EXPECT_EQ(message.count, 2U);
    EXPECT_EQ(vidapp::test::parseResults(message.payload).sequenceNumber, 0U);
    stopVidapp();
}

TEST_F(VidappProcessTest, MissingCameraIsReportedAndCameraSupportDataSetsTheFrameRate) {
    flags.set(LOGGING | D_LOG_LEVEL_VERBOSE | D_LIVE_STREAM_START);
    startVidapp();
    ASSERT_TRUE(vidapp->waitForOutput("Failed to open camera.\n", MESSAGE_TIMEOUT)) << vidapp->out();

    vidapp::test::UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    sender.send(vidapp::test::routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(248, 0)));

    EXPECT_TRUE(vidapp->waitForOutput("vidapp: BufferManager.recordCameraFramesRate(): Frame Rate to 3.000000E+01 fps "
                                      "(3.333333E+01 ms)\n",
                                      MESSAGE_TIMEOUT))
        << vidapp->out();
    stopVidapp();
}

TEST_F(VidappProcessTest, MalformedCameraSupportDataIsLoggedAndDropped) {
    // vidapp runs with a system log of the test's own: /dev/log in a private /dev.
    const std::string directory = workingDirectory;
    const auto capture = vidapp::test::captureSyslog([this, directory] {
        ::mkdir("/dev/shm", 01777);
        if (::mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") != 0) {
            std::printf("RESULT no /dev/shm\n");
            return;
        }
        FlagWord privateFlags;
        privateFlags.set(0x2000000000ULL | D_LOG_LEVEL_ERROR);
        ChildOptions options;
        options.unsetEnvironment = {"VIDAPP_CAMERA_PIPELINE", "VIDAPP_FRAME_DIR", "CLOCK_DIVISOR"};
        options.workingDirectory = directory;
        Child process({VIDAPP}, options);
        if (!launcher.receive(MESSAGE_TIMEOUT)) {
            std::printf("RESULT no READY\n");
            return;
        }
        vidapp::test::UdpSender sender(OVRA::VIDAPP_UDP_PORT);
        sender.send(vidapp::test::routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(100, 0)));
        sender.send(vidapp::test::routerMessage(OVRA::CAMERA_SUPPORT_DATA, 2, std::vector<std::uint8_t>(248, 0)));
        // Every message's ID is traced on standard output as it is decoded, one after the other.
        const auto traced = [&process] {
            const std::string out = process.out();
            std::size_t count = 0;
            for (std::size_t at = out.find("\n16\n"); at != std::string::npos; at = out.find("\n16\n", at + 1)) {
                ++count;
            }
            return count;
        };
        const bool decoded = waitUntil([&] { return traced() >= 2; }, MESSAGE_TIMEOUT);
        process.signal(SIGINT);
        const ChildResult result = process.wait(MESSAGE_TIMEOUT);
        std::printf("RESULT decoded=%d exit=%d\n", decoded ? 1 : 0, result.exited ? result.exitCode : -1);
    });

    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    EXPECT_NE(capture.child.out.find("RESULT decoded=1 exit=0\n"), std::string::npos) << capture.child.out;
    const std::string dropped =
        "101.101.1-7 E:  Error Code:      1203, Error Message:      vidapp: Dropped message ID: "
        "0x0010, Count: 1. Inter-Arrival:[-1.00] ms.";
    std::size_t found = 0;
    for (const auto& line : capture.lines) {
        if (line.identity == "OVRALogs" && line.message == dropped) {
            ++found;
        }
    }
    EXPECT_EQ(found, 1U) << capture.child.out;
}

TEST_F(VidappProcessTest, SigintDuringCaptureEndsTheProcessPromptly) {
    flags.set(LOGGING | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_CAMERA_PIPELINE=videotestsrc is-live=true pattern=ball ! " + PATTERN_PIPELINE_CAPS});
    ASSERT_TRUE(router.receive(MESSAGE_TIMEOUT).has_value()) << vidapp->out();
    ASSERT_TRUE(router.receive(MESSAGE_TIMEOUT).has_value()) << vidapp->out();

    stopVidapp();
    EXPECT_NE(vidapp->out().find("vidapp: stopFeatureApp():  STOPPED.\n"), std::string::npos) << vidapp->out();
}

TEST_F(VidappProcessTest, ProfilerCommandsLeaveAProfileInTheWorkingDirectory) {
    startVidapp();
    const fs::path profiles = fs::path(workingDirectory) / "tmp";
    const auto profile = [&]() -> std::optional<fs::path> {
        if (fs::is_directory(profiles)) {
            for (const auto& entry : fs::directory_iterator(profiles)) {
                if (entry.path().filename().string().rfind("profile_app_video_interface_", 0) == 0 &&
                    entry.path().extension() == ".log") {
                    return entry.path();
                }
            }
        }
        return std::nullopt;
    };

    flags.set(D_PROFILER_START);
    ASSERT_TRUE(waitUntil([&] { return profile().has_value(); }, MESSAGE_TIMEOUT)) << vidapp->out();
    flags.set(D_PROFILER_STOP);
    EXPECT_TRUE(waitUntil([&] { return fs::file_size(*profile()) > 0; }, MESSAGE_TIMEOUT));
    EXPECT_TRUE(waitUntil([&] { return (flags.value() & D_PROFILER_START) == 0; }, MESSAGE_TIMEOUT))
        << "stopping takes the start command";
    stopVidapp();
}

TEST_F(VidappProcessTest, FlagWordThatCannotBeAttachedEndsTheProcessWithStatusZero) {
    // A segment of the same key but the wrong size: the flag word cannot be had.
    const int word = shmget(DLOG_SHARED_MEMORY_KEY, 0, 0);
    ASSERT_NE(word, -1);
    ASSERT_EQ(shmctl(word, IPC_RMID, nullptr), 0);
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_NE(foreign, -1);

    const ChildResult result = vidapp::test::runProgram({VIDAPP}, {}, 10s);
    shmctl(foreign, IPC_RMID, nullptr);

    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "Shared Memory DLog Initialization Failed\nShared memory Initialization Failed. Exiting!!\n");
    EXPECT_FALSE(launcher.receive(100ms).has_value());
}

} // namespace
