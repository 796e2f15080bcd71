#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "tests/log/SyslogSink.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"

// Faults the real vidapp process must survive, each provoked for real in the test's sandbox.
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace vidapp::test;
using testing::HasSubstr;

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class VidappFaultTest : public VidappProcess {
protected:
    // Enough images in frameDirectory for a capture that outlasts the test.
    void endlessFrames() {
        for (int i = 0; i < 200; ++i) {
            writePgmImage(frameDirectory + "/" + std::to_string(1000 + i) + ".pgm", patternImage(64, 48, i));
        }
    }
};

TEST_F(VidappFaultTest, ProtocolVersionFileMissingOrMalformedMeansVersionZeroLoggedOnce) {
    writePgmImage(frameDirectory + "/0.pgm", patternImage(64, 48, 1));
    // vidapp with a system log of the test's own, without the file and then with a malformed one: a
    // frame each time, checked by a receiver configured alike, then a short and a valid datagram.
    const SyslogCapture capture = withOwnSystemLog([this](FlagWord& privateFlags) {
        for (const std::string file : {"", "[Protocol]\nT1D_VER 0102\n"}) {
            if (!file.empty()) {
                writeFileBytes("/NFS/ProtocolVersion.ini", file);
            }
            DataValidity receiver;
            privateFlags.set(0x2000000000ULL | D_LOG_LEVEL_ERROR | D_LIVE_STREAM_START); // vidapp: errors only
            launchVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});
            const bool ready = launcher.receive(MESSAGE_TIMEOUT).has_value();
            const auto results = router.receive(MESSAGE_TIMEOUT);
            const OVRA::PDUMessage_t message = toMessage(results.value_or(std::vector<std::uint8_t>{}));
            UdpSender sender(OVRA::VIDAPP_UDP_PORT);
            sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(100, 0)));
            sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 2, std::vector<std::uint8_t>(248, 0)));
            // Every message's ID is traced on standard output as it is decoded, one after the other.
            const bool decoded = waitUntil([&] { return occurrences(vidapp->out(), "\n16\n") >= 2; }, MESSAGE_TIMEOUT);
            vidapp->signal(SIGINT);
            const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
            std::printf("RESULT ready=%d results=%d version=%d verify=%d decoded=%d exit=%d\n", ready,
                        results.has_value(), message.version, results ? receiver.verify(&message, results->size()) : -1,
                        decoded, result.exited ? result.exitCode : -1);
        }
    });
    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    EXPECT_EQ(occurrences(capture.child.out, "RESULT ready=1 results=1 version=0 verify=0 decoded=1 exit=0\n"), 2U)
        << capture.child.out;
    std::string records;
    for (const auto& line : capture.lines) {
        records += line.identity == "OVRALogs" ? line.message + "\n" : "";
    }
    // Each run logs its file's fault once, and drops the short CAMERA_SUPPORT_DATA, not the valid one.
    const std::pair<std::string, std::size_t> expected[] = {
        {"101.101.1-7 E:  Error Code:      1009, Error Message:      vidapp: ProtocolVersion.ini not found\n", 1},
        {"101.101.1-7 E:  Error Code:      1010, Error Message:      vidapp: Error in ProtocolVersion.ini on 2\n", 1},
        {"ProtocolVersion.ini", 2},
        {"101.101.1-7 E:  Error Code:      1203, Error Message:      vidapp: Dropped message ID: 0x0010, Count: 1. "
         "Inter-Arrival:[-1.00] ms.\n",
         2},
        {"Dropped", 2}};
    for (const auto& [part, count] : expected) {
        EXPECT_EQ(occurrences(records, part), count) << part << "\n" << records;
    }
}

