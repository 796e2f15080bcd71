#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opencv2/videoio.hpp>

#include "common/SharedMemory.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"

// The real vidapp process, watched through the sandbox's sockets, shared memory and flag word.
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace vidapp::test;
using testing::HasSubstr;

// What bin/vidapp becomes once it has blocked the stop signals.
const fs::path PROCESS_PATH = VIDAPP_BIN_DIR "/../libexec/vidapp/vidapp";

// A signal mask line of /proc/<pid>/status ("SigBlk:", "SigIgn:"), for the process's main thread.
std::uint64_t signalMask(pid_t pid, const std::string& field) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    const std::string status((std::istreambuf_iterator<char>(file)), {});
    const std::size_t at = status.find("\n" + field);
    return at == std::string::npos ? 0 : std::stoull(status.substr(at + field.size() + 1), nullptr, 16);
}

bool has(std::uint64_t mask, int signalNumber) {
    return (mask >> (signalNumber - 1) & 1) != 0;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return std::string((std::istreambuf_iterator<char>(file)), {});
}

class VidappProcessTest : public VidappProcess {
protected:
    // Checks the next VIDEO_INTERFACE_RESULTS and slot 0 against the frame-th image. The slot is read
    // while vidapp is held (SIGSTOP); it waits 95 ms after a message before the next frame, so a hold
    // well within that finds this frame. A test held up longer (a loaded machine) checks the message.
    void expectNextFrame(const cv::Mat& image, std::uint32_t frame, bool last, DataValidity& receiver,
                         std::uint16_t version) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        const auto datagram = router.receive(MESSAGE_TIMEOUT);
        ASSERT_TRUE(datagram.has_value()) << vidapp->out();
        vidapp->signal(SIGSTOP);
        const bool held = waitUntilStopped(vidapp->pid());
        const std::uint64_t heldAt_us = ovraSystemTimestamp_us();
        SharedMemory view("IMAGE_FRAME", true);
        view.attach(sizeof(ISPFrame_t), 1, false);
        const auto* slot = static_cast<const std::uint8_t*>(view.getAddress(0));
        const std::vector<std::uint8_t> bytes(slot, slot + sizeof(ISPFrame_t));
        vidapp->signal(SIGCONT);
        const OVRA::PDUMessage_t message = toMessage(*datagram);
        EXPECT_EQ(message.messageId, OVRA::VIDEO_INTERFACE_RESULTS);
        EXPECT_EQ(message.count, frame + 1);
        EXPECT_EQ(message.version, version);
        EXPECT_EQ(receiver.verify(&message, datagram->size()), DataValidity::OK) << "length, CRC, version, count";
        const auto results = parseResults(message.payload);
        EXPECT_EQ(results.bufferIndex, 0U);
        EXPECT_EQ(results.imageWidth, static_cast<std::uint32_t>(image.cols));
        EXPECT_EQ(results.imageHeight, static_cast<std::uint32_t>(image.rows));
        EXPECT_EQ(results.sequenceNumber, frame);
        EXPECT_LE(results.timestamp, message.timestamp);
        if (held && (last || heldAt_us < message.timestamp + 80000)) {
            EXPECT_EQ(firstDifference(expectedSlot(image, results.timestamp, frame), bytes), "");
        } else {
            std::printf("frame %u: the test was held up too long to compare slot 0\n", frame);
        }
    }
};

