#include "communication/DataValidity.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "communication/OVRAInterSystemMessages.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"

namespace {

using OVRA::PDUMessage_t;

constexpr std::uint32_t RESULTS_ID = OVRA::VIDEO_INTERFACE_RESULTS; // 24-byte payload

void writeNfsFile(const std::string& name, const std::string& content) {
    std::ofstream("/NFS/" + name, std::ios::trunc) << content;
}

void writeVersions(const char* t1d, const char* diagnostic) {
    writeNfsFile("ProtocolVersion.ini",
                 std::string("[Protocol]\nT1D_VER=") + t1d + "\nDIAG_INTF_VER=" + diagnostic + "\n");
}

std::uint32_t zlibCrc(const void* data, std::size_t size) {
    return static_cast<std::uint32_t>(crc32(0L, static_cast<const Bytef*>(data), static_cast<uInt>(size)));
}

class DataValidityTest : public ::testing::Test {
protected:
    // A host message of the given ID with its table size and a random payload.
    PDUMessage_t& makeMessage(std::uint32_t id) {
        std::memset(message.get(), 0, sizeof *message);
        message->messageId = id;
        message->length = static_cast<std::uint32_t>(OVRAInterSystemMessages::HOST_MESSAGE_SIZE.at(id)) + 16;
        for (std::uint32_t i = 0; i < message->length - 16; ++i) {
            message->payload[i] = static_cast<std::uint8_t>(generator());
        }
        return *message;
    }

    // A received message that passes every check of a receiver with version 0, count and time aside.
    PDUMessage_t& makeReceived(std::uint32_t id, std::uint16_t count, std::uint64_t timestamp) {
        makeMessage(id);
        message->count = count;
        message->timestamp = timestamp;
        return restamp();
    }

    PDUMessage_t& restamp() {
        message->crc = DataValidity::computeMessageCRC(message.get());
        return *message;
    }

    static std::int32_t verify(DataValidity& validity, const PDUMessage_t& m) {
        return validity.verify(&m, std::size_t{m.length} + 8);
    }