// Standard output a pipe that nobody reads: the lines that would wait are dropped and counted, the
// receive thread goes on (its fail-safe still stops the process) and so does a live-stream start; the
// count is reported once the pipe is read again.
TEST_F(VidappFaultTest, AConsoleNobodyReadsStallsNeitherMessagesNorCaptureNorTheStop) {
    writePgmImage(frameDirectory + "/0.pgm", patternImage(64, 48, 1));
    const std::string fifo = workingDirectory + "/console";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const int console = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); // a reader that does not read
    ASSERT_GE(console, 0);
    flags.set(VIDAPP_LOGGING);
    ChildOptions options;
    options.unsetEnvironment = {"VIDAPP_CAMERA_PIPELINE", "CLOCK_DIVISOR"};
    options.setEnvironment = {"VIDAPP_FRAME_DIR=" + frameDirectory};
    options.workingDirectory = workingDirectory;
    vidapp = std::make_unique<Child>(std::vector<std::string>{"/bin/sh", "-c", "exec \"$0\" >console", VIDAPP_PATH},
                                     options);
    ASSERT_TRUE(launcher.receive(MESSAGE_TIMEOUT).has_value()) << vidapp->wait(1s).describe();
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    const auto supportData = routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(248, 0));
    // Trace lines until the pipe is full, then some more that cannot be written.
    const int capacity = ::fcntl(console, F_GETPIPE_SZ);
    const auto full = [&] {
        for (int i = 0; i < 50; ++i) {
            sender.send(supportData);
        }
        int queued = 0;
        return ::ioctl(console, FIONREAD, &queued) == 0 && queued > capacity - 512;
    };
    ASSERT_TRUE(waitUntil(full, 30s));
    for (int i = 0; i < 200; ++i) {
        sender.send(supportData);
    }
    flags.set(D_LIVE_STREAM_START);
    EXPECT_TRUE(router.receive(MESSAGE_TIMEOUT).has_value()) << "the capture does not wait for the console";
    // Read again, the console gets the count of what it missed with the next line.
    std::string out;
    const auto readConsole = [&] {
        char chunk[65536];
        for (ssize_t n; (n = ::read(console, chunk, sizeof(chunk))) > 0;) {
            out.append(chunk, static_cast<std::size_t>(n));
        }
        return out.find(" console lines dropped: the reader was not keeping up\n") != std::string::npos;
    };
    (void)readConsole();
    sender.send(supportData);
    EXPECT_TRUE(waitUntil(readConsole, MESSAGE_TIMEOUT)) << out.substr(out.size() > 500 ? out.size() - 500 : 0);
    std::vector<std::uint8_t> mismatched = supportData;
    mismatched[4] = 200; // the length field
    for (int i = 0; i < 6; ++i) {
        sender.send(mismatched);
    }
    const ChildResult result = vidapp->wait(10s);
    ::close(console);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.err;
    EXPECT_TRUE(frameObjects().empty());
}

// A system log that stops reading, with error logging on: records that cannot be queued are dropped
// and neither messages nor the capture nor the stop wait for it.
TEST_F(VidappFaultTest, AStalledSystemLogStallsNeitherMessagesNorCaptureNorTheStop) {
    writePgmImage(frameDirectory + "/0.pgm", patternImage(64, 48, 1));
    const SyslogCapture capture = withOwnSystemLog([this](FlagWord& privateFlags) {
        privateFlags.set(VIDAPP_LOGGING);
        launchVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});
        const bool ready = launcher.receive(MESSAGE_TIMEOUT).has_value();
        UdpSender sender(OVRA::VIDAPP_UDP_PORT);
        const auto shortSupport = routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(100, 0));
        for (int i = 0; i < 100; ++i) { // a dropped-message record each
            sender.send(shortSupport);
        }
        const bool decoded = waitUntil([&] { return occurrences(vidapp->out(), "\n16\n") >= 100; }, MESSAGE_TIMEOUT);
        privateFlags.set(D_LIVE_STREAM_START);
        const bool captured = router.receive(MESSAGE_TIMEOUT).has_value();
        const auto sentAt = std::chrono::steady_clock::now();
        vidapp->signal(SIGINT);
        const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
        const bool quick = std::chrono::steady_clock::now() - sentAt < 2s;
        std::printf("RESULT ready=%d decoded=%d captured=%d quick=%d exit=%d\n", ready, decoded, captured, quick,
                    result.exited ? result.exitCode : -1);
    });
    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    EXPECT_THAT(capture.child.out, HasSubstr("RESULT ready=1 decoded=1 captured=1 quick=1 exit=0\n"));
    EXPECT_LT(capture.lines.size(), 100U) << "the logger held only what its queue takes";
}

