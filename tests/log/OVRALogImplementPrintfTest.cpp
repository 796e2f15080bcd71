#include "log/OVRALogImplementPrintf.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include "log/DynamicDebug.h"
#include "log/OVRALogImplementString.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"

namespace {

using OVRA::LOG_LEVEL_DEBUG;
using OVRA::LOG_LEVEL_ERROR;
using OVRA::LOG_LEVEL_INFO;
using OVRA::LOG_LEVEL_PROFILE;
using OVRA::LOG_LEVEL_VERBOSE;
using OVRA::LOG_LEVEL_WARNING;
using vidapp::test::LogCapture;

constexpr std::uint64_t VIDAPP_BIT = 0x2000000000ULL;
constexpr const char* NO_CLIENT_TAIL = "ovraLogImplementString(): Null pointer, LogMessageClient is not instantiated\n";

std::uint64_t wallClock_us() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

// A flag word of the test's own, for cases that must run without any log client.
class PrivateWord {
public:
    explicit PrivateWord(std::uint64_t value) : word(value), saved(shm_dlog_detail) { shm_dlog_detail = &word; }
    ~PrivateWord() { shm_dlog_detail = saved; }
    PrivateWord(const PrivateWord&) = delete;
    PrivateWord& operator=(const PrivateWord&) = delete;

private:
    std::uint64_t word;
    std::uint64_t* saved;
};

// The front end with a capturing client. Standard output is captured per case.
class OVRALogImplementPrintfTest : public ::testing::Test {
protected:
    std::string consoleOf(const std::function<void()>& action) {
        testing::internal::CaptureStdout();
        action();
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(OVRALogImplementPrintfTest, InfoWithApplicationAndLevelBitsIsPrintedAndSent) {
    LogCapture capture(VIDAPP_BIT | D_LOG_LEVEL_INFO);
    const std::string console = consoleOf([] {
        ovraLogImplementPrintf("frame %u of %s", LOG_LEVEL_INFO, 12U, "camera");
        ovraLogImplementPrintf("not shown %d", LOG_LEVEL_WARNING, 1);
    });

    EXPECT_EQ(console, "vidapp: frame 12 of camera\n");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1U) << capture.dump();
    EXPECT_EQ(records[0].text, "I: vidapp: frame 12 of camera");
    EXPECT_EQ(records[0].level, LOG_LEVEL_INFO);
    EXPECT_EQ(records[0].messageType, OVRALogMessage_t::TYPE_TEXT);
    EXPECT_EQ(records[0].length, records[0].text.size() + 1);
}

TEST_F(OVRALogImplementPrintfTest, NothingWithoutTheApplicationBit) {
    LogCapture capture(D_LOG_LEVEL_INFO | D_LOG_LEVEL_ERROR | 0x4 /* router */);
    const std::string console = consoleOf([] {
        ovraLogImplementPrintf("quiet", LOG_LEVEL_INFO);
        ovraLogImplementErrorPrintf(1035, "quiet");
    });
    EXPECT_EQ(console, "");
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST_F(OVRALogImplementPrintfTest, EveryLevelHasItsPrefixAndBit) {
    struct Row {
        OVRA::LogLevel_e level;
        std::uint64_t bit;
        const char* prefix;
    };
    const Row rows[] = {
        {LOG_LEVEL_ERROR, 1ULL << 58, "E: "},   {LOG_LEVEL_WARNING, 1ULL << 59, "W: "},
        {LOG_LEVEL_INFO, 1ULL << 60, "I: "},    {LOG_LEVEL_DEBUG, 1ULL << 61, "D: "},
        {LOG_LEVEL_VERBOSE, 1ULL << 62, "V: "}, {LOG_LEVEL_PROFILE, 1ULL << 63, "P: "},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.prefix);
        LogCapture capture(VIDAPP_BIT | row.bit);
        const std::string console = consoleOf([&] {
            for (const Row& other : rows) {
                ovraLogImplementPrintf("level %d", other.level, static_cast<int>(other.level));
            }
        });
        EXPECT_EQ(console, "vidapp: level " + std::to_string(row.level) + "\n");
        const auto records = capture.records();
        ASSERT_EQ(records.size(), 1U) << capture.dump();
        EXPECT_EQ(records[0].text, row.prefix + std::string("vidapp: level ") + std::to_string(row.level));
        EXPECT_EQ(records[0].level, row.level);
    }
}

TEST_F(OVRALogImplementPrintfTest, LevelOutsideTheTableThrowsBeforeAnyOutput) {
    LogCapture capture(~std::uint64_t{0});
    const std::string console = consoleOf([] {
        EXPECT_THROW(ovraLogImplementPrintf("x", static_cast<OVRA::LogLevel_e>(7)), std::out_of_range);
        EXPECT_THROW(ovraLogImplementPrintf("x", static_cast<OVRA::LogLevel_e>(0)), std::out_of_range);
        EXPECT_THROW(ovraLogImplementString("x", static_cast<OVRA::LogLevel_e>(7)), std::out_of_range);
    });
    EXPECT_EQ(console, "");
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(OVRALogImplementPrintfTest, LevelIsCheckedEvenWhenLoggingIsOff) {
    LogCapture capture(0);
    EXPECT_THROW(ovraLogImplementPrintf("x", static_cast<OVRA::LogLevel_e>(7)), std::out_of_range);
}

TEST_F(OVRALogImplementPrintfTest, NullTextIsALogicError) {
    LogCapture capture;
    EXPECT_THROW(ovraLogImplementString(nullptr, LOG_LEVEL_INFO), std::logic_error);
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(OVRALogImplementPrintfTest, StringEmitsTheTextAsGiven) {
    LogCapture capture;
    const std::string console = consoleOf([] { ovraLogImplementString("100% done", LOG_LEVEL_DEBUG); });
    EXPECT_EQ(console, "100% done\n");
    ASSERT_EQ(capture.records().size(), 1U);
    EXPECT_EQ(capture.records()[0].text, "D: 100% done");
}

TEST_F(OVRALogImplementPrintfTest, UnattachedWordPrintsOnlyTheWarning) {
    LogCapture capture;
    shm_dlog_detail = nullptr; // the capture puts its word back when it goes
    const std::string console = consoleOf([] {
        ovraLogImplementPrintf("lost", LOG_LEVEL_INFO);
        ovraLogImplementErrorPrintf(1035, "lost");
    });
    EXPECT_EQ(console, "Invalid DLOG Shared Memory. Serious issue!\nInvalid DLOG Shared Memory. Serious issue!\n");
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(OVRALogImplementPrintfTest, LongMessageIsCutAt1023AndReportedWith1029First) {
    LogCapture capture;
    const std::string message(2000, 'x');
    const std::string console = consoleOf([&] { ovraLogImplementPrintf("%s", LOG_LEVEL_INFO, message.c_str()); });

    const std::string text = "vidapp: " + std::string(1015, 'x');
    EXPECT_EQ(console, text + "\n");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2U) << capture.dump();
    EXPECT_EQ(records[0].text, "E:  Error Code:      1029, Error Message:      vidapp: ");
    EXPECT_EQ(records[0].messageType, OVRALogMessage_t::TYPE_ERROR_MESSAGE);
    EXPECT_EQ(records[1].length, 1024U);
    EXPECT_EQ(records[1].text, "I: " + text.substr(0, 1020));
}

TEST_F(OVRALogImplementPrintfTest, LineOf1024BytesIsNotReported) {
    LogCapture capture;
    // "vidapp: " and 1012 characters: 1020 of text, 1023 with the prefix, 1024 with its NUL.
    const std::string fits(1012, 'y');
    consoleOf([&] { ovraLogImplementPrintf("%s", LOG_LEVEL_WARNING, fits.c_str()); });
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1U) << capture.dump();
    EXPECT_EQ(records[0].length, 1024U);
    EXPECT_EQ(records[0].text, "W: vidapp: " + fits);

    capture.clear();
    const std::string oneMore(1013, 'y');
    consoleOf([&] { ovraLogImplementPrintf("%s", LOG_LEVEL_WARNING, oneMore.c_str()); });
    records = capture.records();
    ASSERT_EQ(records.size(), 2U) << capture.dump();
    EXPECT_EQ(capture.countErrors(1029), 1U);
    EXPECT_EQ(records[1].length, 1024U);
    EXPECT_EQ(records[1].text, "W: vidapp: " + fits);
}

TEST_F(OVRALogImplementPrintfTest, ErrorMessageBecomesARecordOnly) {
    LogCapture capture;
    const std::string console = consoleOf([] { ovraLogImplementErrorPrintf(1035, "bind() failed: %s", "in use"); });
    EXPECT_EQ(console, "");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].text, "E:  Error Code:      1035, Error Message:      vidapp: bind() failed: in use");
    EXPECT_EQ(records[0].level, LOG_LEVEL_ERROR);
    EXPECT_EQ(records[0].messageType, OVRALogMessage_t::TYPE_ERROR_MESSAGE);
}

TEST_F(OVRALogImplementPrintfTest, ErrorMessageNeedsTheErrorLevelBit) {
    LogCapture capture(VIDAPP_BIT | D_LOG_LEVEL_INFO | D_LOG_LEVEL_WARNING);
    ovraLogImplementErrorPrintf(1035, "off");
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(OVRALogImplementPrintfTest, LongErrorMessageIsCutTwice) {
    LogCapture capture;
    const std::string message(200, 'e');
    ovraLogImplementErrorPrintf(1045, "%s", message.c_str());
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1U);
    // The front end keeps "vidapp: " and 119 characters; the record keeps 127 ending in "***".
    const std::string full = "E:  Error Code:      1045, Error Message:      vidapp: " + std::string(119, 'e');
    EXPECT_EQ(records[0].text, full.substr(0, 124) + "***");
    EXPECT_EQ(records[0].length, 128U);
}

TEST_F(OVRALogImplementPrintfTest, WithoutClientTheLineGoesToStandardError) {
    PrivateWord word(vidapp::test::allLoggingOn());
    testing::internal::CaptureStderr();
    const std::string console = consoleOf([] { ovraLogImplementPrintf("no client %d", LOG_LEVEL_INFO, 3); });
    const std::string error = testing::internal::GetCapturedStderr();

    EXPECT_EQ(console, "");
    const std::string head = "logMessage timestamp:\n ";
    const std::string tail = "\nlogString:\n I: vidapp: no client 3\n" + std::string(NO_CLIENT_TAIL);
    ASSERT_EQ(error.rfind(head, 0), 0U) << error;
    ASSERT_GT(error.size(), head.size() + tail.size()) << error;
    const std::string stamp = error.substr(head.size(), error.size() - head.size() - tail.size());
    EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << error;
    EXPECT_EQ(error.substr(head.size() + stamp.size()), tail);
}

TEST_F(OVRALogImplementPrintfTest, TimestampIsWallClockMicroseconds) {
    if (std::getenv("CLOCK_DIVISOR") != nullptr) {
        GTEST_SKIP() << "CLOCK_DIVISOR is set for this process";
    }
    const std::uint64_t before = wallClock_us();
    const std::uint64_t stamp = ovraSystemTimestamp_us();
    const std::uint64_t after = wallClock_us();
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, after);
    EXPECT_EQ(getClockDivisor(), 1U);
    EXPECT_EQ(ovraGetDebugMaxStringBufferLength(), 1024U);
}

