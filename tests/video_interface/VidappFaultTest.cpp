#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/SharedMemory.h"
#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "log/DynamicDebug.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/Child.h"
#include "tests/support/Pgm.h"
#include "tests/support/Udp.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"

// Faults the real vidapp process must survive, each provoked for real in the test's sandbox.
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vidapp::test::Child;
using vidapp::test::ChildOptions;
using vidapp::test::ChildResult;
using vidapp::test::FlagWord;
using vidapp::test::frameObjects;
using vidapp::test::routerMessage;
using vidapp::test::toMessage;
using vidapp::test::UdpSender;
using vidapp::test::waitUntil;

constexpr std::uint64_t VIDAPP_BIT = 0x2000000000ULL;
constexpr std::uint64_t LOGGING = vidapp::test::VIDAPP_LOGGING;
const std::string PATTERN_CAPS =
    "video/x-raw,width=320,height=240,framerate=10/1 ! videoconvert ! video/x-raw,format=BGR ! appsink";
const std::vector<std::uint8_t> CAMERA_SUPPORT_PAYLOAD(sizeof(OVRAInterSystemMessages::CameraSupport_t), 0);

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// Another process's socket on a UDP port of all local addresses: exclusive, or shared the way
// vidapp shares its own (SO_REUSEADDR and SO_REUSEPORT).
class PortHolder {
public:
    PortHolder(std::uint16_t port, bool share) {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        if (share) {
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        address.sin_port = htons(port);
        bound = fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~PortHolder() {
        if (fd >= 0) {
            close(fd);
        }
    }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;

    bool isBound() const { return bound; }
    // Datagrams waiting for the holder, read and counted.
    std::size_t drain() {
        std::size_t count = 0;
        char buffer[65536];
        while (recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) {
            ++count;
        }
        return count;
    }

private:
    int fd = -1;
    bool bound = false;
};

// Reads the signal mask of a process's main thread from /proc, again and again, quickly.
class SignalMaskReader {
public:
    explicit SignalMaskReader(pid_t pid) : fd(::open(("/proc/" + std::to_string(pid) + "/status").c_str(), O_RDONLY)) {}
    ~SignalMaskReader() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    SignalMaskReader(const SignalMaskReader&) = delete;
    SignalMaskReader& operator=(const SignalMaskReader&) = delete;

    std::optional<std::uint64_t> blocked() {
        const ssize_t length = ::pread(fd, text, sizeof text - 1, 0);
        if (length <= 0) {
            return std::nullopt;
        }
        text[length] = '\0';
        const char* line = std::strstr(text, "\nSigBlk:");
        if (line == nullptr) {
            return std::nullopt;
        }
        return std::strtoull(line + 8, nullptr, 16);
    }

private:
    int fd;
    char text[4096] = {};
};

class VidappFaultTest : public vidapp::test::VidappProcess {
protected:
    // The next VIDEO_INTERFACE_RESULTS: its count and the frame's sequence number.
    void expectResults(std::uint16_t count, std::uint32_t sequenceNumber) {
        const auto datagram = router.receive(MESSAGE_TIMEOUT);
        ASSERT_TRUE(datagram.has_value()) << "count " << count << "\n" << vidapp->out();
        const OVRA::PDUMessage_t message = toMessage(*datagram);
        EXPECT_EQ(message.messageId, OVRA::VIDEO_INTERFACE_RESULTS);
        EXPECT_EQ(message.count, count);
        EXPECT_EQ(vidapp::test::parseResults(message.payload).sequenceNumber, sequenceNumber);
        EXPECT_EQ(verifier.verify(&message, datagram->size()), DataValidity::OK);
    }

    // What vidapp did with /NFS/ProtocolVersion.ini as it is now: one frame captured and its
    // results checked by a receiver without the file, every record of the system log kept.
    struct VersionRun {
        vidapp::test::SyslogCapture capture;
        std::string result; // "RESULT ..." line of the child
    };
    VersionRun runWithSystemLog() {
        vidapp::test::writePgmImage(frameDirectory + "/0.pgm", vidapp::test::patternImage(64, 48, 1));
        const std::string directory = workingDirectory;
        const std::string frames = frameDirectory;
        VersionRun run;
        // vidapp runs with a system log of the test's own: /dev/log in a private /dev.
        run.capture = vidapp::test::captureSyslog([this, directory, frames] {
            ::mkdir("/dev/shm", 01777);
            if (::mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") != 0) {
                std::printf("RESULT no /dev/shm\n");
                return;
            }
            FlagWord privateFlags;
            privateFlags.set(VIDAPP_BIT | D_LOG_LEVEL_ERROR | D_LIVE_STREAM_START);
            ChildOptions options;
            options.unsetEnvironment = {"VIDAPP_CAMERA_PIPELINE", "CLOCK_DIVISOR"};
            options.setEnvironment = {"VIDAPP_FRAME_DIR=" + frames};
            options.workingDirectory = directory;
            Child process({vidapp::test::VIDAPP_PATH}, options);
            const auto ready = launcher.receive(MESSAGE_TIMEOUT);
            const auto results = router.receive(MESSAGE_TIMEOUT);
            int version = -1;
            int verdict = -1;
            if (results) {
                const OVRA::PDUMessage_t message = toMessage(*results);
                version = message.version;
                verdict = verifier.verify(&message, results->size());
            }
            const bool ended = process.waitForOutput("Could not read the image file.\n", MESSAGE_TIMEOUT);
            process.signal(SIGINT);
            const ChildResult result = process.wait(MESSAGE_TIMEOUT);
            std::printf("RESULT ready=%d results=%d version=%d verify=%d ended=%d exit=%d\n", ready ? 1 : 0,
                        results ? 1 : 0, version, verdict, ended ? 1 : 0, result.exited ? result.exitCode : -1);
        });
        const std::string& out = run.capture.child.out;
        const std::size_t at = out.find("RESULT ");
        if (at != std::string::npos) {
            run.result = out.substr(at, out.find('\n', at) - at);
        }
        return run;
    }

    static std::size_t countRecords(const vidapp::test::SyslogCapture& capture, const std::string& part) {
        std::size_t count = 0;
        for (const auto& line : capture.lines) {
            if (line.identity == "OVRALogs" && line.message.find(part) != std::string::npos) {
                ++count;
            }
        }
        return count;
    }
};

TEST_F(VidappFaultTest, CameraStreamEndingMidCaptureLeavesVidappServingAndALaterStartCapturesAgain) {
    flags.set(LOGGING | D_LOG_LEVEL_VERBOSE | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_CAMERA_PIPELINE=videotestsrc num-buffers=3 pattern=ball ! " + PATTERN_CAPS});
    for (std::uint32_t frame = 0; frame < 3; ++frame) {
        expectResults(static_cast<std::uint16_t>(frame + 1), frame);
    }
    // The stream ends: the loop leaves through its read-failure row.
    ASSERT_TRUE(vidapp->waitForOutput("Capture read error\n", MESSAGE_TIMEOUT)) << vidapp->out();
    EXPECT_FALSE(router.receive(300ms).has_value()) << "no frame after the end of the stream";

    // Still serving: a message is decoded and acted on.
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, CAMERA_SUPPORT_PAYLOAD));
    EXPECT_TRUE(vidapp->waitForOutput("vidapp: BufferManager.recordCameraFramesRate(): Frame Rate to 3.000000E+01 fps",
                                      MESSAGE_TIMEOUT))
        << vidapp->out();

    // A later command opens the camera again: a new capture, numbered from 0, counted on.
    flags.set(D_LIVE_STREAM_START);
    for (std::uint32_t frame = 0; frame < 3; ++frame) {
        expectResults(static_cast<std::uint16_t>(frame + 4), frame);
    }
    EXPECT_TRUE(waitUntil([&] { return occurrences(vidapp->out(), "Capture read error\n") == 2; }, MESSAGE_TIMEOUT))
        << vidapp->out();
    EXPECT_EQ(occurrences(vidapp->out(), " Frame size : 320 x 240, 76800 Pixels 10 FPS\n"), 2U);
    stopVidapp();
}

TEST_F(VidappFaultTest, FrameObjectsLeftByAKilledRunAreTakenOverAtTheNextStart) {
    startVidapp();
    ASSERT_EQ(frameObjects().size(), 10U);
    vidapp->signal(SIGKILL);
    const ChildResult killed = vidapp->wait(MESSAGE_TIMEOUT);
    ASSERT_EQ(killed.signal, SIGKILL) << killed.describe();
    ASSERT_EQ(frameObjects().size(), 10U) << "a killed run cannot clean up";

    // Leftovers of the wrong size, one with stale bytes where the next frame's zeros belong.
    std::map<std::string, ino_t> inodes;
    for (const std::string& name : frameObjects()) {
        struct stat status {};
        ASSERT_EQ(::stat(("/dev/shm/" + name).c_str(), &status), 0);
        inodes[name] = status.st_ino;
    }
    {
        const int first = ::open("/dev/shm/IMAGE_FRAME1", O_RDWR);
        ASSERT_GE(first, 0);
        ASSERT_EQ(::ftruncate(first, 4096), 0);
        const std::vector<std::uint8_t> stale(4096, 0x5A);
        ASSERT_EQ(::pwrite(first, stale.data(), stale.size(), 0), 4096);
        ::close(first);
        ASSERT_EQ(::truncate("/dev/shm/IMAGE_FRAME7", 4 * 1024 * 1024), 0);
    }

    const cv::Mat image = vidapp::test::patternImage(64, 48, 3);
    vidapp::test::writePgmImage(frameDirectory + "/0.pgm", image);
    flags.set(LOGGING | D_LIVE_STREAM_START);
    startVidapp({"VIDAPP_FRAME_DIR=" + frameDirectory});

    for (const auto& [name, inode] : inodes) {
        struct stat status {};
        ASSERT_EQ(::stat(("/dev/shm/" + name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_ino, inode) << name << " is taken over, not made anew";
        EXPECT_EQ(status.st_size, static_cast<off_t>(sizeof(ISPFrame_t))) << name;
    }
    const auto results = router.receive(MESSAGE_TIMEOUT);
    ASSERT_TRUE(results.has_value()) << vidapp->out();
    ASSERT_TRUE(vidapp->waitForOutput("Could not read the image file.\n", MESSAGE_TIMEOUT)) << vidapp->out();
    {
        // The capture has ended: slot 0 holds the one frame, and nothing of the stale bytes.
        SharedMemory slotView("IMAGE_FRAME", true);
        slotView.attach(sizeof(ISPFrame_t), 1, false);
        const auto* slot = static_cast<const std::uint8_t*>(slotView.getAddress(0));
        const auto timestamp = vidapp::test::parseResults(toMessage(*results).payload).timestamp;
        EXPECT_EQ(vidapp::test::firstDifference(vidapp::test::expectedSlot(image, timestamp, 0),
                                                std::vector<std::uint8_t>(slot, slot + sizeof(ISPFrame_t))),
                  "");
    }
    stopVidapp();
}

TEST_F(VidappFaultTest, PortHeldExclusivelyByAnotherProcessEndsStartUpInOrderWithStatusOne) {
    PortHolder holder(OVRA::VIDAPP_UDP_PORT, false);
    ASSERT_TRUE(holder.isBound());
    flags.set(LOGGING);
    launchVidapp();
    const auto started = std::chrono::steady_clock::now();
    const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - started;

    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    EXPECT_LT(took, 5s);
    EXPECT_NE(result.err.find("vidapp: start-up failed: InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, "
                              "bind() errno: 98 (Address already in use)\n"),
              std::string::npos)
        << result.describe();
    // What had started is stopped in order, and nothing is left behind.
    EXPECT_NE(result.out.find("vidapp: stopFeatureApp():  STOPPED.\n"), std::string::npos) << result.out;
    EXPECT_TRUE(frameObjects().empty());
    EXPECT_FALSE(launcher.receive(100ms).has_value()) << "no READY report";
}

TEST_F(VidappFaultTest, PortSharedByAnotherReusingProcessSplitsTheDatagramsBetweenThem) {
    PortHolder holder(OVRA::VIDAPP_UDP_PORT, true);
    ASSERT_TRUE(holder.isBound());
    startVidapp();

    // The kernel spreads the senders over the sockets that share the port.
    constexpr std::size_t SENDERS = 32;
    for (std::uint16_t i = 1; i <= SENDERS; ++i) {
        UdpSender sender(OVRA::VIDAPP_UDP_PORT);
        sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, i, CAMERA_SUPPORT_PAYLOAD));
    }
    std::size_t held = 0;
    const auto taken = [&] { return occurrences(vidapp->out(), "\n16\n"); };
    EXPECT_TRUE(waitUntil(
        [&] {
            held += holder.drain();
            return held + taken() == SENDERS;
        },
        MESSAGE_TIMEOUT))
        << held << " held, " << taken() << " taken by vidapp";
    EXPECT_GT(taken(), 0U);
    EXPECT_GT(held, 0U);
    stopVidapp();
}

TEST_F(VidappFaultTest, MissingProtocolVersionFileMeansVersionZeroAndIsLoggedOnce) {
    ASSERT_FALSE(fs::exists("/NFS/ProtocolVersion.ini"));
    const VersionRun run = runWithSystemLog();

    ASSERT_TRUE(run.capture.child.exited && run.capture.child.exitCode == 0) << run.capture.child.describe();
    EXPECT_EQ(run.result, "RESULT ready=1 results=1 version=0 verify=0 ended=1 exit=0") << run.capture.child.out;
    EXPECT_EQ(countRecords(run.capture, "101.101.1-7 E:  Error Code:      1009, Error Message:      vidapp: "
                                        "ProtocolVersion.ini not found"),
              1U);
    EXPECT_EQ(countRecords(run.capture, "ProtocolVersion.ini"), 1U);
}

TEST_F(VidappFaultTest, MalformedProtocolVersionFileMeansVersionZeroAndIsLoggedOnceWithItsLine) {
    vidapp::test::writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER 0102\n");
    const VersionRun run = runWithSystemLog();

    ASSERT_TRUE(run.capture.child.exited && run.capture.child.exitCode == 0) << run.capture.child.describe();
    EXPECT_EQ(run.result, "RESULT ready=1 results=1 version=0 verify=0 ended=1 exit=0") << run.capture.child.out;
    EXPECT_EQ(countRecords(run.capture, "101.101.1-7 E:  Error Code:      1010, Error Message:      vidapp: "
                                        "Error in ProtocolVersion.ini on 2"),
              1U);
    EXPECT_EQ(countRecords(run.capture, "ProtocolVersion.ini"), 1U);
}

TEST_F(VidappFaultTest, FlagWordRemovedWhileRunningSilencesLoggingUntilTheNewWordSaysOtherwise) {
    flags.set(VIDAPP_BIT | D_LOG_LEVEL_VERBOSE);
    startVidapp();
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 1, CAMERA_SUPPORT_PAYLOAD));
    ASSERT_TRUE(
        vidapp->waitForOutput("vidapp: decodeMessagePayload(): decode message (ID: 0x0010, count: 1,", MESSAGE_TIMEOUT))
        << vidapp->out();

    const ChildResult removal = vidapp::test::runProgram({vidapp::test::VIDAPP_DLOG_PATH, "remove"});
    ASSERT_TRUE(removal.exited && removal.exitCode == 0) << removal.describe();
    const auto removedAt = std::chrono::steady_clock::now();
    // vidapp follows the key to a word of its own making: fresh, so all logging is off.
    ASSERT_TRUE(waitUntil([] { return shmget(DLOG_SHARED_MEMORY_KEY, 0, 0) != -1; }, MESSAGE_TIMEOUT));
    EXPECT_LT(std::chrono::steady_clock::now() - removedAt, 3s);

    const std::size_t mark = vidapp->out().size();
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 2, CAMERA_SUPPORT_PAYLOAD));
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 3, CAMERA_SUPPORT_PAYLOAD));
    // Each message's ID is traced before it is logged, on the same thread: once the third is traced,
    // the second would have been logged.
    ASSERT_TRUE(waitUntil([&] { return occurrences(vidapp->out().substr(mark), "16\n") >= 2; }, MESSAGE_TIMEOUT))
        << vidapp->out();
    EXPECT_EQ(vidapp->out().find("decodeMessagePayload()", mark), std::string::npos) << vidapp->out().substr(mark);
    EXPECT_TRUE(vidapp->running());

    // The operator switches logging on again in the word that now exists.
    const ChildResult command = vidapp::test::runProgram({vidapp::test::VIDAPP_DLOG_PATH, "+L5"});
    ASSERT_TRUE(command.exited && command.exitCode == 0) << command.describe();
    sender.send(routerMessage(OVRA::CAMERA_SUPPORT_DATA, 4, CAMERA_SUPPORT_PAYLOAD));
    EXPECT_TRUE(
        vidapp->waitForOutput("vidapp: decodeMessagePayload(): decode message (ID: 0x0010, count: 4,", MESSAGE_TIMEOUT))
        << vidapp->out();
    stopVidapp();
}

