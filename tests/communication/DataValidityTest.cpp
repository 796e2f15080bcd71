#include "communication/DataValidity.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

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

void writeVersions(const std::string& t1d, const std::string& diagnostic) {
    writeNfsFile("ProtocolVersion.ini", "[Protocol]\nT1D_VER=" + t1d + "\nDIAG_INTF_VER=" + diagnostic + "\n");
}

// The value of width bytes, least significant first, and the standard CRC-32, both computed apart.
std::uint64_t littleEndian(const std::uint8_t* bytes, int width) {
    return width == 0 ? 0 : bytes[0] | littleEndian(bytes + 1, width - 1) << 8;
}
std::uint32_t zlibCrc(const std::uint8_t* data, std::size_t size) {
    return static_cast<std::uint32_t>(crc32(0L, data, static_cast<uInt>(size)));
}

class DataValidityTest : public ::testing::Test {
protected:
    // A host message of the given ID with its table size, a patterned payload and a correct CRC: it
    // passes every check of a receiver with version 0, count and time stamp aside.
    PDUMessage_t& makeMessage(std::uint32_t id, std::uint16_t count = 0, std::uint64_t timestamp = 0) {
        const auto size = static_cast<std::uint32_t>(OVRAInterSystemMessages::HOST_MESSAGE_SIZE.at(id));
        *message = {id, size + 16, 0, count, 0, timestamp, {}};
        for (std::size_t i = 0; i < sizeof message->payload; ++i) {
            message->payload[i] = static_cast<std::uint8_t>(i * 7 + id);
        }
        return restamp();
    }
    PDUMessage_t& restamp() {
        message->crc = DataValidity::computeMessageCRC(message.get());
        return *message;
    }
    static std::int32_t verify(DataValidity& validity, const PDUMessage_t& m) {
        return validity.verify(&m, m.length + 8UL);
    }
    const std::uint8_t* wire() const { return reinterpret_cast<const std::uint8_t*>(message.get()); }

    vidapp::test::LogCapture log;
    std::unique_ptr<PDUMessage_t> message = std::make_unique<PDUMessage_t>();
};

// Also: the versions of "ProtocolVersion.ini" as stamped and as expected, and a missing or broken file.
TEST_F(DataValidityTest, WireBytesOfAnAppliedMessageMatchAnIndependentlyBuiltRecord) {
    VIDAPP_REQUIRE_NFS();
    DataValidity unconfigured;
    EXPECT_EQ(log.countErrors(1009), 1U) << log.dump();
    EXPECT_TRUE(log.contains("vidapp: ProtocolVersion.ini not found")) << log.dump();
    writeVersions("0102", "00ff");
    DataValidity sender;
    DataValidity sameReceiver;
    writeVersions("0103", "zz");
    DataValidity otherReceiver;
    EXPECT_EQ(std::tuple(unconfigured.getT1DVersion(), sender.getT1DVersion(), sender.getDiagnosticVersion(),
                         otherReceiver.getDiagnosticVersion()),
              std::tuple(0, 0x0102, 0x00FF, 0));
    const std::uint64_t before = ovraSystemTimestamp_us();
    ASSERT_EQ(sender.apply(&makeMessage(RESULTS_ID)), 0);
    const std::uint64_t timestamp = littleEndian(wire() + 16, 8);
    EXPECT_TRUE(timestamp >= before && timestamp <= ovraSystemTimestamp_us()) << timestamp;
    // ID, length, CRC over bytes 12 to the end, the first count of an ID, T1D_VER.
    EXPECT_EQ(std::tuple(littleEndian(wire(), 4), littleEndian(wire() + 4, 4), littleEndian(wire() + 8, 4),
                         littleEndian(wire() + 12, 2), littleEndian(wire() + 14, 2)),
              std::tuple(RESULTS_ID, 40U, zlibCrc(wire() + 12, 36), 0U, 0x0102U));
    EXPECT_EQ(verify(sameReceiver, *message), 0);
    EXPECT_EQ(verify(otherReceiver, *message), 804);

    writeNfsFile("OnlyDiagnostic.ini", "[Protocol]\nDIAG_INTF_VER=7\n");
    writeNfsFile("Broken.ini", "[Protocol]\nT1D_VER\n");
    sender.parseConfigFile("OnlyDiagnostic.ini"); // the missing key reads as 0
    sender.parseConfigFile("Broken.ini");         // keeps both versions
    EXPECT_EQ(std::tuple(sender.getT1DVersion(), sender.getDiagnosticVersion()), std::tuple(0, 7));
    EXPECT_EQ(log.countErrors(1010), 1U) << log.dump();
    EXPECT_TRUE(log.contains("vidapp: Error in Broken.ini on 2")) << log.dump();
    EXPECT_EQ(log.records().size(), 2U) << log.dump();
}

