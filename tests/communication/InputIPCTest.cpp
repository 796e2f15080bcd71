#include "communication/InputIPC.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "common/OVRAException.h"
#include "communication/OVRACommunicationUtils.h"
#include "tests/support/DescriptorLimit.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;
using vidapp::test::expectFailure;

constexpr std::uint16_t PORT = OVRA::VIDAPP_UDP_PORT;

// Records every delivery with the receive buffer (whole for the first 16 only: a flood must not eat
// the memory). The first byte chooses what the call does: 'O' throws an OVRAException (code 4242),
// 'S' a std::runtime_error, 'X' an int.
class RecordingCallback : public CallbackHelper {
public:
    struct Delivery {
        unsigned long length = 0;
        std::string buffer;
        std::string thread;
    };

    void messageHandler(void* messageBuffer, unsigned long lengthBytes) override {
        const auto* bytes = static_cast<const char*>(messageBuffer);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            deliveries.push_back({lengthBytes, {bytes, deliveries.size() < 16 ? InputIPC::BUFFER_SIZE : 0}, name});
        }
        arrived.notify_all();
        switch (bytes[0]) {
        case 'O':
            throw OVRAException(4242, "boom");
        case 'S':
            throw std::runtime_error("bad input");
        case 'X':
            throw 42;
        }
    }

    // Delivery number index (counted from 0) once it has arrived, or the number of deliveries so far.
    Delivery at(std::size_t index) {
        std::unique_lock<std::mutex> lock(mutex);
        const bool arrivedInTime = arrived.wait_for(lock, 10s, [&] { return deliveries.size() > index; });
        EXPECT_TRUE(arrivedInTime) << "delivery " << index;
        return arrivedInTime ? deliveries[index] : Delivery{};
    }
    std::size_t size() {
        const std::lock_guard<std::mutex> lock(mutex);
        return deliveries.size();
    }

private:
    std::mutex mutex; // guards deliveries
    std::condition_variable arrived;
    std::vector<Delivery> deliveries;
};

class InputIPCTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }
    void send(const std::string& text) { sender.send(text.data(), text.size()); }
    static bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

    vidapp::test::LogCapture log;
    RecordingCallback callback;
    InputIPC channel{callback, "to_vidapp", PORT};
    vidapp::test::UdpSender sender{PORT};
};

TEST_F(InputIPCTest, DeliversEachDatagramWithItsRealLengthOnTheNamedReceiveThread) {
    // The largest IPv4 UDP payload, more than the buffer holds: no longer datagram can be sent.
    std::string large(65507, ' ');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>('a' + i % 23);
    }
    channel.start();
    channel.start();         // does nothing while running
    sender.send(nullptr, 0); // dropped silently
    for (const std::string& text : {std::string("hello"), large, std::string("short")}) {
        send(text);
    }
    const auto hello = callback.at(0);
    EXPECT_EQ(std::tuple(hello.length, hello.buffer.substr(0, 5), hello.thread),
              std::tuple(5UL, "hello", "InputIPCRun"));
    EXPECT_EQ(callback.at(1).length, large.size());
    EXPECT_EQ(callback.at(1).buffer, large.substr(0, InputIPC::BUFFER_SIZE));
    // The short one leaves nothing of the long one behind.
    EXPECT_EQ(callback.at(2).buffer, "short" + std::string(InputIPC::BUFFER_SIZE - 5, '\0'));
    EXPECT_EQ(callback.size(), 3U);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(InputIPCTest, StopsQuietlyWhenNeverStartedAndPromptlyUnderLoadReleasingThePortForARestart) {
    channel.stop();
    channel.stop();
    EXPECT_TRUE(log.records().empty()) << log.dump();
    {
        RecordingCallback otherCallback;
        InputIPC other(otherCallback, "to_vidapp_too", PORT); // two channels on one port; the destructor stops it
        channel.start();
        other.start();
    }
    std::atomic<bool> flooding{true};
    std::thread flood([&flooding] {
        vidapp::test::UdpSender floodSender(PORT);
        for (int i = 0; i < 2000000 && flooding; ++i) {
            floodSender.send("f", 1);
        }
    });
    callback.at(99);
    const auto begin = std::chrono::steady_clock::now();
    channel.stop();
    const auto took = std::chrono::steady_clock::now() - begin;
    flooding = false;
    flood.join();
    EXPECT_LT(took, 1s);
    // A socket without reuse options can bind only a port nobody holds.
    EXPECT_NO_THROW(vidapp::test::UdpReceiver{PORT});
    channel.start();
    const std::size_t before = callback.size();
    send("two");
    EXPECT_EQ(callback.at(before).length, 3U);
}

