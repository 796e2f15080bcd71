#include "log/LogError.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include "log/LogLevel.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr const char* EMPTY_MESSAGE_TEXT = "E:  Error Code:      1029, Error Message:      ";

class LogErrorTest : public ::testing::Test {
protected:
    LogErrorTest() { std::memset(&record, 0, sizeof record); }

    bool fill(std::uint32_t code, std::uint16_t type, std::uint64_t value, const char* message,
              const std::string& guid = "vidapp") {
        return fillOVRALogErrorLogMessage(record, code, type, value, message, guid, version);
    }

    std::string text() const { return record.text; }

    OVRALogMessage_t record;
    const OVRAAppVersion_t version{101, 101, 1, 7};
};

TEST_F(LogErrorTest, EmptyMessageGivesTheBareText) {
    const std::uint64_t before = ovraSystemTimestamp_us();
    ASSERT_TRUE(fill(1029, 1, 0, ""));
    EXPECT_EQ(text(), EMPTY_MESSAGE_TEXT);
    EXPECT_EQ(record.length, 48U);
    EXPECT_EQ(record.messageType, 1U);
    EXPECT_EQ(record.logLevel, OVRA::LOG_LEVEL_ERROR);
    EXPECT_EQ(std::string(record.appGUID, 8), std::string("vidapp\0\0", 8));
    EXPECT_EQ(record.appVersion.major, 101U);
    EXPECT_EQ(record.appVersion.build, 7U);
    EXPECT_GE(record.timestamp, before);
    EXPECT_LE(record.timestamp, ovraSystemTimestamp_us());
}

TEST_F(LogErrorTest, ValueRecord) {
    ASSERT_TRUE(fill(5, 4, 9, "ignored"));
    EXPECT_EQ(text(), "E:  Error Code:      5, Error Value:     9");
    EXPECT_EQ(record.length, text().size() + 1);
    EXPECT_EQ(record.messageType, 4U);

    ASSERT_TRUE(fill(4294967295U, 4, 18446744073709551615ULL, nullptr));
    EXPECT_EQ(text(), "E:  Error Code:      4294967295, Error Value:     18446744073709551615");
}

TEST_F(LogErrorTest, UnexpectedTypeIsNamed) {
    ASSERT_TRUE(fill(5, 7, 9, "x"));
    EXPECT_EQ(text(), "E:  Error Code:      5, Unexpected Error Type:      7");
    EXPECT_EQ(record.messageType, 7U);
    ASSERT_TRUE(fill(5, 2, 9, "x"));
    EXPECT_EQ(text(), "E:  Error Code:      5, Unexpected Error Type:      2");
}

TEST_F(LogErrorTest, LongMessageIsCutTo127EndingInAsterisks) {
    const std::string message(200, 'm');
    ASSERT_TRUE(fill(1029, 1, 0, message.c_str()));
    const std::string expected = std::string(EMPTY_MESSAGE_TEXT) + std::string(124 - 47, 'm') + "***";
    EXPECT_EQ(text(), expected);
    EXPECT_EQ(text().size(), 127U);
    EXPECT_EQ(record.length, 128U);
}

TEST_F(LogErrorTest, CutBoundaryAt128Characters) {
    // The fixed part is 47 characters, so 80, 81 and 82 characters of message give 127, 128 and
    // 129 characters of text: whole, cut without the marker, cut with it.
    const std::string fits(80, 'a');
    ASSERT_TRUE(fill(1029, 1, 0, fits.c_str()));
    EXPECT_EQ(text(), EMPTY_MESSAGE_TEXT + fits);
    EXPECT_EQ(record.length, 128U);

    const std::string exact(81, 'b');
    ASSERT_TRUE(fill(1029, 1, 0, exact.c_str()));
    EXPECT_EQ(text(), EMPTY_MESSAGE_TEXT + std::string(80, 'b'));
    EXPECT_EQ(record.length, 128U);

    const std::string over(82, 'c');
    ASSERT_TRUE(fill(1029, 1, 0, over.c_str()));
    EXPECT_EQ(text(), EMPTY_MESSAGE_TEXT + std::string(77, 'c') + "***");
    EXPECT_EQ(record.length, 128U);
}

TEST_F(LogErrorTest, IdentifierIsCutToEightCharactersWithoutTerminator) {
    ASSERT_TRUE(fill(1, 1, 0, "", "abcdefghijk"));
    EXPECT_EQ(std::string(record.appGUID, 8), "abcdefgh");
}

TEST_F(LogErrorTest, CompleteSendsTheRecordToTheClient) {
    vidapp::test::LogCapture capture;
    completeOVRALogError(1107, 1, 0, "Too many consumers");
    completeOVRALogError(201, 4, 42, nullptr);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].text, "E:  Error Code:      1107, Error Message:      Too many consumers");
    EXPECT_EQ(records[0].level, OVRA::LOG_LEVEL_ERROR);
    EXPECT_EQ(records[0].messageType, 1U);
    EXPECT_EQ(records[1].text, "E:  Error Code:      201, Error Value:     42");
    EXPECT_EQ(records[1].messageType, 4U);
}

TEST_F(LogErrorTest, WithoutClientTheReportGoesToStandardError) {
    ASSERT_EQ(LogMessageClient::getInstance(), nullptr);
    testing::internal::CaptureStderr();
    completeOVRALogError(5, 4, 9, "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Log message client app not found\n"
                                                      "Error number5 could not be logged\n"
                                                      "errorType: 4\n"
                                                      "logLevel: LOG_LEVEL_ERROR\n"
                                                      "errorValue: 9\n"
                                                      "errorMessage: x\n");
}

} // namespace
