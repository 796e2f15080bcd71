#include "communication/InputIPC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/OVRAException.h"
#include "communication/OVRACommunicationUtils.h"
#include "tests/support/DescriptorLimit.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t PORT = OVRA::VIDAPP_UDP_PORT;
constexpr auto DEADLINE = 10s;

// Keeps a copy of the whole receive buffer for the first calls. The first byte of a datagram chooses
// what the call does: 'O' throws an OVRAException (code 4242), 'S' a std::runtime_error, 'X' an
// int; anything else returns normally.
class RecordingCallback : public CallbackHelper {
public:
    static constexpr std::size_t KEPT_BUFFERS = 16;

    struct Delivery {
        unsigned long length;
        std::vector<std::uint8_t> buffer;
        std::string threadName;
    };

    void messageHandler(void* messageBuffer, unsigned long lengthBytes) override {
        const auto* bytes = static_cast<const std::uint8_t*>(messageBuffer);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        {
            std::lock_guard<std::mutex> lock(mutex);
            // Whole copies of the first deliveries only: a flood must not eat the memory.
            const bool keep = deliveries.size() < KEPT_BUFFERS;
            deliveries.push_back(Delivery{lengthBytes, {bytes, bytes + (keep ? InputIPC::BUFFER_SIZE : 0)}, name});
        }
        arrived.notify_all();
        switch (bytes[0]) {
        case 'O':
            throw OVRAException(4242, "boom");
        case 'S':
            throw std::runtime_error("bad input");
        case 'X':
            throw 42;
        default:
            break;
        }
    }

    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, DEADLINE, [&] { return deliveries.size() >= count; });
    }

    Delivery at(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex);
        return deliveries.at(index);
    }

    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return deliveries.size();
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Delivery> deliveries;
};

using vidapp::test::DescriptorLimit;

template <typename Call> CommunicationException expectCommunicationException(Call&& call) {
    try {
        call();
    } catch (const CommunicationException& e) {
        return e;
    }
    ADD_FAILURE() << "no CommunicationException";
    return CommunicationException(0, "");
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int lowestFreeDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

// Occupies every free descriptor up to and including last.
class DescriptorFiller {
public:
    explicit DescriptorFiller(int last) {
        for (int fd = dup(STDERR_FILENO); fd != -1; fd = dup(STDERR_FILENO)) {
            held.push_back(fd);
            if (fd >= last) {
                break;
            }
        }
    }
    ~DescriptorFiller() {
        for (const int fd : held) {
            close(fd);
        }
    }
    int highest() const { return held.empty() ? -1 : held.back(); }

private:
    std::vector<int> held;
};

class SigintBlocked {
public:
    SigintBlocked() {
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, &saved);
    }
    ~SigintBlocked() { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }

    bool pending() const {
        sigset_t now;
        sigpending(&now);
        return sigismember(&now, SIGINT) == 1;
    }
    bool waitForSigint() const {
        const timespec timeout{std::chrono::duration_cast<std::chrono::seconds>(DEADLINE).count(), 0};
        return sigtimedwait(&set, nullptr, &timeout) == SIGINT;
    }

private:
    sigset_t set{};
    sigset_t saved{};
};

class InputIPCTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    void send(const std::string& text) { sender.send(text.data(), text.size()); }

    vidapp::test::LogCapture log;
    RecordingCallback callback;
    InputIPC channel{callback, "to_vidapp", PORT};
    vidapp::test::UdpSender sender{PORT};
};

TEST_F(InputIPCTest, DeliversEachDatagramOnTheNamedReceiveThread) {
    channel.start();

    send("hello");
    send("world!");

    ASSERT_TRUE(callback.waitFor(2));
    const auto first = callback.at(0);
    EXPECT_EQ(first.length, 5U);
    EXPECT_EQ(std::string(first.buffer.begin(), first.buffer.begin() + 5), "hello");
    EXPECT_EQ(first.threadName, "InputIPCRun");
    EXPECT_EQ(callback.at(1).length, 6U);
}

TEST_F(InputIPCTest, OversizedDatagramReportsItsRealLengthAndStoresTheBufferSize) {
    // 65507 bytes is the largest IPv4 UDP payload: anything longer cannot be sent at all.
    constexpr std::size_t LARGEST = 65507;
    std::vector<std::uint8_t> large(LARGEST);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<std::uint8_t>('a' + i % 23);
    }
    channel.start();

    sender.send(large);
    send("short");

    ASSERT_TRUE(callback.waitFor(2));
    const auto big = callback.at(0);
    EXPECT_EQ(big.length, LARGEST);
    EXPECT_TRUE(std::equal(big.buffer.begin(), big.buffer.end(), large.begin()));
    // The short one leaves nothing of the long one behind.
    const auto small = callback.at(1);
    EXPECT_EQ(small.length, 5U);
    EXPECT_EQ(std::string(small.buffer.begin(), small.buffer.begin() + 5), "short");
    EXPECT_TRUE(std::all_of(small.buffer.begin() + 5, small.buffer.end(), [](std::uint8_t b) { return b == 0; }));
}

