#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "communication/OVRAInterSystemMessages.h"
#include "tests/support/VidappProcess.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The load generator run as a child against a port of the test's own.
TEST(VidappLoadTest, SendsAtItsRateTheExactGarbageShareAndReportsWhatItSent) {
    vidapp::test::UdpReceiver receiver(0);
    vidapp::test::Child load({VIDAPP_BIN_DIR "/vidapp-load", "--rate", "200", "--count", "200", "--garbage", "0.2",
                              "--seed", "7", "--port", std::to_string(receiver.port())});
    std::vector<std::vector<std::uint8_t>> datagrams;
    Clock::time_point first;
    while (datagrams.size() < 200) {
        auto datagram = receiver.receive(10s);
        ASSERT_TRUE(datagram.has_value()) << datagrams.size() << " received";
        first = datagrams.empty() ? Clock::now() : first;
        datagrams.push_back(std::move(*datagram));
    }
    // 199 gaps of 5 ms; a loaded machine may bunch a few, never stretch the run much.
    EXPECT_GE(Clock::now() - first, 900ms);
    EXPECT_LT(Clock::now() - first, 3s);
    const vidapp::test::ChildResult result = load.wait(20s);
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    std::map<std::uint32_t, std::size_t> valid;
    for (const auto& datagram : datagrams) {
        const OVRA::PDUMessage_t message = vidapp::test::toMessage(datagram);
        EXPECT_EQ(message.length + OVRA::PDU_ID_AND_LENGTH_BYTES, datagram.size()) << "every length field is right";
        const std::size_t payload = datagram.size() - std::min(datagram.size(), OVRA::PDU_HEADER_SIZE);
        if (message.crc == DataValidity::computeMessageCRC(&message) &&
            ((message.messageId == OVRA::CAMERA_SUPPORT_DATA && payload == 248) ||
             (message.messageId == OVRA::SYSTEM_APPLICATION_STATUS && payload == 19))) {
            ++valid[message.messageId];
        }
    }
    const std::size_t camera = valid[OVRA::CAMERA_SUPPORT_DATA];
    const std::size_t status = valid[OVRA::SYSTEM_APPLICATION_STATUS];
    EXPECT_EQ(camera + status, 160U);
    EXPECT_TRUE(camera > 0 && status > 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr("vidapp-load: sent 200 datagrams of 200 in "),
                                  HasSubstr("  valid:   160 (CAMERA_SUPPORT_DATA " + std::to_string(camera) +
                                            ", SYSTEM_APPLICATION_STATUS " + std::to_string(status) + ")\n"),
                                  HasSubstr("  garbage: 40 (20.0 %): unknown ID "), HasSubstr("  failed sends: 0\n")));
}

} // namespace
