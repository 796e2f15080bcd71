#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "tests/support/Child.h"
#include "tests/support/Udp.h"

// The load generator run as a child against a port of the test's own.
namespace {

using namespace std::chrono_literals;
using vidapp::test::Child;
using vidapp::test::ChildResult;

constexpr const char* USAGE = "usage: vidapp-load [--rate N] [--seconds T | --count N] [--garbage F] [--seed S] "
                              "[--port P] | --help\n";

struct Received {
    std::vector<std::vector<std::uint8_t>> datagrams;
    std::chrono::steady_clock::duration span{}; // first to last arrival
    ChildResult result;
};

// What one datagram is, judged from its bytes.
enum class Kind { CAMERA_SUPPORT, SYSTEM_STATUS, GARBAGE };

class VidappLoadTest : public ::testing::Test {
protected:
    static std::vector<std::string> loadArguments(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv = {VIDAPP_BIN_DIR "/vidapp-load"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    }

    // Runs the tool against the receiver's port and keeps everything that arrives.
    Received runAgainstReceiver(std::vector<std::string> arguments, std::size_t expected) {
        arguments.insert(arguments.end(), {"--port", std::to_string(receiver.port())});
        Received received;
        Child load(loadArguments(arguments));
        std::chrono::steady_clock::time_point first;
        std::chrono::steady_clock::time_point last;
        while (received.datagrams.size() < expected) {
            auto datagram = receiver.receive(10s);
            if (!datagram) {
                break;
            }
            last = std::chrono::steady_clock::now();
            if (received.datagrams.empty()) {
                first = last;
            }
            received.datagrams.push_back(std::move(*datagram));
        }
        received.span = last - first;
        received.result = load.wait(20s);
        return received;
    }

    static Kind classify(const std::vector<std::uint8_t>& datagram) {
        OVRA::PDUMessage_t message{};
        std::memcpy(&message, datagram.data(), std::min(datagram.size(), sizeof message));
        const std::size_t payload = datagram.size() - OVRA::PDU_HEADER_SIZE;
        if (datagram.size() < OVRA::PDU_HEADER_SIZE || message.crc != DataValidity::computeMessageCRC(&message)) {
            return Kind::GARBAGE;
        }
        if (message.messageId == OVRA::CAMERA_SUPPORT_DATA &&
            payload == sizeof(OVRAInterSystemMessages::CameraSupport_t)) {
            return Kind::CAMERA_SUPPORT;
        }
        if (message.messageId == OVRA::SYSTEM_APPLICATION_STATUS &&
            payload == sizeof(OVRA::SystemApplicationStatus_t)) {
            return Kind::SYSTEM_STATUS;
        }
        return Kind::GARBAGE;
    }

    static std::vector<std::pair<std::uint32_t, std::size_t>> idsAndSizes(const Received& received) {
        std::vector<std::pair<std::uint32_t, std::size_t>> result;
        for (const auto& datagram : received.datagrams) {
            std::uint32_t id = 0;
            std::memcpy(&id, datagram.data(), std::min(datagram.size(), sizeof id));
            result.emplace_back(id, datagram.size());
        }
        return result;
    }

    vidapp::test::UdpReceiver receiver{0};
};

TEST_F(VidappLoadTest, SendsAtItsRateTheExactGarbageShareAndReportsWhatItSent) {
    const Received received =
        runAgainstReceiver({"--rate", "200", "--count", "200", "--garbage", "0.2", "--seed", "7"}, 200);

    ASSERT_TRUE(received.result.exited && received.result.exitCode == 0) << received.result.describe();
    ASSERT_EQ(received.datagrams.size(), 200U);
    // 199 gaps of 5 ms; a loaded machine may bunch a few, never stretch the run much.
    EXPECT_GE(received.span, 900ms);
    EXPECT_LT(received.span, 3s);

    const std::uint16_t version = DataValidity().getT1DVersion();
    std::size_t camera = 0;
    std::size_t status = 0;
    std::map<std::uint32_t, std::uint16_t> lastCount;
    for (const auto& datagram : received.datagrams) {
        ASSERT_GE(datagram.size(), OVRA::PDU_ID_AND_LENGTH_BYTES);
        std::uint32_t length = 0;
        std::memcpy(&length, datagram.data() + 4, sizeof length);
        EXPECT_EQ(length + OVRA::PDU_ID_AND_LENGTH_BYTES, datagram.size()) << "every length field is right";
        const Kind kind = classify(datagram);
        if (kind == Kind::GARBAGE) {
            continue;
        }
        OVRA::PDUMessage_t message{};
        std::memcpy(&message, datagram.data(), datagram.size());
        EXPECT_EQ(message.version, version);
        EXPECT_NE(message.timestamp, 0U);
        // Counts per ID rise (garbage with the same ID takes numbers too).
        EXPECT_GT(message.count, lastCount[message.messageId]);
        lastCount[message.messageId] = message.count;
        if (kind == Kind::CAMERA_SUPPORT) {
            ++camera;
            EXPECT_LE(message.payload[11], 1U);
        } else {
            ++status;
            for (std::size_t i = 0; i < sizeof(OVRA::SystemApplicationStatus_t); ++i) {
                EXPECT_LE(message.payload[i], OVRA::TERMINATING);
            }
        }
    }
    EXPECT_EQ(camera + status, 160U);
    EXPECT_GT(camera, 0U);
    EXPECT_GT(status, 0U);

    const std::string& out = received.result.out;
    EXPECT_NE(out.find("vidapp-load: sent 200 datagrams of 200 in "), std::string::npos) << out;
    EXPECT_NE(out.find("  valid:   160 (CAMERA_SUPPORT_DATA " + std::to_string(camera) +
                       ", SYSTEM_APPLICATION_STATUS " + std::to_string(status) + ")\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  garbage: 40 (20.0 %): unknown ID "), std::string::npos) << out;
    EXPECT_NE(out.find("  failed sends: 0\n"), std::string::npos) << out;
}

TEST_F(VidappLoadTest, TheSameSeedSendsTheSameMixAndAnotherSeedAnother) {
    const std::vector<std::string> arguments = {"--rate", "1000", "--count", "100", "--garbage", "0.5"};
    auto withSeed = [&](const char* seed) {
        std::vector<std::string> all = arguments;
        all.insert(all.end(), {"--seed", seed});
        const Received received = runAgainstReceiver(all, 100);
        EXPECT_TRUE(received.result.exited && received.result.exitCode == 0) << received.result.describe();
        EXPECT_EQ(received.datagrams.size(), 100U);
        return idsAndSizes(received);
    };

    const auto first = withSeed("42");
    EXPECT_EQ(withSeed("42"), first);
    EXPECT_NE(withSeed("43"), first);
}

TEST_F(VidappLoadTest, InterruptEndsTheRunWithItsReport) {
    Child load(loadArguments({"--rate", "100", "--seconds", "60", "--port", std::to_string(receiver.port())}));
    ASSERT_TRUE(load.waitForError("vidapp-load: sending 6000 datagrams at 100 per second", 10s)) << load.err();
    ASSERT_TRUE(receiver.receive(10s).has_value());
    const auto interruptedAt = std::chrono::steady_clock::now();
    load.signal(SIGINT);
    const ChildResult result = load.wait(10s);

    EXPECT_LT(std::chrono::steady_clock::now() - interruptedAt, 2s);
    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    EXPECT_NE(result.out.find("vidapp-load: sent "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(" datagrams of 6000 in "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("  interrupted before the end\n"), std::string::npos) << result.out;
}

TEST_F(VidappLoadTest, RefusesWhatItCannotDoWithItsUsage) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--rate", "0"}, "--rate takes a whole number of 1..1000000, not '0'"},
        {{"--garbage", "1.5"}, "--garbage takes a share of 0..1, not '1.5'"},
        {{"--count", "5", "--seconds", "1"}, "--seconds and --count exclude each other"},
        {{"--port", "70000"}, "--port takes a port of 1..65535, not '70000'"},
        {{"--seed"}, "--seed needs a value"},
        {{"--loud"}, "unknown argument '--loud'"},
    };
    for (const auto& [arguments, reason] : cases) {
        const ChildResult result = vidapp::test::runProgram(loadArguments(arguments));
        EXPECT_TRUE(result.exited && result.exitCode == 2) << result.describe();
        EXPECT_EQ(result.err, "vidapp-load: " + reason + "\n" + USAGE);
        EXPECT_EQ(result.out, "");
    }
}

} // namespace