TEST_F(VidappProcessTest, ReportsReadyServesWithoutTheCameraAndProfilesOnCommand) {
    flags.set(VIDAPP_LOGGING | D_LOG_LEVEL_VERBOSE | D_LIVE_STREAM_START);
    const std::uint64_t before_us = ovraSystemTimestamp_us();
    startVidapp();
    const std::uint64_t after_us = ovraSystemTimestamp_us();
    ASSERT_EQ(readyReport.size(), 44U);
    OVRA::PDUMessage_t expected{};
    expected.messageId = 0x8000002E;
    expected.length = 36;
    expected.count = 1;
    expected.timestamp = toMessage(readyReport).timestamp;
    std::memcpy(expected.payload, "vidapp", 6);
    expected.payload[16] = 3;
    expected.crc = DataValidity::computeMessageCRC(&expected);
    EXPECT_EQ(std::memcmp(readyReport.data(), &expected, 44), 0);
    EXPECT_GE(expected.timestamp, before_us);
    EXPECT_LE(expected.timestamp, after_us);
    for (int i = 1; i <= 10; ++i) {
        const fs::path path = "/dev/shm/IMAGE_FRAME" + std::to_string(i);
        EXPECT_EQ(fs::file_size(path), 3072024U) << path;
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640)) << path;
    }

    // The default pipeline's camera does not exist here; vidapp goes on serving.
    ASSERT_TRUE(vidapp->waitForOutput("Failed to open camera.\n", MESSAGE_TIMEOUT)) << vidapp->out();
    UdpSender(OVRA::VIDAPP_UDP_PORT)
        .send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(248, 0)));
    EXPECT_TRUE(vidapp->waitForOutput("vidapp: BufferManager.recordCameraFramesRate(): Frame Rate to 3.000000E+01 fps "
                                      "(3.333333E+01 ms)\n",
                                      MESSAGE_TIMEOUT))
        << vidapp->out();
    const auto profile = [this] { // the first file of tmp/, where nothing else is written
        std::error_code error;
        const fs::directory_iterator files(fs::path(workingDirectory) / "tmp", error);
        return files == fs::directory_iterator() ? fs::path() : files->path();
    };
    flags.set(D_PROFILER_START);
    ASSERT_TRUE(waitUntil([&] { return !profile().empty(); }, MESSAGE_TIMEOUT)) << vidapp->out();
    flags.set(D_PROFILER_STOP);
    EXPECT_TRUE(waitUntil([&] { return fs::file_size(profile()) > 0; }, MESSAGE_TIMEOUT));
    EXPECT_THAT(profile().filename().string(), testing::MatchesRegex("profile_app_video_interface_.*\\.log"));
    EXPECT_TRUE(waitUntil([&] { return (flags.value() & D_PROFILER_START) == 0; }, MESSAGE_TIMEOUT))
        << "stopping takes the start command";
    stopVidapp();
}