// The divisor is read once per process, so each case runs itself again as a child with
// CLOCK_DIVISOR set; in the child (VIDAPP_CLOCK_PROBE set) the case only reports what it sees.
class ClockDivisorTest : public ::testing::Test {
protected:
    static bool inProbe() { return std::getenv("VIDAPP_CLOCK_PROBE") != nullptr; }

    // Child side: two time stamps on standard output, then a line without client on standard error.
    static void probe() {
        std::printf("stamp=%llu\n", static_cast<unsigned long long>(ovraSystemTimestamp_us()));
        std::printf("stamp=%llu\n", static_cast<unsigned long long>(ovraSystemTimestamp_us()));
        std::printf("divisor=%llu\n", static_cast<unsigned long long>(getClockDivisor()));
        PrivateWord word(vidapp::test::allLoggingOn());
        ovraLogImplementPrintf("probe", LOG_LEVEL_INFO);
        std::fflush(nullptr);
    }

    static vidapp::test::ChildResult runProbe(const std::string& divisor) {
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        vidapp::test::ChildOptions options;
        options.setEnvironment = {"CLOCK_DIVISOR=" + divisor, "VIDAPP_CLOCK_PROBE=1"};
        return vidapp::test::runProgram({"/proc/self/exe", "--gtest_filter=ClockDivisorTest." + name}, options);
    }