TEST_F(InputIPCTest, EmptyDatagramIsDroppedSilently) {
    channel.start();

    sender.send(nullptr, 0);
    send("after");

    ASSERT_TRUE(callback.waitFor(1));
    EXPECT_EQ(callback.at(0).length, 5U);
    EXPECT_EQ(callback.size(), 1U);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(InputIPCTest, TwoChannelsOnOnePortBothStart) {
    RecordingCallback otherCallback;
    InputIPC other(otherCallback, "to_vidapp_too", PORT);

    EXPECT_NO_THROW(channel.start());
    EXPECT_NO_THROW(other.start());
}

TEST_F(InputIPCTest, SecondStartWhileRunningKeepsTheOneSocket) {
    channel.start();
    channel.start();

    // With a second socket in the port group, the system would share datagrams between them.
    for (int i = 0; i < 10; ++i) {
        send("n" + std::to_string(i));
    }

    ASSERT_TRUE(callback.waitFor(10));
}

TEST_F(InputIPCTest, RestartsAfterStop) {
    channel.start();
    send("one");
    ASSERT_TRUE(callback.waitFor(1));

    channel.stop();
    channel.start();
    send("two");

    ASSERT_TRUE(callback.waitFor(2));
    const auto second = callback.at(1);
    EXPECT_EQ(std::string(second.buffer.begin(), second.buffer.begin() + 3), "two");
}

TEST_F(InputIPCTest, StopReleasesThePort) {
    channel.start();

    channel.stop();

    // A socket without reuse options can bind only a port nobody holds.
    EXPECT_NO_THROW(vidapp::test::UdpReceiver{PORT});
}

TEST_F(InputIPCTest, StopOnANeverStartedChannelReturnsQuietly) {
    channel.stop();
    channel.stop();

    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(InputIPCTest, StopEndsAWaitingThreadPromptly) {
    channel.start();

    const auto begin = std::chrono::steady_clock::now();
    channel.stop();
    const auto took = std::chrono::steady_clock::now() - begin;

    EXPECT_LT(took, 1s);
    channel.stop();
}

TEST_F(InputIPCTest, StopIsPromptWhileDatagramsKeepArriving) {
    channel.start();
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        vidapp::test::UdpSender floodSender(PORT);
        for (int i = 0; i < 2000000 && flooding; ++i) {
            floodSender.send("f", 1);
        }
    });
    ASSERT_TRUE(callback.waitFor(100));

    const auto begin = std::chrono::steady_clock::now();
    channel.stop();
    const auto took = std::chrono::steady_clock::now() - begin;
    flooding = false;
    flood.join();

    EXPECT_LT(took, 1s);
}

TEST_F(InputIPCTest, DestructorStopsARunningChannel) {
    RecordingCallback otherCallback;
    {
        InputIPC other(otherCallback, "to_other", PORT + 1);
        other.start();
    }
    EXPECT_NO_THROW(vidapp::test::UdpReceiver{PORT + 1});
}

TEST_F(InputIPCTest, BindFailureThrows1000) {
    vidapp::test::UdpReceiver holder(PORT);

    const auto error = expectCommunicationException([&] { channel.start(); });

    EXPECT_EQ(error.getCode(), 1000U);
    EXPECT_STREQ(
        error.what(),
        "InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, bind() errno: 98 (Address already in use)");
}

TEST_F(InputIPCTest, FailedStartCanBeRetried) {
    {
        vidapp::test::UdpReceiver holder(PORT);
        EXPECT_THROW(channel.start(), CommunicationException);
    }

    channel.start();
    send("late");

    ASSERT_TRUE(callback.waitFor(1));
}