TEST_F(VidappProcessTest, ImagesOfAFrameDirectoryReachTheRouterAndSlotZeroUntilAHitchBallStop) {
    writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    DataValidity configuredReceiver; // reads the same file: version 0x0102
    {
        // What a killed run left: the slot must not show it.
        SharedMemory leftover("IMAGE_FRAME", true);
        leftover.create(sizeof(ISPFrame_t), 1, false);
        std::memset(leftover.getAddress(0), 0x5A, sizeof(ISPFrame_t));
    }
    const cv::Mat images[] = {patternImage(800, 1200, 1), patternImage(320, 240, 2), patternImage(640, 480, 3)};
    for (int i = 0; i < 3; ++i) {
        writePgmImage(frameDirectory + "/" + std::to_string(i) + ".pgm", images[i]);
    }
    flags.set(VIDAPP_LOGGING | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});
    for (std::uint32_t frame = 0; frame < 3; ++frame) {
        expectNextFrame(images[frame], frame, frame == 2, configuredReceiver, 0x0102);
    }
    ASSERT_TRUE(vidapp->waitForOutput("Could not read the image file.\n", MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_THAT(vidapp->out(), HasSubstr(" Frame size : 800 x 1200, 960000 Pixels 0 FPS\n"));
    EXPECT_EQ(flags.value() & D_LIVE_STREAM_START, 0U) << "the command is taken";

    // A new start captures from the first image again; the hitch-ball stop ends it after that frame.
    flags.set(D_LIVE_STREAM_START | D_HITCH_BALL_STOP);
    const OVRA::PDUMessage_t again = toMessage(router.receive(MESSAGE_TIMEOUT).value_or(std::vector<std::uint8_t>{}));
    EXPECT_EQ(again.count, 4U);
    EXPECT_EQ(parseResults(again.payload).sequenceNumber, 0U);
    ASSERT_TRUE(vidapp->waitForOutput("vidapp: updateCameraStopStatus(): D_HITCH_BALL_STOP\n", MESSAGE_TIMEOUT));
    EXPECT_FALSE(router.receive(500ms).has_value()) << "no frame after the stop";
    EXPECT_EQ(flags.value() & D_HITCH_BALL_STOP, 0U) << "the command is taken";
    stopVidapp();
}

TEST_F(VidappProcessTest, PipelineFramesUntilTheStreamEndsThenWithoutTheFlagWordANewCaptureUntilSigint) {
    // The vehicle's caps chain: NV12 from the camera, BGRx from its converter, then BGR.
    const std::string source =
        "pattern=ball ! video/x-raw,format=NV12,width=800,height=1200,framerate=4/1 ! "
        "videoconvert ! video/x-raw,format=BGRx ! videoconvert ! video/x-raw,format=BGR ! appsink";
    std::vector<cv::Mat> frames;
    {
        cv::VideoCapture capture("videotestsrc num-buffers=3 " + source, cv::CAP_ANY);
        for (cv::Mat frame; capture.read(frame);) {
            frames.push_back(frame.clone());
        }
    }
    ASSERT_EQ(frames.size(), 3U);
    flags.set(VIDAPP_LOGGING | D_LOG_LEVEL_VERBOSE | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_CAMERA_PIPELINE=videotestsrc num-buffers=12 " + source});
    for (std::uint32_t frame = 0; frame < frames.size(); ++frame) {
        expectNextFrame(frames[frame], frame, false, verifier, 0);
    }
    for (std::uint16_t count = 4; count <= 12; ++count) {
        ASSERT_EQ(toMessage(router.receive(MESSAGE_TIMEOUT).value_or(std::vector<std::uint8_t>{})).count, count);
    }
    EXPECT_THAT(vidapp->out(), HasSubstr(" Frame size : 800 x 1200, 960000 Pixels 4 FPS\n"));
    // The stream has ended: the loop leaves through its read-failure row, and vidapp serves on.
    ASSERT_TRUE(vidapp->waitForOutput("Capture read error\n", MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_FALSE(router.receive(300ms).has_value()) << "no frame after the end of the stream";
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    const std::vector<std::uint8_t> cameraSupport(sizeof(OVRAInterSystemMessages::CameraSupport_t), 0);
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, cameraSupport));
    ASSERT_TRUE(
        vidapp->waitForOutput("decodeMessagePayload(): decode message (ID: 0x0010, count: 1,", MESSAGE_TIMEOUT));

    // The operator removes the word: vidapp follows the key to a word of its own making, all logging off.
    ASSERT_EQ(runProgram({VIDAPP_DLOG_PATH, "remove"}).exitCode, 0);
    const auto removedAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitUntil([] { return shmget(DLOG_SHARED_MEMORY_KEY, 0, 0) != -1; }, MESSAGE_TIMEOUT));
    EXPECT_LT(std::chrono::steady_clock::now() - removedAt, 3s);
    const std::size_t mark = vidapp->out().size();
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 2, cameraSupport));
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 3, cameraSupport));
    // IDs are traced before logging on one thread: once the third is traced, the second was logged.
    const auto tracedTwice = [&] {
        const std::string after = vidapp->out().substr(mark);
        return after.find("16\n", after.find("16\n") + 1) != std::string::npos;
    };
    ASSERT_TRUE(waitUntil(tracedTwice, MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_EQ(vidapp->out().find("decodeMessagePayload()", mark), std::string::npos) << vidapp->out().substr(mark);

    // Logging and a live-stream start in the new word: a new capture, numbered from 0, counted on.
    ASSERT_EQ(runProgram({VIDAPP_DLOG_PATH, "+L1345)"}).exitCode, 0);
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 4, cameraSupport));
    EXPECT_TRUE(
        vidapp->waitForOutput("decodeMessagePayload(): decode message (ID: 0x0010, count: 4,", MESSAGE_TIMEOUT));
    const OVRA::PDUMessage_t again = toMessage(router.receive(MESSAGE_TIMEOUT).value_or(std::vector<std::uint8_t>{}));
    EXPECT_EQ(again.count, 13U);
    EXPECT_EQ(parseResults(again.payload).sequenceNumber, 0U);
    stopVidapp(); // in the middle of the capture's 12 frames
    EXPECT_THAT(vidapp->out(), HasSubstr("vidapp: stopFeatureApp():  STOPPED.\n"));
}

TEST_F(VidappProcessTest, FlagWordThatCannotBeAttachedEndsTheProcessWithStatusZero) {
    // A segment of the same key but the wrong size: the flag word cannot be had.
    const int word = shmget(DLOG_SHARED_MEMORY_KEY, 0, 0);
    ASSERT_NE(word, -1);
    ASSERT_EQ(shmctl(word, IPC_RMID, nullptr), 0);
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_NE(foreign, -1);

    const ChildResult result = vidapp::test::runProgram({VIDAPP_PATH}, {}, 10s);
    shmctl(foreign, IPC_RMID, nullptr);

    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "Shared Memory DLog Initialization Failed\nShared memory Initialization Failed. Exiting!!\n");
    EXPECT_FALSE(launcher.receive(100ms).has_value());
}