    vidapp::test::LogCapture log;
    std::unique_ptr<PDUMessage_t> message = std::make_unique<PDUMessage_t>();
    std::mt19937 generator{4242U};
};

TEST_F(DataValidityTest, WireBytesOfAnAppliedMessageMatchAnIndependentlyBuiltRecord) {
    VIDAPP_REQUIRE_NFS();
    writeVersions("0102", "0201");
    DataValidity validity;
    makeMessage(RESULTS_ID);
    const std::uint64_t before = ovraSystemTimestamp_us();
    ASSERT_EQ(validity.apply(message.get()), 0);
    ASSERT_GE(message->timestamp, before);
    ASSERT_LE(message->timestamp, ovraSystemTimestamp_us());

    std::vector<std::uint8_t> expected(24 + 24, 0);
    auto put = [&expected](std::size_t offset, std::uint64_t value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            expected[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
    };
    put(0, RESULTS_ID, 4);
    put(4, 40, 4);
    put(12, 0, 2); // the first count of an ID
    put(14, 0x0102, 2);
    put(16, message->timestamp, 8);
    std::memcpy(expected.data() + 24, message->payload, 24);
    put(8, zlibCrc(expected.data() + 12, expected.size() - 12), 4);
    const auto* wire = reinterpret_cast<const std::uint8_t*>(message.get());
    EXPECT_EQ(std::vector<std::uint8_t>(wire, wire + expected.size()), expected);
}

TEST_F(DataValidityTest, ApplyCountsFromZeroPerIdAndWrapsAfter65536Messages) {
    DataValidity validity;
    makeMessage(OVRA::MPL_INPUTS);
    ASSERT_EQ(validity.apply(message.get()), 0);
    makeMessage(RESULTS_ID);
    for (int i = 0; i < 65536; ++i) {
        ASSERT_EQ(validity.apply(message.get()), 0);
        ASSERT_EQ(message->count, i);
    }
    ASSERT_EQ(validity.apply(message.get()), 0);
    EXPECT_EQ(message->count, 0);
}

TEST_F(DataValidityTest, ApplyRejectsBadIdsAndSizesWithoutTouchingTheHeader) {
    DataValidity validity;
    for (const std::uint32_t id : {0U, 32U, static_cast<std::uint32_t>(OVRA::SYSTEM_APPLICATION_STATUS)}) {
        makeMessage(RESULTS_ID).messageId = id;
        const PDUMessage_t before = *message;
        EXPECT_EQ(validity.apply(message.get()), 800) << id;
        EXPECT_EQ(std::memcmp(message.get(), &before, sizeof before), 0) << id;
    }
    makeMessage(RESULTS_ID).length += 1;
    const PDUMessage_t before = *message;
    EXPECT_EQ(validity.apply(message.get()), 801);
    EXPECT_EQ(std::memcmp(message.get(), &before, sizeof before), 0);

    EXPECT_EQ(validity.apply(nullptr), 806);
    EXPECT_EQ(validity.applyToDiagnosticMessage(nullptr), 806);
    EXPECT_EQ(validity.verify(nullptr, 24), 806);

    // 31 passes the ID check and then fails the size table's bounds check; the lock is released.
    makeMessage(RESULTS_ID).messageId = 31;
    EXPECT_THROW(validity.apply(message.get()), std::out_of_range);
    EXPECT_THROW(verify(validity, *message), std::out_of_range);
    EXPECT_EQ(validity.apply(&makeMessage(RESULTS_ID)), 0);
}

TEST_F(DataValidityTest, VerifyReportsTheFirstFailingCheckInOrder) {
    DataValidity receiver;
    ASSERT_EQ(verify(receiver, makeReceived(RESULTS_ID, 5, 1000)), 0);
    makeReceived(RESULTS_ID, 9, 0);
    const std::size_t bytes = std::size_t{message->length} + 8;
    message->messageId = 0;
    message->version = 3;
    message->crc ^= 1U;

    EXPECT_EQ(receiver.verify(message.get(), bytes), 800);
    message->messageId = RESULTS_ID;
    EXPECT_EQ(receiver.verify(message.get(), bytes + 1), 801); // length against the bytes received
    message->length += 1;
    EXPECT_EQ(receiver.verify(message.get(), bytes + 1), 801); // payload size against the ID
    message->length -= 1;
    EXPECT_EQ(receiver.verify(message.get(), bytes), 802);
    EXPECT_EQ(receiver.verify(&restamp(), bytes), 804);
    message->version = 0;
    EXPECT_EQ(receiver.verify(&restamp(), bytes), 803); // 9 does not follow 5, and is stored
    message->count = 10;
    EXPECT_EQ(receiver.verify(&restamp(), bytes), 805); // time stamp 0; 10 is stored
    message->count = 11;
    message->timestamp = 1000;
    EXPECT_EQ(receiver.verify(&restamp(), bytes), 0);
    // Lengths below the header wrap in 64 bits and match no size.
    message->length = 8;
    EXPECT_EQ(receiver.verify(message.get(), 16), 801);
}

TEST_F(DataValidityTest, CountContinuity) {
    DataValidity receiver;
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 7, 10)), 0); // the first one may carry any count
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 7, 11)), 803);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 8, 12)), 0);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 12, 13)), 803);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 13, 14)), 0); // accepted again after the gap
    EXPECT_EQ(verify(receiver, makeReceived(OVRA::MPL_INPUTS, 65535, 15)), 0);
    EXPECT_EQ(verify(receiver, makeReceived(OVRA::MPL_INPUTS, 0, 16)), 0);
}

TEST_F(DataValidityTest, TimestampsMustBeNonzeroAndNotOlderPerId) {
    DataValidity receiver;
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 0, 0)), 805);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 1, 1000)), 0);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 2, 1000)), 0);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 3, 999)), 805);
    EXPECT_EQ(verify(receiver, makeReceived(RESULTS_ID, 4, 999)), 805); // the mark did not move back
    EXPECT_EQ(verify(receiver, makeReceived(OVRA::MPL_INPUTS, 0, 5)), 0);
}

