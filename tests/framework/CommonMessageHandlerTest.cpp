#include "framework/CommonMessageHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr auto DEADLINE = 20s;
constexpr std::uint16_t PORT = OVRA::VIDAPP_UDP_PORT;

// Keeps a copy of every message the hub delivers.
class RecordingApplication : public FeatureAppInput {
public:
    void decodeMessagePayload(const OVRA::PDUMessage_t& message) override {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&message);
        {
            std::lock_guard<std::mutex> lock(mutex);
            delivered.emplace_back(bytes, bytes + message.length + 8);
        }
        arrived.notify_all();
    }

    std::vector<Bytes> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, DEADLINE, [&] { return delivered.size() >= count; });
        return delivered;
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Bytes> delivered;
};

// The standard CRC-32, bit by bit, to check the hub's table-driven one independently.
std::uint32_t referenceCrc(const std::uint8_t* data, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFFU;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1U)));
        }
    }
    return ~crc;
}

OVRA::PDUMessage_t header(const Bytes& datagram) {
    OVRA::PDUMessage_t message{};
    std::memcpy(&message, datagram.data(), std::min(datagram.size(), sizeof(message)));
    return message;
}

class CommonMessageHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        router = std::make_unique<vidapp::test::UdpReceiver>(OVRA::ROUTER_UDP_PORT);
        const int bufferBytes = 4 << 20;
        setsockopt(router->fd(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(bufferBytes));
    }

    // Sends a datagram of size bytes whose length field says lengthField.
    void sendDatagram(std::size_t size, std::uint32_t lengthField, std::uint8_t fill = 0x5A) {
        Bytes datagram(std::max<std::size_t>(size, 8), fill);
        std::memcpy(datagram.data(), &ID, sizeof(ID));
        std::memcpy(datagram.data() + 4, &lengthField, sizeof(lengthField));
        datagram.resize(size);
        sender.send(datagram);
    }

    Bytes nextResult() {
        auto datagram = router->receive(DEADLINE);
        EXPECT_TRUE(datagram.has_value());
        return datagram.value_or(Bytes{});
    }

    static constexpr std::uint32_t ID = OVRA::VIDEO_INTERFACE_RESULTS;
    vidapp::test::LogCapture log;
    RecordingApplication application;
    CommonMessageHandler hub{OVRA::VIDAPP_CHANNEL_NAME, PORT, application};
    std::unique_ptr<vidapp::test::UdpReceiver> router;
    vidapp::test::UdpSender sender{PORT};
};

TEST_F(CommonMessageHandlerTest, DeliversAWholeRecordAndDropsAnythingLarger) {
    hub.startCommonMsgHandler();
    sendDatagram(64025, 64017);
    sendDatagram(64024, 64016, 0x33);

    const auto delivered = application.waitFor(1);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].size(), 64024u);
    EXPECT_EQ(delivered[0].back(), 0x33);
    // The record keeps the first 127 characters of the text.
    EXPECT_EQ(log.count("E:  Error Code:      1035, Error Message:      vidapp: CommonMessageHandler.messageHandler(): "
                        "lengthBytes= 64025l is larger ***"),
              1u)
        << log.dump();
}

TEST_F(CommonMessageHandlerTest, LengthMismatchesAreThrownBackAndTheSixthAsksForShutdown) {
    sigset_t sigint;
    OVRA::initSignalsMask(sigint, {SIGINT});
    OVRA::blockThreadSignals(sigint);
    hub.startCommonMsgHandler();

    for (int i = 0; i < 5; ++i) {
        sendDatagram(30, 16);
    }
    sendDatagram(24, 16);
    ASSERT_EQ(application.waitFor(1).size(), 1u);
    const std::string mismatch = "E:  Error Code:      1045, Error Message:      vidapp: messageHandler exception: "
                                 "CommonMessageHandler::messageHandler(): inv***";
    EXPECT_EQ(log.count(mismatch), 5u) << log.dump();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGINT));

    sendDatagram(7, 16);
    const timespec deadline{20, 0};
    EXPECT_EQ(sigtimedwait(&sigint, nullptr, &deadline), SIGINT);
    EXPECT_EQ(log.count(mismatch), 6u);
    OVRA::setThreadSignalsMask(SIG_UNBLOCK, sigint);
}

