#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;
using vidapp::test::Child;
using vidapp::test::ChildResult;
namespace Messages = OVRAInterSystemMessages;

constexpr const char* USAGE =
    "usage: vidapp-peer [--count N] [--seconds T] [--quiet] [--send KIND]... [--send-file PATH]... | --help\n";
constexpr std::uint64_t T0 = 1700000000000000ULL;

// The peer run as a child against datagrams of the test's own, in the sandbox's network.
class VidappPeerTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    static std::vector<std::string> peerArguments(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv = {VIDAPP_BIN_DIR "/vidapp-peer"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    }

    static ChildResult runPeer(const std::vector<std::string>& arguments) {
        return vidapp::test::runProgram(peerArguments(arguments));
    }

    // Starts a listening peer and returns once both ports are bound.
    static std::unique_ptr<Child> startPeer(const std::vector<std::string>& arguments) {
        auto peer = std::make_unique<Child>(peerArguments(arguments));
        EXPECT_TRUE(peer->waitForError("vidapp-peer: listening on to_router:50410 and to_launcher:50412", 20s))
            << peer->err();
        return peer;
    }

    // A message as a sending hub stamps it; the CRC is right unless a test spoils it afterwards.
    static std::vector<std::uint8_t> message(std::uint32_t id, const void* payload, std::size_t size,
                                             std::uint16_t count, std::uint64_t timestamp) {
        auto pdu = std::make_unique<OVRA::PDUMessage_t>();
        std::memset(pdu.get(), 0, sizeof(OVRA::PDUMessage_t));
        pdu->messageId = id;
        pdu->length = static_cast<std::uint32_t>(size + 16);
        pdu->count = count;
        pdu->timestamp = timestamp;
        std::memcpy(pdu->payload, payload, size);
        pdu->crc = DataValidity::computeMessageCRC(pdu.get());
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(pdu.get());
        return {bytes, bytes + OVRA::PDU_HEADER_SIZE + size};
    }

    static std::vector<std::uint8_t> results(std::uint16_t count, std::uint32_t sequence, std::uint64_t timestamp) {
        const Messages::VideoInterfaceResults_t payload{0, 800, 1200, sequence, timestamp + 7};
        return message(OVRA::VIDEO_INTERFACE_RESULTS, &payload, sizeof payload, count, timestamp);
    }

    static std::vector<std::uint8_t> ready(std::uint32_t status = OVRA::RUNNING) {
        Messages::AppGUIDStatus_t payload{};
        std::strcpy(payload.guid, "vidapp");
        payload.status = status;
        return message(OVRA::APP_GUID_STATUS, &payload, sizeof payload, 1, T0);
    }

    static void expectContains(const std::string& text, const std::string& part) {
        EXPECT_NE(text.find(part), std::string::npos) << "missing: " << part << "\nin:\n" << text;
    }

    vidapp::test::LogCapture log; // the test's own DataValidity logs a missing configuration file
};

TEST_F(VidappPeerTest, ValidStreamAndReadyReportVerify) {
    auto peer = startPeer({"--count", "4"});
    vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
    vidapp::test::UdpSender launcher(OVRA::LAUNCHER_UDP_PORT);
    launcher.send(ready());
    for (std::uint16_t count = 1; count <= 3; ++count) {
        router.send(results(count, count - 1U, T0 + count * 100000ULL));
    }

    const ChildResult result = peer->wait();
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    expectContains(result.out, "to_router: VIDEO_INTERFACE_RESULTS (29) count 1 timestamp 1700000000100000: buffer "
                               "index 0, width 800, height 1200, sequence 0, time stamp 1700000000100007 ok\n");
    expectContains(result.out, "to_router: VIDEO_INTERFACE_RESULTS (29) count 3 timestamp 1700000000300000: buffer "
                               "index 0, width 800, height 1200, sequence 2, time stamp 1700000000300007 ok\n");
    expectContains(result.out, "to_launcher: APP_GUID_STATUS (0x8000002e) count 1 timestamp 1700000000000000: name "
                               "vidapp, status 3 RUNNING ok\n");
    expectContains(result.out, "summary: 4 messages, 0 verification failures\n");
    expectContains(result.out, "to_router: VIDEO_INTERFACE_RESULTS:29\t3\t");
    expectContains(result.out, "to_launcher: APP_GUID_STATUS:2147483694\t1\t0.00 Hz ( 0.00 ms)\n");
    expectContains(result.err, "vidapp-peer: Failed to open ini File: /NFS/ProtocolVersion.ini: protocol version 0");
}