TEST_F(DataValidityTest, VersionsFromTheProtocolFile) {
    VIDAPP_REQUIRE_NFS();
    writeVersions("0102", "00ff");
    DataValidity sender;
    DataValidity sameReceiver;
    writeVersions("0103", "zz");
    DataValidity otherReceiver;
    EXPECT_EQ(sender.getT1DVersion(), 0x0102);
    EXPECT_EQ(sender.getDiagnosticVersion(), 0x00FF);
    EXPECT_EQ(otherReceiver.getDiagnosticVersion(), 0);

    ASSERT_EQ(sender.apply(&makeMessage(RESULTS_ID)), 0);
    EXPECT_EQ(message->version, 0x0102);
    EXPECT_EQ(verify(sameReceiver, *message), 0);
    EXPECT_EQ(verify(otherReceiver, *message), 804);

    writeNfsFile("OnlyDiagnostic.ini", "[Protocol]\nDIAG_INTF_VER=7\n");
    sender.parseConfigFile("OnlyDiagnostic.ini");
    EXPECT_EQ(sender.getT1DVersion(), 0);
    EXPECT_EQ(sender.getDiagnosticVersion(), 7);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(DataValidityTest, MissingOrBrokenProtocolFileIsLoggedAndKeepsTheVersions) {
    VIDAPP_REQUIRE_NFS();
    DataValidity validity;
    EXPECT_EQ(validity.getT1DVersion(), 0);
    EXPECT_EQ(log.countErrors(1009), 1U) << log.dump();
    EXPECT_TRUE(log.contains("vidapp: ProtocolVersion.ini not found")) << log.dump();

    writeNfsFile("Good.ini", "[Protocol]\nT1D_VER=0102\nDIAG_INTF_VER=0201\n");
    writeNfsFile("Broken.ini", "[Protocol]\nT1D_VER\n");
    validity.parseConfigFile("Good.ini");
    validity.parseConfigFile("Broken.ini");
    EXPECT_EQ(log.countErrors(1010), 1U) << log.dump();
    EXPECT_TRUE(log.contains("vidapp: Error in Broken.ini on 2")) << log.dump();
    EXPECT_EQ(validity.getT1DVersion(), 0x0102);
    EXPECT_EQ(validity.getDiagnosticVersion(), 0x0201);
}

TEST_F(DataValidityTest, MessageCrcLengthRules) {
    makeMessage(OVRA::FUSED_TRACK_DATA);
    for (auto& byte : message->payload) {
        byte = static_cast<std::uint8_t>(generator());
    }
    message->count = 0xBEEF;
    message->timestamp = 0x0123456789ABCDEFULL;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(message.get());
    auto crcWithLength = [this](std::uint32_t length) {
        message->length = length;
        return DataValidity::computeMessageCRC(message.get());
    };
    EXPECT_EQ(crcWithLength(16 + 8920), zlibCrc(bytes + 12, 12 + 8920));
    EXPECT_EQ(crcWithLength(16), zlibCrc(bytes + 12, 12));         // no payload byte
    EXPECT_EQ(crcWithLength(15), zlibCrc(bytes + 12, 12 + 64000)); // wraps: the whole payload
    EXPECT_EQ(crcWithLength(16 + 64000 + 100), zlibCrc(bytes + 12, 12 + 64000));
    EXPECT_THROW(DataValidity::computeMessageCRC(nullptr), std::invalid_argument);
}

TEST_F(DataValidityTest, DiagnosticMessages) {
    VIDAPP_REQUIRE_NFS();
    writeVersions("0102", "0201");
    DataValidity validity;
    makeMessage(2).timestamp = 5;
    const PDUMessage_t before = *message;
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 800);
    EXPECT_EQ(std::memcmp(message.get(), &before, sizeof before), 0);

    makeMessage(1).crc = 0xDEADBEEF;
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 805); // time stamp 0
    message->timestamp = 6;
    ASSERT_EQ(validity.applyToDiagnosticMessage(message.get()), 0);
    EXPECT_EQ(message->count, 0);
    EXPECT_EQ(message->version, 0x0201);
    EXPECT_EQ(message->length, 0U);
    EXPECT_EQ(message->crc, 0U);
    EXPECT_EQ(message->timestamp, 6U);
    message->timestamp = 5;
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 805);
    message->timestamp = 6;
    ASSERT_EQ(validity.applyToDiagnosticMessage(message.get()), 0);
    EXPECT_EQ(message->count, 1);
}

TEST_F(DataValidityTest, ConcurrentSendersEachGetADistinctCount) {
    DataValidity validity;
    constexpr int PER_THREAD = 2000;
    auto send = [&validity](std::vector<bool>& seen) {
        auto own = std::make_unique<PDUMessage_t>();
        std::memset(own.get(), 0, sizeof *own);
        own->messageId = RESULTS_ID;
        own->length = 16 + 24;
        for (int i = 0; i < PER_THREAD; ++i) {
            ASSERT_EQ(validity.apply(own.get()), 0);
            seen.at(own->count) = true;
        }
    };
    std::vector<bool> first(2 * PER_THREAD, false);
    std::vector<bool> second(2 * PER_THREAD, false);
    std::thread other(send, std::ref(second));
    send(first);
    other.join();
    for (int count = 0; count < 2 * PER_THREAD; ++count) {
        EXPECT_NE(first[count], second[count]) << count; // each count went to exactly one sender
    }
}

} // namespace