// SIGTERM and SIGHUP stop vidapp as SIGINT does, also one that comes while the libraries still load;
// SIGPIPE is ignored; the process keeps its name; a second vidapp is refused before it touches
// anything, and the first does not notice.
TEST_F(VidappProcessTest, StopSignalsEndItInOrderItKeepsItsNameAndASecondOneIsRefused) {
    flags.set(VIDAPP_LOGGING);
    const fs::path process = fs::canonical(PROCESS_PATH);
    for (const int stopSignal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(stopSignal);
        launchVidapp();
        const auto execed = [&] {
            std::error_code error;
            return fs::read_symlink("/proc/" + std::to_string(vidapp->pid()) + "/exe", error) == process;
        };
        ASSERT_TRUE(waitUntil(execed, MESSAGE_TIMEOUT)) << vidapp->wait(1s).describe();
        const std::uint64_t blocked = signalMask(vidapp->pid(), "SigBlk:");
        EXPECT_TRUE(has(blocked, SIGINT) && has(blocked, SIGTERM) && has(blocked, SIGHUP)) << std::hex << blocked;
        EXPECT_TRUE(has(signalMask(vidapp->pid(), "SigIgn:"), SIGPIPE));
        auto sentAt = std::chrono::steady_clock::now();
        if (stopSignal == SIGINT) {
            vidapp->signal(SIGINT); // its libraries are still loading
            // Start-up goes on to its end; the pending signal then ends the wait at once.
            EXPECT_TRUE(launcher.receive(MESSAGE_TIMEOUT).has_value()) << "start-up goes on to its end";
            sentAt = std::chrono::steady_clock::now();
        } else {
            ASSERT_TRUE(launcher.receive(MESSAGE_TIMEOUT).has_value()) << vidapp->wait(1s).describe();
            const std::string task = "/proc/" + std::to_string(vidapp->pid()) + "/task/";
            EXPECT_EQ(readFile(task + std::to_string(vidapp->pid()) + "/comm"), "vidapp\n");
            // Each thread names itself once it runs.
            std::vector<std::string> threads;
            const auto named = [&] {
                threads.clear();
                for (const auto& entry : fs::directory_iterator(task)) {
                    threads.push_back(readFile(entry.path() / "comm"));
                }
                return testing::Value(threads,
                                      testing::IsSupersetOf({"vidapp\n", "InputIPCRun\n", "TimerRun\n",
                                                             "readSharedComma\n", "ApplicationRun-\n", "profile\n"}));
            };
            EXPECT_TRUE(waitUntil(named, MESSAGE_TIMEOUT)) << testing::PrintToString(threads);
            const ChildResult second = runProgram({VIDAPP_PATH}, {}, MESSAGE_TIMEOUT);
            EXPECT_TRUE(second.exited && second.exitCode == 1) << second.describe();
            EXPECT_EQ(second.err, "vidapp: not started: another vidapp is already running (instance lock \"@vidapp\" "
                                  "is held)\n");
            EXPECT_EQ(second.out, "");
            EXPECT_FALSE(launcher.receive(200ms).has_value()) << "no READY from the second";
            EXPECT_EQ(frameObjects().size(), 10U);
            EXPECT_TRUE(vidapp->running());
            sentAt = std::chrono::steady_clock::now();
            vidapp->signal(stopSignal);
        }
        const ChildResult result = vidapp->wait(10s);
        EXPECT_LT(std::chrono::steady_clock::now() - sentAt, 2s);
        EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
        const std::size_t ready = result.out.find("vidapp: sent READY message ID: 0x8000002e to Launcher\n");
        EXPECT_NE(result.out.find("vidapp: mainEntry(): caught signal: " + std::to_string(stopSignal) + "\n", ready),
                  std::string::npos)
            << result.out;
        EXPECT_THAT(result.out, HasSubstr("vidapp: stopFeatureApp():  STOPPED.\n"));
        EXPECT_TRUE(frameObjects().empty());
    }
}

