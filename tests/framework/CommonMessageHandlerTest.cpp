#include "framework/CommonMessageHandler.h"

#include <future>
#include <sys/socket.h>

#include "tests/framework/TestApplication.h"
#include "tests/support/Pgm.h"

namespace {

using namespace vidapp::test;
using testing::StrEq;
using InvalidArgument = std::invalid_argument;

constexpr std::uint32_t ID = OVRA::VIDEO_INTERFACE_RESULTS;

// Logs each message it is handed as "delivered <size> bytes ending <last byte>".
class RecordingApplication : public FeatureAppInput {
public:
    void decodeMessagePayload(const OVRA::PDUMessage_t& message) override {
        ovraLogImplementPrintf("delivered %u bytes ending %u", OVRA::LOG_LEVEL_INFO, message.length + 8,
                               reinterpret_cast<const std::uint8_t*>(&message)[message.length + 7]);
    }
};

class CommonMessageHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        router = std::make_unique<UdpReceiver>(OVRA::ROUTER_UDP_PORT);
        const int bufferBytes = 4 << 20;
        setsockopt(router->fd(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(bufferBytes));
    }

    // The next datagram at the router must be that message, stamped with a time stamp and its CRC.
    Bytes expectSent(std::uint32_t id, std::uint16_t count, const void* payload, std::size_t size,
                     std::uint16_t version = 0) {
        const Bytes datagram = router->receive(DEADLINE).value_or(Bytes{});
        const OVRA::PDUMessage_t message = toMessage(datagram);
        OVRA::PDUMessage_t header = testMessage(0, id, message.timestamp, count);
        header.version = version;
        EXPECT_EQ(datagram, stamped(header, payload, size));
        EXPECT_NE(message.timestamp, 0u);
        if (id == ID) { // the router's own check, for the results message it knows
            EXPECT_EQ(DataValidity().verify(&message, datagram.size()), DataValidity::OK);
        }
        return datagram;
    }

    LogCapture log;
    RecordingApplication application;
    CommonMessageHandler hub{OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, application};
    std::unique_ptr<UdpReceiver> router;
};

TEST_F(CommonMessageHandlerTest, DeliversAWholeRecordAndRejectsAnythingLargerOrMismatched) {
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    Bytes datagram(64025, 0x33);
    const auto send = [&](std::size_t size, std::uint32_t lengthField) {
        std::memcpy(datagram.data() + 4, &lengthField, sizeof(lengthField));
        sender.send(datagram.data(), size);
    };
    hub.startCommonMsgHandler();
    send(64025, 64017);
    send(30, 16);
    send(64024, 64016);

    ASSERT_TRUE(log.waitFor("delivered 64024 bytes ending 51", DEADLINE)) << log.dump();
    EXPECT_EQ(log.count("delivered"), 1u);
    // Error texts are cut to 127 characters. A mismatch is thrown back to the channel, which logs it.
    EXPECT_EQ(log.count(errorRecord(1035, "CommonMessageHandler.messageHandler(): lengthBytes= 64025l is larger ***")),
              1u);
    EXPECT_EQ(log.count(errorRecord(1045, "messageHandler exception: CommonMessageHandler::messageHandler(): inv***")),
              1u);

    const auto mismatch = testing::ThrowsMessage<InvalidArgument>(
        StrEq("CommonMessageHandler::messageHandler(): invalid PDU Message length"));
    OVRA::PDUMessage_t message = testMessage(0);
    EXPECT_THAT([&] { hub.messageHandler(&message, 29); }, mismatch);
    message.length = 0xFFFFFFF8U; // length + 8 is 0 only when it wraps
    EXPECT_THAT([&] { hub.messageHandler(&message, 0); }, mismatch);
    EXPECT_THAT([&] { hub.messageHandler(nullptr, 24); },
                testing::ThrowsMessage<InvalidArgument>(
                    StrEq("CommonMessageHandler.messageHandler(): messageBuffer is a null pointer")));
}

