#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <sstream>

#include "communication/OVRAInterSystemMessages.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "tests/support/VidappProcess.h"

namespace {

using testing::HasSubstr;
using namespace vidapp::test;
using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t T0 = 1700000000000000ULL;

void expectParts(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        EXPECT_THAT(text, HasSubstr(part));
    }
}

// A message as a sending hub stamps it; the CRC is right unless a test spoils it afterwards.
Bytes message(std::uint32_t id, const void* payload, std::size_t size, std::uint16_t count, std::uint64_t timestamp) {
    OVRA::PDUMessage_t pdu{};
    pdu.messageId = id;
    pdu.length = static_cast<std::uint32_t>(size + 16);
    pdu.count = count;
    pdu.timestamp = timestamp;
    std::memcpy(pdu.payload, payload, size);
    pdu.crc = DataValidity::computeMessageCRC(&pdu);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&pdu);
    return {bytes, bytes + OVRA::PDU_HEADER_SIZE + size};
}

// A results message, and its line as the peer prints it up to the verdict.
Bytes results(std::uint16_t count, std::uint32_t sequence, std::uint64_t timestamp) {
    const OVRAInterSystemMessages::VideoInterfaceResults_t payload{0, 800, 1200, sequence, timestamp + 7};
    return message(OVRA::VIDEO_INTERFACE_RESULTS, &payload, sizeof payload, count, timestamp);
}
std::string resultsLine(int count, int sequence, std::uint64_t timestamp) {
    return "to_router: VIDEO_INTERFACE_RESULTS (29) count " + std::to_string(count) + " timestamp " +
           std::to_string(timestamp) + ": buffer index 0, width 800, height 1200, sequence " +
           std::to_string(sequence) + ", time stamp " + std::to_string(timestamp + 7);
}

// The peer run as a child against datagrams of the test's own, in the sandbox's network.
class VidappPeerTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    // Runs a peer to its end and checks its status; the datagrams go to it once it listens.
    static ChildResult run(const std::string& arguments, int exitCode, const std::vector<Bytes>& datagrams = {},
                           bool toLauncher = false) {
        std::istringstream words(arguments);
        std::vector<std::string> argv(std::istream_iterator<std::string>(words), {});
        argv.insert(argv.begin(), VIDAPP_BIN_DIR "/vidapp-peer");
        Child peer(argv);
        if (!datagrams.empty()) {
            EXPECT_TRUE(peer.waitForError("vidapp-peer: listening on to_router:50410 and to_launcher:50412", 20s));
            UdpSender launcher(OVRA::LAUNCHER_UDP_PORT);
            UdpSender router(OVRA::ROUTER_UDP_PORT);
            for (std::size_t i = 0; i < datagrams.size(); ++i) {
                (i == 0 && toLauncher ? launcher : router).send(datagrams[i]);
            }
        }
        const ChildResult result = peer.wait();
        EXPECT_TRUE(result.exited && result.exitCode == exitCode) << arguments << "\n" << result.describe();
        return result;
    }

    LogCapture log; // the test's own DataValidity logs a missing configuration file
};

TEST_F(VidappPeerTest, ValidStreamAndReadyReportVerify) {
    OVRAInterSystemMessages::AppGUIDStatus_t ready{};
    std::strcpy(ready.guid, "vidapp");
    ready.status = OVRA::RUNNING;
    const ChildResult result = run("--count 4", 0,
                                   {message(OVRA::APP_GUID_STATUS, &ready, sizeof ready, 1, T0),
                                    results(1, 0, T0 + 100000), results(2, 1, T0 + 200000), results(3, 2, T0 + 300000)},
                                   true);
    expectParts(result.out, {resultsLine(1, 0, T0 + 100000) + " ok\n", resultsLine(3, 2, T0 + 300000) + " ok\n",
                             "to_launcher: APP_GUID_STATUS (0x8000002e) count 1 timestamp 1700000000000000: name "
                             "vidapp, status 3 RUNNING ok\n",
                             "summary: 4 messages, 0 verification failures\nto_router: VIDEO_INTERFACE_RESULTS:29\t3\t",
                             "to_launcher: APP_GUID_STATUS:2147483694\t1\t0.00 Hz ( 0.00 ms)\n"});
    expectParts(result.err, {"vidapp-peer: Failed to open ini File: /NFS/ProtocolVersion.ini: protocol version 0"});
}