TEST_F(InputIPCTest, StartFailsOnAHeldPortOrOnDescriptorsLeavingNothingOpenAndCanBeRetried) {
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    for (const int fd : {lowest + 1, FD_SETSIZE - 2, FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 1}) {
        if (isOpen(fd)) {
            GTEST_SKIP() << "descriptor " << fd << " is in use by the test environment";
        }
    }
    // Every free descriptor up to fillTo is taken first (none for 0; -1 holds the port instead).
    // With two left below FD_SETSIZE for the pipe the socket gets 1024, and the port stands where
    // its text says "socket fd".
    for (const auto& [fillTo, limit, code, text] : std::initializer_list<std::tuple<int, int, unsigned, const char*>>{
             {-1, 4096, 1000,
              "InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, bind() errno: 98 (Address already in use)"},
             {FD_SETSIZE - 3, 4096, 1001,
              "InputIPC::setupUDP(): channel [to_vidapp], socket fd:50427 must be less than FD_SETSIZE: 1024"},
             {FD_SETSIZE - 1, 4096, 1012,
              "InputIPC.start(): channel [to_vidapp], pipe fd:1024 must be less than FD_SETSIZE: 1024"},
             {0, lowest, 1012, "InputIPC.start(): channel [to_vidapp], pipe() errno: 24 (Too many open files)"},
             {0, lowest + 2, 1001,
              "InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, socket() errno: 24 (Too many open files)"}}) {
        SCOPED_TRACE(text);
        const vidapp::test::DescriptorLimit descriptorLimit(static_cast<rlim_t>(limit));
        ASSERT_TRUE(descriptorLimit.applied());
        const auto holder = fillTo < 0 ? std::make_unique<vidapp::test::UdpReceiver>(PORT) : nullptr;
        std::vector<int> held;
        while (held.size() < static_cast<std::size_t>(std::max(fillTo, 0)) && (held.empty() || held.back() < fillTo)) {
            held.push_back(dup(STDERR_FILENO));
        }
        EXPECT_EQ(held.empty() ? fillTo : held.back(), fillTo);
        expectFailure<CommunicationException>([this] { channel.start(); }, code, text);
        const int firstFree = fillTo > 0 ? fillTo + 1 : lowest + (holder ? 1 : 0);
        EXPECT_FALSE(isOpen(firstFree) || isOpen(firstFree + 1) || isOpen(firstFree + 2));
        for (const int fd : held) {
            close(fd);
        }
    }
    channel.start();
    send("late");
    EXPECT_EQ(callback.at(0).length, 4U);
}

TEST_F(InputIPCTest, FiveCallbackFailuresOverRestartsAreLoggedAndTheSixthSendsSigint) {
    // Blocked before start, so that the receive thread inherits the mask and the signal waits for us.
    sigset_t sigint;
    sigset_t saved;
    sigemptyset(&sigint);
    sigaddset(&sigint, SIGINT);
    pthread_sigmask(SIG_BLOCK, &sigint, &saved);
    channel.start();
    send("O1");
    send("S2");
    callback.at(1);
    channel.stop();
    channel.start(); // the count survives a restart
    for (const char* text : {"O3", "X4", "S5", "marker"}) {
        send(text);
    }
    callback.at(5);
    EXPECT_EQ(std::tuple(log.count("messageHandler exception: boom"), log.countErrors(4242),
                         log.count("messageHandler exception: bad input"), log.countErrors(1045),
                         log.count("messageHandler exception: unexpected exception"), log.countErrors(1023)),
              std::tuple(2U, 2U, 2U, 2U, 1U, 1U))
        << log.dump();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGINT));
    send("O6");
    const timespec timeout{10, 0};
    EXPECT_EQ(sigtimedwait(&sigint, nullptr, &timeout), SIGINT);
    EXPECT_EQ(log.countErrors(4242), 3U);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

} // namespace
