#include "communication/OutputIPC.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <unistd.h>
#include <vector>

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

constexpr std::uint16_t PORT = OVRA::ROUTER_UDP_PORT;

class OutputIPCTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        receiver = std::make_unique<vidapp::test::UdpReceiver>(PORT);
    }

    static bool inSourceRange(unsigned port) {
        return port >= OutputIPC::FIRST_SOURCE_PORT && port <= OutputIPC::LAST_SOURCE_PORT;
    }
    static void send(OutputIPC& channel, const std::string& text) { channel.sendMessage(text.data(), text.size()); }

    // The source port of the next datagram, which must carry text.
    std::uint16_t receivedFrom(const std::string& text) {
        const auto datagram = receiver->receiveFrom(10s);
        EXPECT_TRUE(datagram) << "nothing received";
        EXPECT_EQ(datagram ? std::string(datagram->bytes.begin(), datagram->bytes.end()) : "", text);
        return datagram ? datagram->sourcePort : 0;
    }

    vidapp::test::LogCapture log;
    std::unique_ptr<vidapp::test::UdpReceiver> receiver;
    OutputIPC router{"to_router", PORT};
};

TEST_F(OutputIPCTest, SendsFromARandomSourcePortKeptUntilStop) {
    router.stop();                                             // no socket yet
    const std::string record(sizeof(OVRA::PDUMessage_t), 'r'); // a whole record in one datagram
    send(router, record);
    const std::uint16_t port = receivedFrom(record);
    EXPECT_TRUE(inSourceRange(port)) << port;

    const std::vector<std::uint8_t> tooLong(70000, 1);
    expectFailure<CommunicationException>(
        [this, &tooLong] { router.sendMessage(tooLong.data(), tooLong.size()); }, 201,
        "OutputIPC.sendMessage(): sendto() failed: port: 50410, lengthBytes:70000, errno: 90 (Message too long)");
    send(router, "kept");
    EXPECT_EQ(receivedFrom("kept"), port);

    router.stop();
    router.stop();
    const vidapp::test::UdpReceiver holder(port); // the old port is free; held, only a fresh bind succeeds
    send(router, "after");
    const std::uint16_t after = receivedFrom("after");
    EXPECT_TRUE(inSourceRange(after)) << after;
    EXPECT_NE(after, port);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(OutputIPCTest, DestinationAddressIsCheckedOnEverySend) {
    OutputIPC dotted("to_router", PORT, "127.0.0.1");
    send(dotted, "dotted");
    const auto datagram = receiver->receiveFrom(10s);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourceAddress, "127.0.0.1");

    // inet_pton() leaves errno alone, so the text shows the errno of before the call.
    OutputIPC invalid("to_router", PORT, "300.1.1.1");
    OVRA::setErrno(EINVAL);
    expectFailure<CommunicationException>([&invalid] { send(invalid, "lost"); }, 1001,
                                          "Invalid IP address: Invalid argument");
    OVRA::setErrno(0);
    expectFailure<CommunicationException>([&invalid] { send(invalid, "lost"); }, 1001, "Invalid IP address: Success");
    EXPECT_FALSE(receiver->receive(100ms));
}

TEST_F(OutputIPCTest, SocketAndTwentyFailedBindsThrowAndTheNextSendStillGoesOut) {
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    {
        const vidapp::test::DescriptorLimit limit(static_cast<rlim_t>(lowest));
        ASSERT_TRUE(limit.applied());
        EXPECT_EQ(vidapp::test::failureOf<CommunicationException>([this] { send(router, "lost"); }),
                  "1001 OutputIPC.sendMessage(): socket() sys call failure: Too many open files");
    }
    const vidapp::test::DescriptorLimit limit(4096);
    ASSERT_TRUE(limit.applied());
    std::vector<std::unique_ptr<vidapp::test::UdpReceiver>> holders;
    for (unsigned port = OutputIPC::FIRST_SOURCE_PORT; port <= OutputIPC::LAST_SOURCE_PORT; ++port) {
        holders.push_back(std::make_unique<vidapp::test::UdpReceiver>(static_cast<std::uint16_t>(port)));
    }
    const std::string text = vidapp::test::failureOf<CommunicationException>([this] { send(router, "lost"); });
    // The port named is the one drawn after the last failure.
    const std::string head =
        "1000 OutputIPC::sendMessage() bind failure after 20 trying: channel [to_router], upd port:";
    ASSERT_EQ(text.substr(0, head.size()), head);
    std::size_t digits = 0;
    EXPECT_TRUE(inSourceRange(std::stoul(text.substr(head.size()), &digits))) << text;
    EXPECT_EQ(text.substr(head.size() + digits), ", bind() errno: 98 (Address already in use)");
    EXPECT_FALSE(receiver->receive(100ms));
    // The kept socket is unbound: the system picks a port outside the occupied range.
    send(router, "next");
    EXPECT_FALSE(inSourceRange(receivedFrom("next")));
}

} // namespace