TEST_F(DataValidityTest, ConcurrentSendersShareTheCountsOfAnIdWhichWrapAfter65536Messages) {
    DataValidity validity;
    ASSERT_EQ(validity.apply(&makeMessage(OVRA::MPL_INPUTS)), 0); // another ID counts on its own
    const auto send = [&validity](std::vector<bool>& seen) {
        PDUMessage_t own{RESULTS_ID, 16 + 24, 0, 0, 0, 0, {}};
        for (int i = 0; i < 32768; ++i) {
            ASSERT_EQ(validity.apply(&own), 0);
            seen.at(own.count) = true;
        }
    };
    std::vector<bool> first(65536, false);
    std::vector<bool> second(65536, false);
    std::thread other(send, std::ref(second));
    send(first);
    other.join();
    for (std::size_t count = 0; count < first.size(); ++count) {
        ASSERT_NE(first[count], second[count]) << count; // each count went to exactly one sender
    }
    ASSERT_EQ(validity.apply(&makeMessage(RESULTS_ID)), 0);
    EXPECT_EQ(message->count, 0);
}

TEST_F(DataValidityTest, ApplyRejectsBadIdsAndSizesWithoutTouchingTheHeader) {
    DataValidity validity;
    for (const auto& [id, extraLength, code] : std::initializer_list<std::tuple<std::uint32_t, std::uint32_t, int>>{
             {0, 0, 800}, {32, 0, 800}, {OVRA::SYSTEM_APPLICATION_STATUS, 0, 800}, {RESULTS_ID, 1, 801}}) {
        makeMessage(RESULTS_ID).messageId = id;
        message->length += extraLength;
        const auto before = std::make_unique<PDUMessage_t>(*message);
        EXPECT_EQ(validity.apply(message.get()), code) << id;
        EXPECT_EQ(std::memcmp(message.get(), before.get(), sizeof *before), 0) << id;
    }
    EXPECT_EQ(
        std::tuple(validity.apply(nullptr), validity.applyToDiagnosticMessage(nullptr), validity.verify(nullptr, 24)),
        std::tuple(806, 806, 806));
    // 31 passes the ID check and then fails the size table's bounds check; the lock is released.
    makeMessage(RESULTS_ID).messageId = 31;
    EXPECT_THROW(validity.apply(message.get()), std::out_of_range);
    EXPECT_THROW(verify(validity, *message), std::out_of_range);
    EXPECT_EQ(validity.apply(&makeMessage(RESULTS_ID)), 0);
}

