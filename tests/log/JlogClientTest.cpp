#include "log/JlogClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "log/DynamicDebug.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::captureSyslog;

OVRALogMessage_t recordOf(std::uint8_t level, const std::string& text, OVRAAppVersion_t version = {101, 101, 1, 7}) {
    OVRALogMessage_t record;
    std::memset(&record, 0, sizeof record);
    record.appVersion = version;
    record.messageType = OVRALogMessage_t::TYPE_TEXT;
    record.logLevel = level;
    std::strncpy(record.text, text.c_str(), sizeof record.text - 1);
    record.length = static_cast<std::uint16_t>(std::strlen(record.text) + 1);
    return record;
}

class JlogClientTest : public ::testing::Test {
protected:
    JlogClient client{"vidapp"};

    template <typename Action> std::string stderrOf(Action action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(JlogClientTest, StartsWithTheBuiltInDefaults) {
    EXPECT_EQ(client.getNumPages(), 2);
    EXPECT_EQ(client.getVerbosityLevel(), 6);
    EXPECT_EQ(client.getAppName(), "vidapp");
}

TEST_F(JlogClientTest, NumPagesOutsideOneToEightFallsBackWithAMessage) {
    for (const int value : {0, 9, -1}) {
        SCOPED_TRACE(value);
        const std::string error = stderrOf([&] { EXPECT_EQ(client.getNumPagesOrDefault("NUM_PAGES", value, 3), 3); });
        EXPECT_EQ(error, "JlogClient(): App: vidapp: NUM_PAGES has invalid value: " + std::to_string(value) +
                             ". Must be between 1 and 8 inclusive\n");
    }
    for (const int value : {1, 8}) {
        EXPECT_EQ(stderrOf([&] { EXPECT_EQ(client.getNumPagesOrDefault("NUM_PAGES", value, 3), value); }), "");
    }
}

TEST_F(JlogClientTest, VerbosityMustBeAJlogLevel) {
    const std::string error =
        stderrOf([&] { EXPECT_EQ(client.getVerbosityLevelOrDefault("VERBOSITY_LEVEL", 8, 6), 6); });
    EXPECT_EQ(error, "JlogClient(): App: vidapp: VERBOSITY_LEVEL has invalid jlog value: 8\n");
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(client.getVerbosityLevelOrDefault("X", -1, 4), 4); }),
              "JlogClient(): App: vidapp: X has invalid jlog value: -1\n");
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(client.getVerbosityLevelOrDefault("X", 0, 6), 0); }), "");
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(client.getVerbosityLevelOrDefault("X", 7, 6), 7); }), "");
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(client.getVerbosityLevelOrDefault("X", 256, 6), 6); }),
              "JlogClient(): App: vidapp: X has invalid jlog value: 256\n");
}

// The real system log path: the records reach a socket at /dev/log under "OVRALogs" with the
// process id, facility user and the priority of their level.
TEST_F(JlogClientTest, RecordsReachTheSystemLogWithTheirPriority) {
    VIDAPP_REQUIRE_SANDBOX();
    struct stat hostDevBefore {};
    const bool hadDevLog = stat("/dev/log", &hostDevBefore) == 0;

    const auto capture = captureSyslog([this] {
        if (initDLogInterface() != 1) {
            return;
        }
        for (const std::uint8_t level : {1, 2, 3, 4, 5, 6, 0}) {
            const OVRALogMessage_t record = recordOf(level, "I: vidapp: level " + std::to_string(level));
            client.sendToJlog(&record);
        }
    });

    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    ASSERT_EQ(capture.lines.size(), 7U) << capture.child.out;
    const int expectedPriority[] = {8 + 3, 8 + 4, 8 + 6, 8 + 7, 8 + 7, 8 + 6, 8 + 6};
    const int levels[] = {1, 2, 3, 4, 5, 6, 0};
    for (std::size_t i = 0; i < capture.lines.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(capture.lines[i].priority, expectedPriority[i]);
        EXPECT_EQ(capture.lines[i].identity, "OVRALogs");
        EXPECT_EQ(capture.lines[i].pid, capture.childPid);
        EXPECT_EQ(capture.lines[i].message, "101.101.1-7 I: vidapp: level " + std::to_string(levels[i]));
    }

    // The sink lived in the child's own /dev; the machine's /dev is as it was.
    struct stat hostDevAfter {};
    const bool hasDevLog = stat("/dev/log", &hostDevAfter) == 0;
    EXPECT_EQ(hasDevLog, hadDevLog);
    if (hadDevLog && hasDevLog) {
        EXPECT_EQ(hostDevAfter.st_ino, hostDevBefore.st_ino);
    }
    struct stat null {};
    ASSERT_EQ(stat("/dev/null", &null), 0);
    EXPECT_TRUE(S_ISCHR(null.st_mode));
}