TEST_F(VidappPeerTest, EachFaultIsCountedAndFailsTheRun) {
    Bytes badCrc = results(6, 1, T0 + 600000);
    badCrc[8] ^= 0x01;
    const std::pair<Bytes, std::string> faults[] = {
        {badCrc, resultsLine(6, 1, T0 + 600000) + " FAILED 802 Data Validity - CRC failure\n"},
        {results(8, 1, T0 + 600000), resultsLine(8, 1, T0 + 600000) + " FAILED 803 Data Validity - Count failure\n"},
        {results(6, 1, T0 + 400000),
         resultsLine(6, 1, T0 + 400000) + " FAILED 805 Data Validity - Timestamp failure\n"},
        {{27, 0, 0},
         "to_router: HOST_MESSAGE_27 (27) count 0 timestamp 0 FAILED 801 Data Validity - Length failure "
         "(shorter than the 24-byte header)\n"}};
    for (const auto& [fault, line] : faults) {
        expectParts(run("--count 2", 1, {results(5, 0, T0 + 500000), fault}).out,
                    {line, "summary: 2 messages, 1 verification failures\n"});
    }
}

TEST_F(VidappPeerTest, SentMessagesCarryTheConfiguredVersionWhichIsAlsoExpected) {
    VIDAPP_REQUIRE_NFS();
    writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    UdpReceiver vidapp(OVRA::VIDAPP_UDP_PORT);
    const ChildResult result = run("--count 1 --send=camera-support=0", 1, {results(1, 0, T0)});
    expectParts(result.out, {"FAILED 804 Data Validity - Version failure\n", // version 0 where 0x0102 is expected
                             "sent CAMERA_SUPPORT_DATA (16) count 1 (272 bytes) to to_vidapp:50427\n"});
    expectParts(result.err, {"vidapp-peer: protocol version 0x0102 (T1D_VER of /NFS/ProtocolVersion.ini)\n"});
    const Bytes datagram = vidapp.receive(10s).value_or(Bytes{});
    const OVRA::PDUMessage_t sent = toMessage(datagram);
    EXPECT_EQ(DataValidity().verify(&sent, datagram.size()), DataValidity::OK) << "at a receiver configured alike";
    EXPECT_EQ(sent.payload[offsetof(OVRAInterSystemMessages::CameraSupport_t, rvcCameraOnStatus)], 0);
}

TEST_F(VidappPeerTest, RunEndsAtItsCountOrTimeAndBadUsageExitsWithTwo) {
    EXPECT_EQ(run("--quiet --count 1", 0, {results(1, 0, T0)}).out,
              "summary: 1 messages, 0 verification failures\nto_router: VIDEO_INTERFACE_RESULTS:29\t1\t0.00 Hz ( 0.00 "
              "ms)\n");
    EXPECT_EQ(run("--seconds 0.2", 0).out, "summary: 0 messages, 0 verification failures\n");
    expectParts(run("--send-file /dev/shm/none", 1).err,
                {"vidapp-peer: cannot read '/dev/shm/none': No such file or directory\n"});
    for (const char* arguments : {"--count 0", "--seconds x", "--send camera-support=256", "--quiet=yes", "listen"}) {
        EXPECT_EQ(run(arguments, 2).out, "");
    }
    expectParts(run("--send camera", 2).err, {"usage: vidapp-peer [--count N] [--seconds T] [--quiet] [--send KIND]... "
                                              "[--send-file PATH]... | --help\n"});
    expectParts(run("--help", 0).out, {"send only"});
}

} // namespace