TEST_F(VidappPeerTest, EachFaultIsCountedAndFailsTheRun) {
    std::vector<std::uint8_t> badCrc = results(6, 1, T0 + 600000);
    badCrc[8] ^= 0x01;
    // Each follows a valid message of count 5 at T0 + 500000.
    const std::vector<std::pair<std::vector<std::uint8_t>, std::string>> faults = {
        {badCrc, "count 6 timestamp 1700000000600000: buffer index 0, width 800, height 1200, sequence 1, time stamp "
                 "1700000000600007 FAILED 802 Data Validity - CRC failure\n"},
        {results(8, 1, T0 + 600000), "count 8 timestamp 1700000000600000"},
        {results(6, 1, T0 + 400000), "count 6 timestamp 1700000000400000"},
    };
    const char* reasons[] = {"FAILED 802 Data Validity - CRC failure\n", "FAILED 803 Data Validity - Count failure\n",
                             "FAILED 805 Data Validity - Timestamp failure\n"};
    for (std::size_t i = 0; i < faults.size(); ++i) {
        SCOPED_TRACE(reasons[i]);
        auto peer = startPeer({"--count", "2"});
        vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
        router.send(results(5, 0, T0 + 500000));
        router.send(faults[i].first);

        const ChildResult result = peer->wait();
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        expectContains(result.out, faults[i].second);
        expectContains(result.out, reasons[i]);
        expectContains(result.out,
                       "summary: 2 messages, 1 verification failures\nto_router: VIDEO_INTERFACE_RESULTS:29\t2\t");
    }
}

TEST_F(VidappPeerTest, MalformedInputIsReportedWithoutEndingThePeer) {
    auto peer = startPeer({"--count", "7"});
    vidapp::test::UdpSender launcher(OVRA::LAUNCHER_UDP_PORT);
    std::vector<std::uint8_t> badCrc = ready();
    badCrc[OVRA::PDU_HEADER_SIZE] = 'V'; // the name changes after the CRC was taken
    std::vector<std::uint8_t> tooLong = ready(OVRA::INITIALIZING);
    tooLong.push_back(0);
    launcher.send(badCrc);
    launcher.send(tooLong);
    launcher.send(ready(9));
    vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
    const std::uint8_t payload[8] = {};
    router.send(message(0, payload, 0, 1, T0));
    router.send(message(31, payload, 0, 1, T0));
    router.send(message(0x80000000U, payload, 4, 1, T0));
    const std::uint8_t shortDatagram[3] = {27, 0, 0};
    router.send(shortDatagram, sizeof shortDatagram);

    const ChildResult result = peer->wait();
    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    expectContains(result.out, "name Vidapp, status 3 RUNNING FAILED 802 Data Validity - CRC failure\n");
    expectContains(result.out, "name vidapp, status 2 INITIALIZING FAILED 801 Data Validity - Length failure\n");
    expectContains(result.out, "name vidapp, status 9 unknown status ok\n");
    expectContains(result.out, "to_router: unknown ID [Invalid messageId: 0x0] (0) count 1 timestamp "
                               "1700000000000000 FAILED 800 Data Validity - Message ID failure\n");
    expectContains(result.out, "(31) count 1 timestamp 1700000000000000 FAILED 800 Data Validity - Message ID "
                               "failure (no payload size for this ID)\n");
    expectContains(result.out, "to_router: unknown ID [getInternalMessageIdString(). Invalid messageId: 0x80000000] "
                               "(0x80000000) count 1 timestamp 1700000000000000 FAILED 800");
    expectContains(result.out, "to_router: HOST_MESSAGE_27 (27) count 0 timestamp 0 FAILED 801 Data Validity - "
                               "Length failure (shorter than the 24-byte header)\n");
    expectContains(result.out, "summary: 7 messages, 6 verification failures\n");
    expectContains(result.out, "to_router: HOST_MESSAGE_27:27\t1\t");
    expectContains(result.out, "3 messages with an ID outside the tables\n");
}