TEST_F(JlogClientTest, LineIsVersionBlankText) {
    VIDAPP_REQUIRE_SANDBOX();
    const auto capture = captureSyslog([this] {
        if (initDLogInterface() != 1) {
            return;
        }
        const OVRALogMessage_t up = recordOf(3, "I: vidapp: up", {1, 2, 3, 4294967295U});
        client.sendToJlog(&up);
        // A text that fills the record: the line is cut at 1023 characters.
        const OVRALogMessage_t full = recordOf(3, std::string(1023, 'z'));
        client.sendToJlog(&full);
    });
    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    ASSERT_EQ(capture.lines.size(), 2U) << capture.child.out;
    EXPECT_EQ(capture.lines[0].message, "1.2.3-4294967295 I: vidapp: up");
    EXPECT_EQ(capture.lines[1].message, "101.101.1-7 " + std::string(1023 - 12, 'z'));
}

TEST_F(JlogClientTest, WithoutOpenlogTheLibraryDefaultsApply) {
    VIDAPP_REQUIRE_SANDBOX();
    const auto capture = captureSyslog([this] {
        const OVRALogMessage_t record = recordOf(2, "W: vidapp: early");
        client.sendToJlog(&record);
    });
    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    ASSERT_EQ(capture.lines.size(), 1U) << capture.child.out;
    EXPECT_EQ(capture.lines[0].priority, 8 + 4);
    EXPECT_EQ(capture.lines[0].identity, "JlogClientTest");
    EXPECT_EQ(capture.lines[0].pid, 0);
    EXPECT_EQ(capture.lines[0].message, "101.101.1-7 W: vidapp: early");
}

// Configuration files are written into the sandbox's private /NFS.
class JlogClientPropertiesTest : public JlogClientTest {
protected:
    void SetUp() override { VIDAPP_REQUIRE_NFS(); }

    static void writeConfiguration(const std::string& content, const std::string& name = "Jlog.ini") {
        std::ofstream file("/NFS/" + name, std::ios::trunc);
        file << content;
    }
};

TEST_F(JlogClientPropertiesTest, ConstructorDoesNotReadTheFile) {
    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL=3\n", "JlogClientConfiguration.ini");
    const JlogClient fresh("vidapp");
    EXPECT_EQ(fresh.getNumPages(), 2);
    EXPECT_EQ(fresh.getVerbosityLevel(), 6);
    EXPECT_STREQ(JlogClient::JLOG_CLIENT_CONFIGURATION_FILE, "JlogClientConfiguration.ini");
}