TEST_F(InputIPCTest, SocketDescriptorAtFdSetSizeIsRefusedWith1001) {
    const DescriptorLimit limit(4096);
    ASSERT_TRUE(limit.applied());
    // Leave exactly two descriptors below FD_SETSIZE for the pipe; the socket then gets 1024.
    const DescriptorFiller filler(FD_SETSIZE - 3);
    ASSERT_EQ(filler.highest(), FD_SETSIZE - 3);
    if (isOpen(FD_SETSIZE - 2) || isOpen(FD_SETSIZE - 1) || isOpen(FD_SETSIZE)) {
        GTEST_SKIP() << "descriptors around FD_SETSIZE are in use by the test environment";
    }

    const auto error = expectCommunicationException([&] { channel.start(); });

    EXPECT_EQ(error.getCode(), 1001U);
    // The port stands where the text says "socket fd".
    EXPECT_STREQ(error.what(), "InputIPC::setupUDP(): channel [to_vidapp], socket fd:50427 must be less than "
                               "FD_SETSIZE: 1024");
    // Nothing of the failed start stays open.
    EXPECT_FALSE(isOpen(FD_SETSIZE - 2));
    EXPECT_FALSE(isOpen(FD_SETSIZE));
}

TEST_F(InputIPCTest, PipeDescriptorAtFdSetSizeIsRefusedWith1012) {
    const DescriptorLimit limit(4096);
    ASSERT_TRUE(limit.applied());
    const DescriptorFiller filler(FD_SETSIZE - 1);
    ASSERT_EQ(filler.highest(), FD_SETSIZE - 1);
    if (isOpen(FD_SETSIZE) || isOpen(FD_SETSIZE + 1)) {
        GTEST_SKIP() << "descriptors around FD_SETSIZE are in use by the test environment";
    }

    const auto error = expectCommunicationException([&] { channel.start(); });

    EXPECT_EQ(error.getCode(), 1012U);
    EXPECT_STREQ(error.what(),
                 "InputIPC.start(): channel [to_vidapp], pipe fd:1024 must be less than FD_SETSIZE: 1024");
    EXPECT_FALSE(isOpen(FD_SETSIZE));
}

TEST_F(InputIPCTest, PipeFailureThrows1012) {
    const DescriptorLimit limit(static_cast<rlim_t>(lowestFreeDescriptor()));
    ASSERT_TRUE(limit.applied());

    const auto error = expectCommunicationException([&] { channel.start(); });

    EXPECT_EQ(error.getCode(), 1012U);
    EXPECT_STREQ(error.what(), "InputIPC.start(): channel [to_vidapp], pipe() errno: 24 (Too many open files)");
}

TEST_F(InputIPCTest, SocketFailureThrows1001) {
    const int lowest = lowestFreeDescriptor();
    if (isOpen(lowest + 1)) {
        GTEST_SKIP() << "the two lowest free descriptors are not adjacent";
    }
    // Room for the pipe only.
    const DescriptorLimit limit(static_cast<rlim_t>(lowest + 2));
    ASSERT_TRUE(limit.applied());

    const auto error = expectCommunicationException([&] { channel.start(); });

    EXPECT_EQ(error.getCode(), 1001U);
    EXPECT_STREQ(error.what(),
                 "InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, socket() errno: 24 (Too many open files)");
}

TEST_F(InputIPCTest, FiveCallbackFailuresAreLoggedAndTheSixthSendsSigint) {
    const SigintBlocked sigint; // before start, so that the receive thread inherits the mask
    channel.start();

    for (const char* text : {"O1", "S2", "O3", "X4", "S5"}) {
        send(text);
    }
    send("marker");
    ASSERT_TRUE(callback.waitFor(6));

    EXPECT_EQ(log.count("messageHandler exception: boom"), 2U) << log.dump();
    EXPECT_EQ(log.countErrors(4242), 2U);
    EXPECT_EQ(log.count("messageHandler exception: bad input"), 2U);
    EXPECT_EQ(log.countErrors(1045), 2U);
    EXPECT_EQ(log.count("messageHandler exception: unexpected exception"), 1U);
    EXPECT_EQ(log.countErrors(1023), 1U);
    EXPECT_FALSE(sigint.pending());

    send("O6");

    EXPECT_TRUE(sigint.waitForSigint());
    EXPECT_EQ(log.countErrors(4242), 3U);
}

TEST_F(InputIPCTest, CallbackFailureCountSurvivesRestart) {
    const SigintBlocked sigint;
    channel.start();
    for (const char* text : {"O1", "O2", "O3"}) {
        send(text);
    }
    ASSERT_TRUE(callback.waitFor(3));
    channel.stop();

    channel.start();
    send("O4");
    send("O5");
    send("marker");
    ASSERT_TRUE(callback.waitFor(6));
    EXPECT_FALSE(sigint.pending());

    send("O6");

    EXPECT_TRUE(sigint.waitForSigint());
}

} // namespace
