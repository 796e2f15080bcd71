#include "log/LogError.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "log/LogLevel.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/support/LogCapture.h"

// The fixed part is 47 characters: 80, 81 and 82 characters of message give 127, 128 and 129
// characters of text, kept whole, cut without the marker and cut with it.
TEST(LogErrorTest, RecordTextsLengthsAndTheCutAt127) {
    const std::string head = "E:  Error Code:      ";
    const std::string message = "1029, Error Message:      ";
    const std::tuple<std::uint32_t, std::uint16_t, std::uint64_t, std::string, std::string> rows[] = {
        {5, 4, 9, "ignored", "5, Error Value:     9"},
        {4294967295U, 4, 18446744073709551615ULL, "", "4294967295, Error Value:     18446744073709551615"},
        {5, 7, 9, "x", "5, Unexpected Error Type:      7"},
        {1029, 1, 0, std::string(80, 'a'), message + std::string(80, 'a')},
        {1029, 1, 0, std::string(81, 'b'), message + std::string(80, 'b')},
        {1029, 1, 0, std::string(82, 'c'), message + std::string(77, 'c') + "***"},
        {1029, 1, 0, "", message}};
    OVRALogMessage_t record{};
    const std::uint64_t before = ovraSystemTimestamp_us();
    for (const auto& [code, type, value, text, expected] : rows) {
        SCOPED_TRACE(expected);
        ASSERT_TRUE(fillOVRALogErrorLogMessage(record, code, type, value, text.c_str(), "vidapp", {101, 101, 1, 7}));
        EXPECT_EQ(record.text, head + expected);
        EXPECT_EQ(record.length, head.size() + expected.size() + 1);
        EXPECT_EQ(record.messageType, type);
    }
    EXPECT_EQ(record.length, 48U);
    EXPECT_EQ(record.logLevel, OVRA::LOG_LEVEL_ERROR);
    EXPECT_EQ(std::string(record.appGUID, 8), std::string("vidapp\0\0", 8));
    EXPECT_GE(record.timestamp, before);
    EXPECT_LE(record.timestamp, ovraSystemTimestamp_us());
    ASSERT_TRUE(fillOVRALogErrorLogMessage(record, 1, 1, 0, "", "abcdefghijk", {1, 1, 1, 1}));
    EXPECT_EQ(std::string(record.appGUID, 8), "abcdefgh") << "cut to eight, without terminator";
}

TEST(LogErrorTest, CompleteSendsTheRecordToTheClientOrElseToStandardError) {
    {
        vidapp::test::LogCapture capture;
        completeOVRALogError(201, 4, 42, nullptr);
        EXPECT_EQ(capture.dump(), "E:  Error Code:      201, Error Value:     42\n");
    }
    testing::internal::CaptureStderr();
    completeOVRALogError(5, 4, 9, "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Log message client app not found\nError number5 could not be logged\nerrorType: 4\n"
              "logLevel: LOG_LEVEL_ERROR\nerrorValue: 9\nerrorMessage: x\n");
}