TEST_F(JlogClientPropertiesTest, ApplicationSectionOverridesTheDefaults) {
    writeConfiguration(
        "[JlogClientConfigDefault]\nNUM_PAGES=2\nVERBOSITY_LEVEL=6\n[vidapp]\nCUSTOM_VERBOSITY_LEVEL=7\n");
    const std::string error = stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); });
    EXPECT_EQ(error, "");
    EXPECT_EQ(client.getNumPages(), 2);
    EXPECT_EQ(client.getVerbosityLevel(), 7);

    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=3\nVERBOSITY_LEVEL=1\n[vidapp]\nCUSTOM_NUM_PAGES=8\n"
                       "[router]\nCUSTOM_NUM_PAGES=5\nCUSTOM_VERBOSITY_LEVEL=5\n");
    client.loadJlogClientProperties("Jlog.ini");
    EXPECT_EQ(client.getNumPages(), 8);
    EXPECT_EQ(client.getVerbosityLevel(), 1);
}

TEST_F(JlogClientPropertiesTest, MissingDefaultEntriesAreReportedAndKept) {
    writeConfiguration("[JlogClientConfigDefault]\n[vidapp]\nCUSTOM_NUM_PAGES=4\n");
    const std::string error = stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); });
    EXPECT_EQ(error, "JlogClient::loadJlogClientProperties(): App: vidapp. Entry Not Found: NUM_PAGES. Default to: 2\n"
                     "JlogClient::loadJlogClientProperties(): App: vidapp. Entry Not Found: VERBOSITY_LEVEL. Default "
                     "to: 6\n");
    EXPECT_EQ(client.getNumPages(), 4);
    EXPECT_EQ(client.getVerbosityLevel(), 6);
}

TEST_F(JlogClientPropertiesTest, MissingApplicationSectionIsSilent) {
    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=1\nVERBOSITY_LEVEL=0\n[router]\nCUSTOM_NUM_PAGES=5\n");
    EXPECT_EQ(stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); }), "");
    EXPECT_EQ(client.getNumPages(), 1);
    EXPECT_EQ(client.getVerbosityLevel(), 0);
}

TEST_F(JlogClientPropertiesTest, InvalidValuesKeepTheCurrentOnes) {
    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL=4\n"
                       "[vidapp]\nCUSTOM_NUM_PAGES=9\nCUSTOM_VERBOSITY_LEVEL=12\n");
    const std::string error = stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); });
    EXPECT_EQ(error, "JlogClient(): App: vidapp: CUSTOM_NUM_PAGES has invalid value: 9. Must be between 1 and 8 "
                     "inclusive\n"
                     "JlogClient(): App: vidapp: CUSTOM_VERBOSITY_LEVEL has invalid jlog value: 12\n");
    EXPECT_EQ(client.getNumPages(), 5);
    EXPECT_EQ(client.getVerbosityLevel(), 4);
}

TEST_F(JlogClientPropertiesTest, NonNumericValueIsReportedAndKept) {
    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=many\nVERBOSITY_LEVEL=0x3\n");
    const std::string error = stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); });
    EXPECT_EQ(error, "JlogClient::loadJlogClientProperties(): App: vidapp. NUM_PAGES is not a 32-bit integer. "
                     "Default to: 2\n");
    EXPECT_EQ(client.getNumPages(), 2);
    EXPECT_EQ(client.getVerbosityLevel(), 3);
}

TEST_F(JlogClientPropertiesTest, UnreadableFileKeepsTheDefaults) {
    const std::string missing = stderrOf([this] { client.loadJlogClientProperties("Absent.ini"); });
    EXPECT_EQ(missing, "JlogClient::loadJlogClientProperties(): App: vidapp. Failed to open ini File: /NFS/Absent.ini "
                       "(line 0). Using defaults.\n");

    writeConfiguration("[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL\n");
    const std::string broken = stderrOf([this] { client.loadJlogClientProperties("Jlog.ini"); });
    EXPECT_EQ(broken, "JlogClient::loadJlogClientProperties(): App: vidapp. Invalid line: missing '=' and value "
                      "(line 3). Using defaults.\n");
    EXPECT_EQ(client.getNumPages(), 2);
    EXPECT_EQ(client.getVerbosityLevel(), 6);
}

} // namespace