TEST_F(VidappPeerTest, QuietPrintsOnlyTheSummary) {
    auto peer = startPeer({"--quiet", "--count", "1"});
    vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
    router.send(results(1, 0, T0));

    const ChildResult result = peer->wait();
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "summary: 1 messages, 0 verification failures\n"
                          "to_router: VIDEO_INTERFACE_RESULTS:29\t1\t0.00 Hz ( 0.00 ms)\n");
}

TEST_F(VidappPeerTest, SigtermEndsTheRunWithTheSummary) {
    auto peer = startPeer({});
    vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
    router.send(results(1, 0, T0));
    ASSERT_TRUE(peer->waitForOutput(" ok\n", 20s)) << peer->out();
    ASSERT_TRUE(peer->signal(SIGTERM));

    const ChildResult result = peer->wait();
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    expectContains(result.out, "summary: 1 messages, 0 verification failures\n");
}

TEST_F(VidappPeerTest, TimeLimitWithoutMessages) {
    const ChildResult quiet = runPeer({"--seconds", "0.2"});
    EXPECT_TRUE(quiet.exited && quiet.exitCode == 0) << quiet.describe();
    EXPECT_EQ(quiet.out, "summary: 0 messages, 0 verification failures\n");

    const ChildResult counted = runPeer({"--seconds=0.2", "--count=1"});
    EXPECT_TRUE(counted.exited && counted.exitCode == 1) << "--count wants at least one message\n"
                                                         << counted.describe();
}

