#include "log/LogMessageClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::captureSyslog;

class LogMessageClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LogMessageClient::getInstance(), nullptr); }
    void TearDown() override { EXPECT_EQ(LogMessageClient::getInstance(), nullptr); }

    const OVRAAppVersion_t version{101, 101, 1, 101101};
};

TEST_F(LogMessageClientTest, InstanceLivesAsLongAsTheClient) {
    {
        const LogMessageClient client("vidapp", version);
        EXPECT_EQ(LogMessageClient::getInstance(), &client);
    }
    EXPECT_EQ(LogMessageClient::getInstance(), nullptr);
}

TEST_F(LogMessageClientTest, BuildNumberIsAlwaysSeven) {
    const LogMessageClient client("vidapp", version);
    const OVRAAppVersion_t kept = client.getAppVersion();
    EXPECT_EQ(kept.major, 101U);
    EXPECT_EQ(kept.minor, 101U);
    EXPECT_EQ(kept.patch, 1U);
    EXPECT_EQ(kept.build, 7U);
    EXPECT_EQ(client.getAppGUID(), "vidapp");
}

TEST_F(LogMessageClientTest, OlderClientGoingDoesNotUnsetTheNewerOne) {
    auto older = std::make_unique<LogMessageClient>("vidapp", version);
    {
        const LogMessageClient newer("vidapp", version);
        EXPECT_EQ(LogMessageClient::getInstance(), &newer);
        older.reset();
        EXPECT_EQ(LogMessageClient::getInstance(), &newer);
    }
    EXPECT_EQ(LogMessageClient::getInstance(), nullptr);
}

// The whole path of one message: front end, client, system log, seen at a socket on /dev/log.
TEST_F(LogMessageClientTest, MessagesReachTheSystemLog) {
    VIDAPP_REQUIRE_SANDBOX();
    const auto capture = captureSyslog([this] {
        if (initDLogInterface() != 1) {
            return;
        }
        setDebugBits("+135");
        *shm_dlog_detail |= OVRA::APP_DEBUG_VALUE.at("vidapp");
        const LogMessageClient client("vidapp", version);
        ovraLogImplementPrintf("up after %d ms", OVRA::LOG_LEVEL_INFO, 40);
        ovraLogImplementPrintf("suppressed", OVRA::LOG_LEVEL_DEBUG);
        ovraLogImplementPrintf("verbose", OVRA::LOG_LEVEL_VERBOSE);
        ovraLogImplementErrorPrintf(1035, "bind() failed");
        (void)closeDLogInterface(false);
    });

    ASSERT_TRUE(capture.child.exited && capture.child.exitCode == 0) << capture.child.describe();
    EXPECT_NE(capture.child.out.find("vidapp: up after 40 ms\nvidapp: verbose\n"), std::string::npos)
        << capture.child.out;
    ASSERT_EQ(capture.lines.size(), 3U) << capture.child.out;
    EXPECT_EQ(capture.lines[0].priority, 8 + 6);
    EXPECT_EQ(capture.lines[0].identity, "OVRALogs");
    EXPECT_EQ(capture.lines[0].pid, capture.childPid);
    EXPECT_EQ(capture.lines[0].message, "101.101.1-7 I: vidapp: up after 40 ms");
    EXPECT_EQ(capture.lines[1].priority, 8 + 7);
    EXPECT_EQ(capture.lines[1].message, "101.101.1-7 V: vidapp: verbose");
    EXPECT_EQ(capture.lines[2].priority, 8 + 3);
    EXPECT_EQ(capture.lines[2].message,
              "101.101.1-7 E:  Error Code:      1035, Error Message:      vidapp: bind() failed");
}

} // namespace