// Real cameras stall: one whose next frame is 30 s away, one that opens and never delivers, one that
// stops delivering mid-capture (then speaks again), one whose open blocks. The capture keeps obeying
// the stop and the hitch-ball stop while it waits, warns once of a silence over 5 s, and invents no
// frame.
TEST_F(VidappFaultTest, AStalledCameraNeverHoldsUpTheStopOrTheHitchBallStop) {
    const std::string frames = "rawvideoparse width=64 height=48 format=bgr framerate=4/1 ! appsink";
    const std::string fifo = workingDirectory + "/camera";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::uint8_t> frame(64 * 48 * 3, 7);
    UdpSender camera(50499);
    const std::string stalled = "startImageCapturing(): no frame from the camera for 5 s\n";
    const std::string again = "startImageCapturing(): frames from the camera again after ";
    enum Stall { NEXT_FRAME_30_S_AWAY, NEVER_DELIVERS, STOPS_MID_CAPTURE, OPEN_BLOCKS };
    const std::pair<Stall, std::string> cases[] = {
        {NEXT_FRAME_30_S_AWAY,
         "videotestsrc is-live=true ! video/x-raw,format=BGR,width=64,height=48,framerate=1/30 ! appsink"},
        {NEVER_DELIVERS, "udpsrc port=50499 ! " + frames},
        {STOPS_MID_CAPTURE, "udpsrc port=50499 ! " + frames},
        {OPEN_BLOCKS, "filesrc location=" + fifo + " ! " + frames}};
    for (const auto& [stall, pipeline] : cases) {
        SCOPED_TRACE(pipeline);
        flags.set(VIDAPP_LOGGING | D_LOG_LEVEL_WARNING | D_LIVE_STREAM_START);
        startVidapp({"VIDAPP_CAMERA_PIPELINE=" + pipeline});
        ASSERT_TRUE(vidapp->waitForOutput("vidapp: startImageCapturing() function\n", MESSAGE_TIMEOUT));
        switch (stall) {
        case NEXT_FRAME_30_S_AWAY: // a live source delivers a frame once its 30 s are over
            EXPECT_FALSE(router.receive(500ms).has_value());
            break;
        case NEVER_DELIVERS: // the hitch-ball stop ends a capture that waits for its first frame
            flags.set(D_HITCH_BALL_STOP);
            EXPECT_TRUE(vidapp->waitForOutput("updateCameraStopStatus(): D_HITCH_BALL_STOP\n", MESSAGE_TIMEOUT));
            EXPECT_TRUE(waitUntil([&] { return (flags.value() & D_HITCH_BALL_STOP) == 0; }, MESSAGE_TIMEOUT));
            break;
        case STOPS_MID_CAPTURE: {
            // A frame until one is announced (the source may not listen yet), then silence.
            const auto deliver = [&] {
                return waitUntil([&] { return camera.send(frame), router.receive(200ms).has_value(); },
                                 MESSAGE_TIMEOUT);
            };
            ASSERT_TRUE(deliver()) << vidapp->out();
            EXPECT_TRUE(vidapp->waitForOutput(stalled, 10s)) << "warned once the camera was silent for 5 s";
            while (router.receive(0ms).has_value()) { // announcements of the frames sent before the silence
            }
            EXPECT_FALSE(router.receive(1s).has_value()) << "no frame is invented";
            EXPECT_TRUE(deliver());
            EXPECT_TRUE(vidapp->waitForOutput(again, MESSAGE_TIMEOUT));
            break;
        }
        case OPEN_BLOCKS:
            EXPECT_FALSE(vidapp->waitForOutput(" Frame size", 500ms));
            break;
        }
        stopVidapp();
        EXPECT_EQ(occurrences(vidapp->out(), stalled), stall == STOPS_MID_CAPTURE ? 1U : 0U);
    }
}

