#include "communication/OutputIPC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <sys/resource.h>
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

constexpr std::uint16_t PORT = OVRA::ROUTER_UDP_PORT;
constexpr auto DEADLINE = 10s;

bool inSourceRange(std::uint16_t port) {
    return port >= OutputIPC::FIRST_SOURCE_PORT && port <= OutputIPC::LAST_SOURCE_PORT;
}

template <typename Call> CommunicationException expectCommunicationException(Call&& call) {
    try {
        call();
    } catch (const CommunicationException& e) {
        return e;
    }
    ADD_FAILURE() << "no CommunicationException";
    return CommunicationException(0, "");
}

void send(OutputIPC& channel, const std::string& text) {
    channel.sendMessage(text.data(), text.size());
}

using vidapp::test::DescriptorLimit;

class OutputIPCTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        receiver = std::make_unique<vidapp::test::UdpReceiver>(PORT);
    }

    // The source port of the next datagram, which must carry text.
    std::uint16_t receivedFrom(const std::string& text) {
        const auto datagram = receiver->receiveFrom(DEADLINE);
        if (!datagram) {
            ADD_FAILURE() << "nothing received";
            return 0;
        }
        EXPECT_EQ(std::string(datagram->bytes.begin(), datagram->bytes.end()), text);
        return datagram->sourcePort;
    }

    vidapp::test::LogCapture log;
    std::unique_ptr<vidapp::test::UdpReceiver> receiver;
    OutputIPC router{"to_router", PORT};
};

TEST_F(OutputIPCTest, SendsEachMessageAsOneDatagramFromARandomSourcePort) {
    send(router, "first");
    send(router, "second");

    const std::uint16_t firstPort = receivedFrom("first");
    EXPECT_TRUE(inSourceRange(firstPort)) << firstPort;
    EXPECT_EQ(receivedFrom("second"), firstPort);
}

TEST_F(OutputIPCTest, SendsAWholePduRecord) {
    std::vector<std::uint8_t> record(sizeof(OVRA::PDUMessage_t));
    for (std::size_t i = 0; i < record.size(); ++i) {
        record[i] = static_cast<std::uint8_t>(i * 7);
    }

    router.sendMessage(record.data(), record.size());

    const auto received = receiver->receive(DEADLINE);
    ASSERT_TRUE(received);
    EXPECT_EQ(*received, record);
}

TEST_F(OutputIPCTest, SendAfterStopBindsANewSourcePort) {
    send(router, "before");
    const std::uint16_t before = receivedFrom("before");

    router.stop();
    // Hold the old port, so that only a fresh bind can succeed.
    const vidapp::test::UdpReceiver holder(before);
    send(router, "after");

    const std::uint16_t after = receivedFrom("after");
    EXPECT_TRUE(inSourceRange(after)) << after;
    EXPECT_NE(after, before);
}

TEST_F(OutputIPCTest, StopReleasesTheSourcePortAndLogsNothingWhenRepeated) {
    router.stop();
    send(router, "x");
    const std::uint16_t used = receivedFrom("x");

    router.stop();
    router.stop();

    EXPECT_NO_THROW(vidapp::test::UdpReceiver{used});
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(OutputIPCTest, DottedAddressIsTheDestination) {
    OutputIPC channel("to_router", PORT, "127.0.0.1");

    send(channel, "dotted");

    const auto datagram = receiver->receiveFrom(DEADLINE);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourceAddress, "127.0.0.1");
    EXPECT_TRUE(inSourceRange(datagram->sourcePort));
}

TEST_F(OutputIPCTest, InvalidAddressThrows1001NamingTheErrnoTextOnEverySend) {
    OutputIPC channel("to_router", PORT, "300.1.1.1");

    // inet_pton() leaves errno alone, so the text shows the errno of before the call.
    OVRA::setErrno(EINVAL);
    const auto error = expectCommunicationException([&] { send(channel, "lost"); });
    EXPECT_EQ(error.getCode(), 1001U);
    EXPECT_STREQ(error.what(), "Invalid IP address: Invalid argument");

    OVRA::setErrno(0);
    EXPECT_STREQ(expectCommunicationException([&] { send(channel, "lost"); }).what(), "Invalid IP address: Success");
    EXPECT_FALSE(receiver->receive(100ms));
}

TEST_F(OutputIPCTest, SendtoFailureThrows201AndKeepsTheSocket) {
    send(router, "small");
    const std::uint16_t port = receivedFrom("small");
    const std::vector<std::uint8_t> tooLong(70000, 1);

    const auto error = expectCommunicationException([&] { router.sendMessage(tooLong.data(), tooLong.size()); });

    EXPECT_EQ(error.getCode(), 201U);
    EXPECT_STREQ(
        error.what(),
        "OutputIPC.sendMessage(): sendto() failed: port: 50410, lengthBytes:70000, errno: 90 (Message too long)");
    send(router, "again");
    EXPECT_EQ(receivedFrom("again"), port);
}

TEST_F(OutputIPCTest, SocketFailureThrows1001) {
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    {
        const DescriptorLimit limit(static_cast<rlim_t>(lowest));
        ASSERT_TRUE(limit.applied());

        const auto error = expectCommunicationException([&] { send(router, "lost"); });

        EXPECT_EQ(error.getCode(), 1001U);
        EXPECT_STREQ(error.what(), "OutputIPC.sendMessage(): socket() sys call failure: Too many open files");
    }

    send(router, "recovered");
    EXPECT_TRUE(inSourceRange(receivedFrom("recovered")));
}

TEST_F(OutputIPCTest, TwentyFailedBindsThrow1000AndTheNextSendStillGoesOut) {
    const DescriptorLimit limit(4096);
    ASSERT_TRUE(limit.applied());
    std::vector<std::unique_ptr<vidapp::test::UdpReceiver>> holders;
    for (unsigned port = OutputIPC::FIRST_SOURCE_PORT; port <= OutputIPC::LAST_SOURCE_PORT; ++port) {
        holders.push_back(std::make_unique<vidapp::test::UdpReceiver>(static_cast<std::uint16_t>(port)));
    }

    const auto error = expectCommunicationException([&] { send(router, "lost"); });

    EXPECT_EQ(error.getCode(), 1000U);
    // The port named is the one drawn after the last failure.
    const std::string text = error.what();
    const std::string head = "OutputIPC::sendMessage() bind failure after 20 trying: channel [to_router], upd port:";
    const std::string tail = ", bind() errno: 98 (Address already in use)";
    ASSERT_EQ(text.substr(0, head.size()), head) << text;
    ASSERT_GT(text.size(), head.size() + tail.size()) << text;
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
    const std::string port = text.substr(head.size(), text.size() - head.size() - tail.size());
    EXPECT_TRUE(inSourceRange(static_cast<std::uint16_t>(std::stoi(port)))) << port;
    EXPECT_FALSE(receiver->receive(100ms));

    // The kept socket is unbound: the system picks a port outside the occupied range.
    send(router, "next");
    EXPECT_FALSE(inSourceRange(receivedFrom("next")));
}

} // namespace