// Only the local host reaches port 50427; from there, six datagrams whose size disagrees with their
// length field make the receive thread give up, and the process stops in order.
TEST_F(VidappProcessTest, ReceivesOnLoopbackOnlyAndTheReceiveThreadGivingUpStopsTheProcess) {
    flags.set(VIDAPP_LOGGING);
    startVidapp();
    // A port bound to every address would refuse this address's bind.
    const int other = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(OVRA::VIDAPP_UDP_PORT);
    address.sin_addr.s_addr = htonl(0x7F000002); // 127.0.0.2
    EXPECT_EQ(::bind(other, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << std::strerror(errno);
    ::close(other);

    std::vector<std::uint8_t> mismatched = routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, std::vector<std::uint8_t>(8));
    mismatched[4] = 200; // the length field
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    for (int i = 0; i < 5; ++i) {
        sender.send(mismatched);
    }
    EXPECT_FALSE(vidapp->waitForOutput("caught signal", 300ms)) << "five are survived";
    sender.send(mismatched);
    const ChildResult result = vidapp->wait(10s);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_THAT(result.out, HasSubstr("vidapp: mainEntry(): caught signal: 2\nvidapp: commonMsgHandler stopped OK"));
    EXPECT_TRUE(frameObjects().empty());
}

// A registration through a real datagram is refused with 421 naming the consumer, as every one is;
// the three messages with no payload at all are dropped and logged.
TEST_F(VidappProcessTest, ARegistrationIsRefusedByNameAndMessagesWithoutPayloadAreDropped) {
    const SyslogCapture capture = withOwnSystemLog([this](FlagWord& privateFlags) {
        privateFlags.set(0x2000000000ULL | D_LOG_LEVEL_ERROR);
        launchVidapp();
        const bool ready = launcher.receive(MESSAGE_TIMEOUT).has_value();
        UdpSender sender(OVRA::VIDAPP_UDP_PORT);
        sender.send(routerMessage(OVRA::VIDEO_CONSUMER_REGISTER, 1, {7, 0, 0, 0}));
        const std::uint32_t empty[] = {OVRA::VIDEO_CONSUMER_REGISTER, OVRA::SYSTEM_APPLICATION_STATUS,
                                       OVRA::CAMERA_SUPPORT_DATA};
        for (const std::uint32_t id : empty) {
            sender.send(routerMessage(id, 2, {}));
        }
        const bool decoded = vidapp->waitForOutput("2147483676\n2147483676\n2147483652\n16\n", MESSAGE_TIMEOUT);
        vidapp->signal(SIGINT);
        const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
        std::printf("RESULT ready=%d decoded=%d exit=%d\n", ready, decoded, result.exited ? result.exitCode : -1);
    });
    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    EXPECT_THAT(capture.child.out, HasSubstr("RESULT ready=1 decoded=1 exit=0\n"));
    std::vector<std::string> records;
    for (const auto& line : capture.lines) {
        if (line.message.find("Error Code:      1009") == std::string::npos) { // no ProtocolVersion.ini here
            records.push_back(line.message);
        }
    }
    const std::string dropped =
        "101.101.1-7 E:  Error Code:      1203, Error Message:      vidapp: Dropped message ID: ";
    const std::string expected[] = {
        "101.101.1-7 E:  Error Code:      421, Error Message:      vidapp: process VideoConsumerRegister_t(): invalid "
        "video consumerId:[7]",
        dropped + "0x8000001c, Count: 2. Inter-Arrival:[", dropped + "0x80000004, Count: 2. Inter-Arrival:[",
        dropped + "0x0010, Count: 2. Inter-Arrival:["};
    ASSERT_EQ(records.size(), std::size(expected)) << testing::PrintToString(records);
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].rfind(expected[i], 0), 0U) << records[i];
    }
}

// With CLOCK_DIVISOR=1000 every stamp is in milliseconds: the READY report, the results message, its
// payload and slot 0's header; "1000ms" reads as 1000, as the other processes read it.
TEST_F(VidappProcessTest, TheClockDivisorAppliesToMessageStampsAndFrameHeaders) {
    writePgmImage(frameDirectory + "/0.pgm", patternImage(64, 48, 1));
    const auto now_ms = [] {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count());
    };
    flags.set(VIDAPP_LOGGING | D_LIVE_STREAM_START);
    const std::uint64_t before_ms = now_ms();
    startVidapp({"CLOCK_DIVISOR=1000ms", "VIDAPP_FRAME_DIR=" + frameDirectory});
    const auto results = router.receive(MESSAGE_TIMEOUT);
    ASSERT_TRUE(results.has_value()) << vidapp->out();
    const std::uint64_t after_ms = now_ms();
    SharedMemory view("IMAGE_FRAME", true);
    view.attach(sizeof(ISPFrame_t), 1, false);
    const auto* slot = static_cast<const ISPFrame_t*>(view.getAddress(0));
    const OVRA::PDUMessage_t message = toMessage(*results);
    const std::uint64_t stamps[] = {toMessage(readyReport).timestamp, message.timestamp,
                                    parseResults(message.payload).timestamp, slot->timestamp};
    for (const std::uint64_t stamp : stamps) {
        EXPECT_GE(stamp, before_ms);
        EXPECT_LE(stamp, after_ms);
    }
    view.detach();
    stopVidapp();
    EXPECT_THAT(vidapp->err(), HasSubstr("CLOCK_DIVISOR=\"1000ms\" has text after its number: using 1000\n"));
}

} // namespace