// A start that fails ends within seconds with status 1 and its reason, stops in order what had
// started, and leaves nothing of its own behind: port 50427 held by another process, /dev/shm too
// small for the ten objects, an object of another user, a directory or a FIFO in an object's place.
TEST_F(VidappFaultTest, AFailedStartLeavesNothingBehind) {
    flags.set(VIDAPP_LOGGING);
    const std::pair<std::string, std::string> cases[] = {
        {"port",
         "InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, bind() errno: 98 (Address already in use)"},
        {"full", "SharedMemory::create(): posix_fallocate() failed with error:[No space left on device]"},
        {"foreign", "SharedMemory::create(): IMAGE_FRAME1 is owned by user 12345, not by this process's user 0: "
                    "refused"},
        {"directory", "SharedMemory::create(): shm_open() failed with error:["},
        {"fifo", "SharedMemory::create(): IMAGE_FRAME5 is not a shared memory object: refused"}};
    for (const auto& [fault, reason] : cases) {
        SCOPED_TRACE(fault);
        ASSERT_EQ(::mount("tmpfs", "/dev/shm", "tmpfs", 0, fault == "full" ? "size=16m" : "mode=1777"), 0);
        std::optional<UdpReceiver> holder; // another process's socket
        if (fault == "port") {
            holder.emplace(OVRA::VIDAPP_UDP_PORT);
        } else if (fault == "foreign") {
            writeFileBytes("/dev/shm/IMAGE_FRAME1", "");
            ASSERT_EQ(::chown("/dev/shm/IMAGE_FRAME1", 12345, 12345), 0);
        } else if (fault == "directory") {
            ASSERT_EQ(::mkdir("/dev/shm/IMAGE_FRAME5", 0700), 0);
        } else if (fault == "fifo") {
            ASSERT_EQ(::mkfifo("/dev/shm/IMAGE_FRAME5", 0600), 0);
        }
        launchVidapp();
        const auto started = std::chrono::steady_clock::now();
        const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
        EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        EXPECT_THAT(result.err, HasSubstr("vidapp: start-up failed: " + reason)) << result.err;
        EXPECT_THAT(result.out, HasSubstr("vidapp: stopFeatureApp():  STOPPED.\n"));
        const std::vector<std::string> left = frameObjects();
        EXPECT_EQ(left, fault == "foreign"                        ? std::vector<std::string>{"IMAGE_FRAME1"}
                        : fault == "directory" || fault == "fifo" ? std::vector<std::string>{"IMAGE_FRAME5"}
                                                                  : std::vector<std::string>{});
        EXPECT_FALSE(launcher.receive(0ms).has_value()) << "no READY report";
        ASSERT_EQ(::umount("/dev/shm"), 0);
    }
}

// "IMAGE_FRAME1" cut short under a running capture ends that capture, not the process; one removed
// from outside does not keep the other nine at the stop.
TEST_F(VidappFaultTest, AFrameObjectShrunkOrRemovedFromOutsideNeverKillsTheProcess) {
    endlessFrames();
    for (const off_t size : {off_t{0}, off_t{4096}}) {
        SCOPED_TRACE(size);
        flags.set(VIDAPP_LOGGING | D_LIVE_STREAM_START);
        startVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});
        ASSERT_TRUE(router.receive(MESSAGE_TIMEOUT).has_value()) << vidapp->out();
        ASSERT_EQ(::truncate("/dev/shm/IMAGE_FRAME1", size), 0);
        EXPECT_TRUE(vidapp->waitForOutput("Frame slot cut short.\n", MESSAGE_TIMEOUT)) << vidapp->out();
        EXPECT_TRUE(vidapp->running());
        ASSERT_EQ(::shm_unlink("IMAGE_FRAME1"), 0);
        stopVidapp();
    }
}

} // namespace