    static std::vector<std::uint64_t> stamps(const std::string& out) {
        std::vector<std::uint64_t> values;
        const std::string mark = "stamp=";
        for (std::size_t at = out.find(mark); at != std::string::npos; at = out.find(mark, at + 1)) {
            values.push_back(std::stoull(out.substr(at + mark.size())));
        }
        return values;
    }

    static std::size_t occurrences(const std::string& text, const std::string& part) {
        std::size_t n = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++n;
        }
        return n;
    }
};

TEST_F(ClockDivisorTest, ThousandGivesMilliseconds) {
    if (inProbe()) {
        return probe();
    }
    const std::uint64_t before = wallClock_us() / 1000;
    const auto result = runProbe("1000");
    const std::uint64_t after = wallClock_us() / 1000;

    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    const auto values = stamps(result.out);
    ASSERT_EQ(values.size(), 2U) << result.out;
    for (const std::uint64_t value : values) {
        EXPECT_LE(before, value);
        EXPECT_LE(value, after);
    }
    EXPECT_NE(result.out.find("divisor=1000\n"), std::string::npos);
    EXPECT_EQ(result.err.find("CLOCK_DIVISOR"), std::string::npos) << result.err;
}

TEST_F(ClockDivisorTest, ZeroMakesEveryTimestampZero) {
    if (inProbe()) {
        return probe();
    }
    const auto result = runProbe("0");
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(stamps(result.out), (std::vector<std::uint64_t>{0, 0}));
    EXPECT_NE(result.err.find("logMessage timestamp:\n 0\nlogString:\n I: vidapp: probe\n"), std::string::npos)
        << result.err;
}

TEST_F(ClockDivisorTest, MalformedValueFallsBackToOneWithOneWarning) {
    if (inProbe()) {
        return probe();
    }
    for (const std::string value : {"abc", "1000ms", "-5", "", "99999999999999999999999"}) {
        SCOPED_TRACE("CLOCK_DIVISOR=\"" + value + "\"");
        const std::uint64_t before = wallClock_us();
        const auto result = runProbe(value);
        const std::uint64_t after = wallClock_us();

        ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
        const auto values = stamps(result.out);
        ASSERT_EQ(values.size(), 2U) << result.out;
        EXPECT_LE(before, values[0]);
        EXPECT_LE(values[1], after);
        EXPECT_NE(result.out.find("divisor=1\n"), std::string::npos);
        EXPECT_EQ(
            occurrences(result.err, "CLOCK_DIVISOR=\"" + value + "\" is not a non-negative decimal number: using 1\n"),
            1U)
            << result.err;
    }
}

} // namespace