TEST_F(VidappPeerTest, SentMessagesPassVerification) {
    vidapp::test::UdpReceiver vidapp(OVRA::VIDAPP_UDP_PORT);
    const ChildResult result = runPeer({"--send", "camera-support", "--send=camera-support=0", "--send",
                                        "system-status=OFF", "--send", "consumer-register=SRC_HBALLD"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    expectContains(result.out, "sent CAMERA_SUPPORT_DATA (16) count 2 (272 bytes) to to_vidapp:50427\n");

    DataValidity verifier;
    const std::vector<std::pair<std::uint32_t, std::size_t>> expected = {{OVRA::CAMERA_SUPPORT_DATA, 248},
                                                                         {OVRA::CAMERA_SUPPORT_DATA, 248},
                                                                         {OVRA::SYSTEM_APPLICATION_STATUS, 19},
                                                                         {OVRA::VIDEO_CONSUMER_REGISTER, 4}};
    std::vector<std::vector<std::uint8_t>> payloads;
    for (const auto& [id, size] : expected) {
        const auto datagram = vidapp.receive(10s);
        ASSERT_TRUE(datagram);
        ASSERT_EQ(datagram->size(), OVRA::PDU_HEADER_SIZE + size);
        const auto* pdu = reinterpret_cast<const OVRA::PDUMessage_t*>(datagram->data());
        EXPECT_EQ(pdu->messageId, id);
        EXPECT_EQ(pdu->crc, DataValidity::computeMessageCRC(pdu));
        if (id == OVRA::CAMERA_SUPPORT_DATA) {
            EXPECT_EQ(verifier.verify(pdu, datagram->size()), DataValidity::OK);
            EXPECT_EQ(pdu->count, payloads.size() + 1) << "counted from 1 per ID, as the router's hub counts";
        }
        payloads.emplace_back(pdu->payload, pdu->payload + size);
    }
    EXPECT_EQ(payloads[0][offsetof(Messages::CameraSupport_t, rvcCameraOnStatus)], 1);
    EXPECT_EQ(payloads[1][offsetof(Messages::CameraSupport_t, rvcCameraOnStatus)], 0);
    EXPECT_EQ(payloads[2], std::vector<std::uint8_t>(19, OVRA::OFF));
    EXPECT_EQ(payloads[3][0], OVRA::SRC_HBALLD);
}

TEST_F(VidappPeerTest, ConfiguredVersionIsExpectedAndSent) {
    VIDAPP_REQUIRE_NFS();
    vidapp::test::writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    vidapp::test::UdpReceiver vidapp(OVRA::VIDAPP_UDP_PORT);
    auto peer = startPeer({"--count", "1", "--send", "camera-support"});
    vidapp::test::UdpSender router(OVRA::ROUTER_UDP_PORT);
    router.send(results(1, 0, T0)); // version 0

    const ChildResult result = peer->wait();
    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    expectContains(result.out, "FAILED 804 Data Validity - Version failure\n");
    expectContains(result.err, "vidapp-peer: protocol version 0x0102 (T1D_VER of /NFS/ProtocolVersion.ini)\n");

    const auto datagram = vidapp.receive(10s);
    ASSERT_TRUE(datagram);
    const auto* pdu = reinterpret_cast<const OVRA::PDUMessage_t*>(datagram->data());
    EXPECT_EQ(pdu->version, 0x0102);
    DataValidity verifier;
    EXPECT_EQ(verifier.verify(pdu, datagram->size()), DataValidity::OK);
}

TEST_F(VidappPeerTest, SendFileSendsTheBytesUnchanged) {
    char directory[] = "/tmp/vidapp-peer-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string path = std::string(directory) + "/datagram.bin";
    std::string bytes;
    for (int i = 0; i < 300; ++i) {
        bytes.push_back(static_cast<char>((i * 37) & 0xFF));
    }
    vidapp::test::writeFileBytes(path, bytes);
    vidapp::test::UdpReceiver vidapp(OVRA::VIDAPP_UDP_PORT);

    const ChildResult result = runPeer({"--send-file", path});
    std::remove(path.c_str());
    rmdir(directory);
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    expectContains(result.out, "sent file " + path + " (300 bytes) to to_vidapp:50427\n");
    const auto datagram = vidapp.receive(10s);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(std::string(datagram->begin(), datagram->end()), bytes);

    const ChildResult missing = runPeer({"--send-file", path});
    EXPECT_TRUE(missing.exited && missing.exitCode == 1) << missing.describe();
    expectContains(missing.err, "vidapp-peer: cannot read '" + path + "': No such file or directory\n");
}

TEST_F(VidappPeerTest, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {"--count"},
        {"--count", "0"},
        {"--count", "-3"},
        {"--seconds", "0"},
        {"--seconds", "x"},
        {"--send", "camera"},
        {"--quiet=yes"},
        {"listen"},
        {"--send", "camera-support=256"},
        {"--send", "system-status=ASLEEP"},
        {"--send", "consumer-register=SRC_NONE"},
    };
    for (const auto& arguments : wrong) {
        SCOPED_TRACE(arguments[0] + (arguments.size() > 1 ? " " + arguments[1] : ""));
        const ChildResult result = runPeer(arguments);
        EXPECT_TRUE(result.exited && result.exitCode == 2) << result.describe();
        expectContains(result.err, USAGE);
        EXPECT_EQ(result.out, "");
    }

    const ChildResult help = runPeer({"--help"});
    EXPECT_TRUE(help.exited && help.exitCode == 0) << help.describe();
    expectContains(help.out, "send only");
}

} // namespace
