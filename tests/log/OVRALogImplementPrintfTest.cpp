#include "log/OVRALogImplementPrintf.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "log/DynamicDebug.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"

std::string consoleOf(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

TEST(OVRALogImplementPrintfTest, EachLevelNeedsTheApplicationBitAndItsOwnBit) {
    vidapp::test::LogCapture capture;
    for (int level = OVRA::LOG_LEVEL_ERROR; level <= OVRA::LOG_LEVEL_PROFILE; ++level) {
        SCOPED_TRACE(level);
        capture.clear();
        capture.word() = 0x2000000000ULL | 1ULL << (57 + level);
        const std::string console = consoleOf([] {
            for (int other = OVRA::LOG_LEVEL_ERROR; other <= OVRA::LOG_LEVEL_PROFILE; ++other) {
                ovraLogImplementPrintf("level %d", static_cast<OVRA::LogLevel_e>(other), other);
            }
            ovraLogImplementErrorPrintf(1035, "error");
        });
        EXPECT_EQ(console, "vidapp: level " + std::to_string(level) + "\n");
        const auto records = capture.records();
        ASSERT_EQ(records.size(), level == OVRA::LOG_LEVEL_ERROR ? 2U : 1U) << capture.dump();
        EXPECT_EQ(records[0].text, "EWIDVP"[level - 1] + (": vidapp: level " + std::to_string(level)));
        EXPECT_EQ(std::make_tuple(int{records[0].level}, records[0].messageType, std::size_t{records[0].length}),
                  std::make_tuple(level, OVRALogMessage_t::TYPE_TEXT, records[0].text.size() + 1));
    }
    capture.clear();
    capture.word() = D_LOG_LEVEL_INFO | D_LOG_LEVEL_ERROR | 0x4; // another application's bit
    ovraLogImplementPrintf("quiet", OVRA::LOG_LEVEL_INFO);
    ovraLogImplementErrorPrintf(1035, "quiet");
    EXPECT_EQ(capture.dump(), "");
    EXPECT_THROW(ovraLogImplementPrintf("x", static_cast<OVRA::LogLevel_e>(7)), std::out_of_range) << "even when off";
}

// "W: vidapp: " and 1012 characters fill the 1024 bytes with the NUL; one more is cut and reported.
TEST(OVRALogImplementPrintfTest, CutsStringsErrorsAndBadArguments) {
    vidapp::test::LogCapture capture;
    for (const std::size_t length : {1012U, 1013U, 2000U}) {
        SCOPED_TRACE(length);
        capture.clear();
        const std::string message(length, 'x');
        EXPECT_EQ(consoleOf([&] { ovraLogImplementPrintf("%s", OVRA::LOG_LEVEL_WARNING, message.c_str()); }),
                  "vidapp: " + message.substr(0, 1015) + "\n");
        const auto records = capture.records();
        ASSERT_EQ(records.size(), length > 1012 ? 2U : 1U) << capture.dump();
        EXPECT_EQ(records.front().text,
                  length > 1012 ? "E:  Error Code:      1029, Error Message:      vidapp: " : "W: vidapp: " + message);
        EXPECT_EQ(records.back().length, 1024U);
        EXPECT_EQ(records.back().text, "W: vidapp: " + message.substr(0, 1012));
    }
    capture.clear();
    EXPECT_EQ(consoleOf([] {
                  ovraLogImplementString("100% done", OVRA::LOG_LEVEL_DEBUG);
                  ovraLogImplementErrorPrintf(1035, "bind() failed: %s", "in use");
                  // The front end keeps "vidapp: " and 119 characters, the record 127 ending in "***".
                  ovraLogImplementErrorPrintf(1045, "%s", std::string(200, 'e').c_str());
                  EXPECT_THROW(ovraLogImplementPrintf("x", static_cast<OVRA::LogLevel_e>(0)), std::out_of_range);
                  EXPECT_THROW(ovraLogImplementString("x", static_cast<OVRA::LogLevel_e>(7)), std::out_of_range);
                  EXPECT_THROW(ovraLogImplementString(nullptr, OVRA::LOG_LEVEL_INFO), std::logic_error);
              }),
              "100% done\n");
    EXPECT_EQ(capture.dump(), "D: 100% done\nE:  Error Code:      1035, Error Message:      vidapp: bind() failed: in "
                              "use\nE:  Error Code:      1045, Error Message:      vidapp: " +
                                  std::string(69, 'e') + "***\n");
    EXPECT_EQ(capture.records().at(2).messageType, OVRALogMessage_t::TYPE_ERROR_MESSAGE);
    EXPECT_EQ(capture.records().at(2).length, 128U);

    shm_dlog_detail = nullptr; // the capture puts its word back when it goes
    capture.clear();
    EXPECT_EQ(consoleOf([] {
                  ovraLogImplementPrintf("lost", OVRA::LOG_LEVEL_INFO);
                  ovraLogImplementErrorPrintf(1035, "lost");
              }),
              "Invalid DLOG Shared Memory. Serious issue!\nInvalid DLOG Shared Memory. Serious issue!\n");
    EXPECT_EQ(capture.dump(), "");
}

// The divisor is read once per process, so the case runs itself again as a child with CLOCK_DIVISOR
// set (or unset, for nullptr) and VIDAPP_CLOCK_PROBE, on which it only logs.
TEST(OVRALogImplementPrintfTest, WithoutClientTheLineGoesToStandardErrorStampedByTheDivisor) {
    if (std::getenv("VIDAPP_CLOCK_PROBE") != nullptr) {
        std::uint64_t word = vidapp::test::allLoggingOn();
        shm_dlog_detail = &word;
        return ovraLogImplementPrintf("no client %d", OVRA::LOG_LEVEL_INFO, 3);
    }
    const std::string head = "logMessage timestamp:\n ";
    const std::string tail = "\nlogString:\n I: vidapp: no client 3\novraLogImplementString(): Null pointer, "
                             "LogMessageClient is not instantiated\n";
    const auto now = [] { return std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1); };
    // As the other processes read it (std::stol): text after the number is ignored, with a warning.
    const std::string fallback = "\" is not a non-negative decimal number: using 1\n";
    const std::string trailing = "\" has text after its number: using 1000\n";
    const std::tuple<const char*, std::uint64_t, std::string> rows[] = {{nullptr, 1, ""},
                                                                        {"1000", 1000, ""},
                                                                        {"0", 0, ""},
                                                                        {"abc", 1, fallback},
                                                                        {"1000ms", 1000, trailing},
                                                                        {"1000\r", 1000, trailing},
                                                                        {" +1000 ", 1000, trailing},
                                                                        {"-5", 1, fallback},
                                                                        {"", 1, fallback},
                                                                        {"99999999999999999999999", 1, fallback}};
    for (const auto& [value, divisor, warning] : rows) {
        SCOPED_TRACE(value == nullptr ? "unset" : value);
        vidapp::test::ChildOptions options{{"VIDAPP_CLOCK_PROBE=1"}, {"CLOCK_DIVISOR"}, "", true};
        if (value != nullptr) {
            options.setEnvironment.push_back("CLOCK_DIVISOR=" + std::string(value));
        }
        const std::uint64_t before = now();
        const auto result = vidapp::test::runProgram({"/proc/self/exe", "--gtest_filter=*WithoutClient*"}, options);
        const std::uint64_t after = now();
        const std::size_t at = result.err.find(head);
        ASSERT_TRUE(result.exited && result.exitCode == 0 && at != std::string::npos) << result.describe();
        EXPECT_EQ(result.out.find("no client"), std::string::npos) << result.out;
        EXPECT_EQ(result.err.substr(0, at), warning.empty() ? "" : "CLOCK_DIVISOR=\"" + std::string(value) + warning);
        std::size_t digits = 0;
        const std::uint64_t stamp = std::stoull(result.err.substr(at + head.size()), &digits);
        EXPECT_EQ(result.err.substr(at + head.size() + digits), tail);
        EXPECT_LE(divisor == 0 ? 0 : before / divisor, stamp);
        EXPECT_LE(stamp, divisor == 0 ? 0 : after / divisor);
    }
}