TEST_F(CommonMessageHandlerTest, ResultsCarryCountsPerIdAValidCrcAndTheConfiguredVersion) {
    VIDAPP_REQUIRE_NFS();
    const std::uint8_t results[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                      13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    const std::uint8_t status[19] = {3, 3};
    for (std::uint16_t round = 1; round <= 3; ++round) {
        hub.sendFeatureAppResults(ID, results, sizeof(results));
        hub.sendFeatureAppResults(OVRA::SYSTEM_APPLICATION_STATUS, status, sizeof(status));
        expectSent(ID, round, results, sizeof(results));
        expectSent(OVRA::SYSTEM_APPLICATION_STATUS, round, status, sizeof(status));
    }

    writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    CommonMessageHandler configured{OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, application};
    configured.sendFeatureAppResults(ID, results, sizeof(results));
    expectSent(ID, 1, results, sizeof(results), 0x0102);
}

TEST_F(CommonMessageHandlerTest, OnlyKnownIdsAndPayloadsOfOneTo64000BytesAreSent) {
    const Bytes payload(64001, 0x42);
    for (const auto& [id, hex] :
         {std::pair{0U, "0"}, {31U, "1f"}, {0x80000000U, "80000000"}, {0x80000033U, "80000033"}}) {
        expectFailure<OVRA::InvalidMessageIDException>(
            [&] { hub.sendFeatureAppResults(id, payload.data(), 1); }, 1058,
            std::string("CommonMessageHandler.sendFeatureAppResults: received an unexpected message id: . "
                        "Invalid messageId: 0x") +
                hex);
    }
    for (const auto& [data, size] : {std::pair{payload.data(), 0UL}, {payload.data(), 64001UL}, {nullptr, 1UL}}) {
        EXPECT_THAT([&] { hub.sendFeatureAppResults(ID, data, size); },
                    testing::ThrowsMessage<InvalidArgument>(StrEq("Invalid parameter to sendFeatureAppResults\n")));
    }

    hub.sendFeatureAppResults(30, payload.data(), 1);
    hub.sendFeatureAppResults(0x80000032, payload.data(), 64000);
    expectSent(30, 1, payload.data(), 1);
    expectSent(0x80000032, 1, payload.data(), 64000);
    EXPECT_FALSE(router->receive(std::chrono::milliseconds(0)));
}

TEST_F(CommonMessageHandlerTest, WrapperFormsSendWhatDataValidityStamped) {
    const std::uint8_t results[24] = {7};
    OVRA::PDUWriteOnly writeOnly;
    writeOnly.setPayload(ID, results, sizeof(results));
    OVRA::PDUMessage_t own{};
    OVRA::PDUReadWrite readWrite(own);
    readWrite.setPayload(ID, results, sizeof(results));

    hub.sendFeatureAppResults(writeOnly);
    hub.sendFeatureAppResults(readWrite);
    // DataValidity's own count per ID, which starts at 0; the caller's record is sent as stamped.
    expectSent(ID, 0, results, sizeof(results));
    EXPECT_EQ(std::memcmp(expectSent(ID, 1, results, sizeof(results)).data(), &own, 48), 0);

    writeOnly.setPayload(ID, results, 23);
    readWrite.setPayload(0, results, sizeof(results));
    expectFailure<DataValidityException>(
        [&] { hub.sendFeatureAppResults(writeOnly); }, 500,
        "Data Validity Apply failed in sendFeatureAppResults for PDU Write-Only object!");
    expectFailure<DataValidityException>(
        [&] { hub.sendFeatureAppResults(readWrite); }, 500,
        "Data Validity Apply failed in sendFeatureAppResults for PDU Read/Write object!");
    EXPECT_FALSE(router->receive(std::chrono::milliseconds(0)));
}

TEST_F(CommonMessageHandlerTest, ConcurrentSendersKeepTheCountsOfAnIdInOrder) {
    const std::uint8_t results[24] = {};
    const auto send = [&] {
        for (int i = 0; i < 100; ++i) {
            hub.sendFeatureAppResults(ID, results, sizeof(results));
        }
    };
    auto first = std::async(std::launch::async, send);
    auto second = std::async(std::launch::async, send);

    for (std::uint16_t count = 1; count <= 200; ++count) {
        const auto datagram = router->receive(DEADLINE);
        ASSERT_TRUE(datagram) << count;
        EXPECT_EQ(toMessage(*datagram).count, count);
    }
}

} // namespace