TEST_F(VidappFaultTest, SigintBeforeStartUpHasFinishedEndsTheProcessInOrder) {
    flags.set(LOGGING);
    // Held (SIGSTOP) as soon as its main thread blocks SIGINT, vidapp gets the signal before its
    // start-up could finish; a run whose start-up was quicker than the hold is tried again.
    constexpr int ATTEMPTS = 20;
    const fs::path executable = fs::canonical(vidapp::test::VIDAPP_PATH);
    const auto runsVidapp = [&executable](pid_t pid) {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error) == executable && !error;
    };
    for (int attempt = 1; attempt <= ATTEMPTS; ++attempt) {
        launchVidapp();
        const pid_t pid = vidapp->pid();
        const auto deadline = std::chrono::steady_clock::now() + MESSAGE_TIMEOUT;
        SignalMaskReader mask(pid);
        bool blocked = false;
        bool startedUp = false;
        while (!blocked && !startedUp && std::chrono::steady_clock::now() < deadline) {
            // While a thread is being created, its creator blocks every signal for a moment (before
            // main too): that is not the block that lasts.
            const std::optional<std::uint64_t> signals = mask.blocked();
            blocked = signals && (*signals & (1ULL << (SIGINT - 1))) != 0 &&
                      (*signals & (1ULL << (SIGTERM - 1))) == 0 && runsVidapp(pid);
            startedUp = !blocked && vidapp->out().find("vidapp: start() OK") != std::string::npos;
        }
        ASSERT_TRUE(blocked || startedUp) << vidapp->wait(1s).describe();
        bool finishedFirst = startedUp;
        if (blocked) {
            vidapp->signal(SIGSTOP);
            ASSERT_TRUE(vidapp::test::waitUntilStopped(pid));
            finishedFirst = launcher.receive(0ms).has_value();
        }
        vidapp->signal(SIGINT);
        vidapp->signal(SIGCONT);

        if (!finishedFirst) {
            // Start-up goes on to its end; the pending signal then ends the wait at once.
            const auto ready = launcher.receive(MESSAGE_TIMEOUT);
            const auto readyAt = std::chrono::steady_clock::now();
            const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
            EXPECT_TRUE(ready.has_value()) << result.describe();
            EXPECT_LT(std::chrono::steady_clock::now() - readyAt, 2s);
            EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
            const std::size_t sent = result.out.find("vidapp: sent READY message ID: 0x8000002e to Launcher\n");
            const std::size_t caught = result.out.find("vidapp: mainEntry(): caught signal: 2\n");
            EXPECT_NE(sent, std::string::npos) << result.out;
            EXPECT_NE(caught, std::string::npos) << result.out;
            EXPECT_LT(sent, caught) << result.out;
            EXPECT_TRUE(frameObjects().empty());
            std::printf("held before the end of start-up at attempt %d\n", attempt);
            return;
        }
        const ChildResult result = vidapp->wait(MESSAGE_TIMEOUT);
        EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
        EXPECT_TRUE(frameObjects().empty());
        (void)launcher.receive(0ms);
    }
    FAIL() << "start-up finished before the hold in each of " << ATTEMPTS << " attempts";
}

} // namespace