// Each row is verified by the same receiver: a message of the table size for its ID, then changed as the
// row says. The checks run in the order ID, length, size, CRC, version, count, time stamp.
TEST_F(DataValidityTest, VerifyReportsTheFirstFailingCheckAndFollowsCountsAndTimestampsPerId) {
    struct Row {
        std::uint32_t id = RESULTS_ID;
        std::uint16_t count = 0;
        std::uint64_t timestamp = 0;
        std::uint16_t version = 0;
        bool badCrc = false;
        std::uint32_t longer = 0;   // added to the length field, after the CRC
        std::size_t extraBytes = 0; // received beyond the length field's original value + 8
        std::int32_t expected = 0;
    };
    const Row rows[] = {
        {.count = 5, .timestamp = 1000}, // the first message of an ID may carry any count
        {.id = 0, .count = 9, .version = 3, .badCrc = true, .expected = 800},
        {.count = 9, .version = 3, .badCrc = true, .extraBytes = 1, .expected = 801},
        {.count = 9, .version = 3, .badCrc = true, .longer = 1, .extraBytes = 1, .expected = 801}, // size for the ID
        {.count = 9, .version = 3, .badCrc = true, .expected = 802},
        {.count = 9, .version = 3, .expected = 804},
        {.count = 9, .expected = 803},    // 9 does not follow 5, and is stored
        {.count = 10, .expected = 805},   // time stamp 0; 10 is stored
        {.count = 11, .timestamp = 1000}, // an equal time stamp passes
        {.count = 11, .timestamp = 1001, .expected = 803},
        {.count = 12, .timestamp = 1002},
        {.count = 16, .timestamp = 1003, .expected = 803},
        {.count = 17, .timestamp = 1002}, // accepted again after the gap
        {.count = 18, .timestamp = 1001, .expected = 805},
        {.count = 19, .timestamp = 1001, .expected = 805},         // the newest accepted time stamp did not move back
        {.id = OVRA::MPL_INPUTS, .count = 65535, .expected = 805}, // time stamp 0 fails even first
        {.id = OVRA::MPL_INPUTS, .count = 0, .timestamp = 1},      // 0 follows 65535
    };
    DataValidity receiver;
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.id << " count " << row.count << " at " << row.timestamp);
        makeMessage(row.id == 0 ? RESULTS_ID : row.id, row.count, row.timestamp).version = row.version;
        restamp().crc ^= row.badCrc ? 1U : 0U;
        message->messageId = row.id;
        const std::size_t bytes = message->length + 8UL + row.extraBytes;
        message->length += row.longer;
        EXPECT_EQ(receiver.verify(message.get(), bytes), row.expected);
    }
}

TEST_F(DataValidityTest, MessageCrcLengthRules) {
    makeMessage(OVRA::FUSED_TRACK_DATA, 0xBEEF, 0x0123456789ABCDEFULL);
    // Lengths below the header wrap and feed the whole payload, as do lengths beyond it.
    for (const std::uint32_t length : {16U + 8920, 16U, 15U, 16U + 64000 + 100}) {
        message->length = length;
        const std::size_t fed = length == 16 ? 0 : std::min<std::uint32_t>(length - 16, 64000);
        EXPECT_EQ(DataValidity::computeMessageCRC(message.get()), zlibCrc(wire() + 12, 12 + fed)) << length;
    }
    EXPECT_THROW(DataValidity::computeMessageCRC(nullptr), std::invalid_argument);
}

TEST_F(DataValidityTest, DiagnosticMessages) {
    VIDAPP_REQUIRE_NFS();
    writeVersions("0102", "0201");
    DataValidity validity;
    makeMessage(2).timestamp = 5;
    const auto before = std::make_unique<PDUMessage_t>(*message);
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 800);
    EXPECT_EQ(std::memcmp(message.get(), before.get(), sizeof *before), 0);

    makeMessage(1).crc = 0xDEADBEEF;
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 805); // time stamp 0
    message->timestamp = 6;
    ASSERT_EQ(validity.applyToDiagnosticMessage(message.get()), 0);
    EXPECT_EQ(std::tuple(message->count, message->version, message->length, message->crc, message->timestamp),
              std::tuple(0, 0x0201, 0U, 0U, 6U));
    message->timestamp = 5;
    EXPECT_EQ(validity.applyToDiagnosticMessage(message.get()), 805);
    message->timestamp = 6;
    ASSERT_EQ(validity.applyToDiagnosticMessage(message.get()), 0);
    EXPECT_EQ(message->count, 1);
}

} // namespace