TEST_F(CommonMessageHandlerTest, NullBufferAndLengthMismatchAreThrownBack) {
    OVRA::PDUMessage_t message{};
    message.length = 16;
    const auto textOf = [&](void* buffer, unsigned long length) {
        try {
            hub.messageHandler(buffer, length);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };

    EXPECT_EQ(textOf(nullptr, 24), "CommonMessageHandler.messageHandler(): messageBuffer is a null pointer");
    EXPECT_EQ(textOf(&message, 25), "CommonMessageHandler::messageHandler(): invalid PDU Message length");
    message.length = 0xFFFFFFF8U;
    EXPECT_EQ(textOf(&message, 0), "CommonMessageHandler::messageHandler(): invalid PDU Message length");
}

TEST_F(CommonMessageHandlerTest, ResultsCarryCountsPerIdAndAValidCrc) {
    const std::uint8_t results[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                      13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    const std::uint8_t status[19] = {3, 3};
    DataValidity routerSide;

    for (std::uint16_t round = 1; round <= 3; ++round) {
        hub.sendFeatureAppResults(ID, results, sizeof(results));
        hub.sendFeatureAppResults(OVRA::SYSTEM_APPLICATION_STATUS, status, sizeof(status));

        const Bytes first = nextResult();
        const Bytes second = nextResult();
        ASSERT_EQ(first.size(), 48u);
        ASSERT_EQ(second.size(), 43u);
        const OVRA::PDUMessage_t message = header(first);
        EXPECT_EQ(message.messageId, ID);
        EXPECT_EQ(message.length, 40u);
        EXPECT_EQ(message.count, round);
        EXPECT_EQ(message.version, 0u);
        EXPECT_NE(message.timestamp, 0u);
        EXPECT_EQ(message.crc, referenceCrc(first.data() + 12, first.size() - 12));
        EXPECT_EQ(routerSide.verify(&message, first.size()), DataValidity::OK);
        EXPECT_TRUE(std::equal(results, results + 24, first.begin() + 24));
        EXPECT_EQ(header(second).count, round);
        EXPECT_EQ(header(second).crc, referenceCrc(second.data() + 12, second.size() - 12));
    }
}

TEST_F(CommonMessageHandlerTest, ResultsCarryTheConfiguredProtocolVersion) {
    VIDAPP_REQUIRE_NFS();
    vidapp::test::writeFileBytes("/NFS/ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\n");
    CommonMessageHandler configuredHub{OVRA::VIDAPP_CHANNEL_NAME, PORT, application};
    DataValidity configuredRouter;
    const std::uint8_t results[24] = {7};

    configuredHub.sendFeatureAppResults(ID, results, sizeof(results));

    const Bytes datagram = nextResult();
    ASSERT_EQ(datagram.size(), 48u);
    const OVRA::PDUMessage_t message = header(datagram);
    EXPECT_EQ(message.version, 0x0102);
    EXPECT_EQ(message.count, 1u);
    EXPECT_EQ(configuredRouter.verify(&message, datagram.size()), DataValidity::OK);
}

TEST_F(CommonMessageHandlerTest, OnlyKnownIdsAndPayloadsOfOneTo64000BytesAreSent) {
    const std::vector<std::uint8_t> payload(64001, 0x42);
    for (const std::uint32_t refused : {0U, 31U, 0x80000000U, 0x80000033U}) {
        try {
            hub.sendFeatureAppResults(refused, payload.data(), 1);
            ADD_FAILURE() << refused << " accepted";
        } catch (const OVRA::InvalidMessageIDException& e) {
            EXPECT_EQ(e.getCode(), 1058u);
            char hex[16];
            std::snprintf(hex, sizeof(hex), "%x", refused);
            EXPECT_EQ(std::string(e.what()),
                      std::string("CommonMessageHandler.sendFeatureAppResults: received an unexpected message id: . "
                                  "Invalid messageId: 0x") +
                          hex);
        }
    }
    for (const unsigned long size : {0UL, 64001UL}) {
        try {
            hub.sendFeatureAppResults(ID, payload.data(), size);
            ADD_FAILURE() << size << " bytes accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "Invalid parameter to sendFeatureAppResults\n");
        }
    }
    EXPECT_THROW(hub.sendFeatureAppResults(ID, nullptr, 1), std::invalid_argument);

    hub.sendFeatureAppResults(30, payload.data(), 1);
    hub.sendFeatureAppResults(0x80000032, payload.data(), 64000);

    EXPECT_EQ(header(nextResult()).messageId, 30u);
    const Bytes largest = nextResult();
    EXPECT_EQ(largest.size(), 64024u);
    EXPECT_EQ(header(largest).messageId, 0x80000032u);
    EXPECT_FALSE(router->receive(0ms));
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

    DataValidity routerSide;
    Bytes sent;
    for (std::uint16_t count = 0; count < 2; ++count) {
        sent = nextResult();
        ASSERT_EQ(sent.size(), 48u);
        const OVRA::PDUMessage_t message = header(sent);
        EXPECT_EQ(message.count, count);
        EXPECT_EQ(routerSide.verify(&message, sent.size()), DataValidity::OK);
    }
    // Sent as the caller's own record stands after stamping.
    EXPECT_EQ(std::memcmp(sent.data(), &own, sent.size()), 0);

    writeOnly.setPayload(ID, results, 23);
    readWrite.setPayload(0, results, sizeof(results));
    try {
        hub.sendFeatureAppResults(writeOnly);
        ADD_FAILURE() << "wrong size accepted";
    } catch (const DataValidityException& e) {
        EXPECT_EQ(e.getCode(), 500u);
        EXPECT_STREQ(e.what(), "Data Validity Apply failed in sendFeatureAppResults for PDU Write-Only object!");
    }
    try {
        hub.sendFeatureAppResults(readWrite);
        ADD_FAILURE() << "ID 0 accepted";
    } catch (const DataValidityException& e) {
        EXPECT_EQ(e.getCode(), 500u);
        EXPECT_STREQ(e.what(), "Data Validity Apply failed in sendFeatureAppResults for PDU Read/Write object!");
    }
    EXPECT_FALSE(router->receive(0ms));
}

TEST_F(CommonMessageHandlerTest, SecondConstructorSendsToTheGivenAddressAndPort) {
    vidapp::test::UdpReceiver other(OVRA::LAUNCHER_UDP_PORT);
    CommonMessageHandler elsewhere(OVRA::VIDAPP_CHANNEL_NAME, PORT, application, "127.0.0.1", OVRA::LAUNCHER_UDP_PORT);
    CommonMessageHandler nowhere(OVRA::VIDAPP_CHANNEL_NAME, PORT, application, "to_router", OVRA::LAUNCHER_UDP_PORT);
    const std::uint8_t byte = 1;

    elsewhere.sendFeatureAppResults(ID, &byte, 1);
    EXPECT_THROW(nowhere.sendFeatureAppResults(ID, &byte, 1), CommunicationException);

    const auto sent = other.receive(DEADLINE);
    ASSERT_TRUE(sent);
    EXPECT_EQ(header(*sent).count, 1u);
}

TEST_F(CommonMessageHandlerTest, ConcurrentSendersKeepTheCountsOfAnIdInOrder) {
    constexpr int PER_SENDER = 100;
    const std::uint8_t results[24] = {};
    auto send = [&] {
        for (int i = 0; i < PER_SENDER; ++i) {
            hub.sendFeatureAppResults(ID, results, sizeof(results));
        }
    };
    std::thread first(send);
    std::thread second(send);

    std::vector<std::uint16_t> counts;
    while (counts.size() < 2 * PER_SENDER) {
        const auto datagram = router->receive(DEADLINE);
        if (!datagram) {
            break;
        }
        counts.push_back(header(*datagram).count);
    }
    first.join();
    second.join();

    ASSERT_EQ(counts.size(), 2u * PER_SENDER);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        EXPECT_EQ(counts[i], i + 1);
    }
}

} // namespace
