#include "log/JlogClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>

#include "log/DynamicDebug.h"
#include "log/LogMessageClient.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"

class JlogClientTest : public ::testing::Test {
protected:
    void send(int level, const std::string& text, OVRAAppVersion_t version = {101, 101, 1, 7}) {
        OVRALogMessage_t record{0, version, OVRALogMessage_t::TYPE_TEXT, 0, static_cast<std::uint8_t>(level), {}, {}};
        std::strncpy(record.text, text.c_str(), sizeof record.text - 1);
        record.length = static_cast<std::uint16_t>(std::strlen(record.text) + 1);
        client.sendToJlog(&record);
    }

    JlogClient client{"vidapp"};
};

// Before initDLogInterface opens the log the C library's defaults apply; after it, records carry
// "OVRALogs", the process id, facility user and the priority of their level. The front end's lines
// come the whole way through the process's LogMessageClient, whose build is always 7.
TEST_F(JlogClientTest, RecordsReachTheSystemLogWithTheirPriorityAndVersion) {
    VIDAPP_REQUIRE_SANDBOX();
    const auto capture = vidapp::test::captureSyslog([this] {
        send(2, "W: vidapp: early");
        if (initDLogInterface() == 1) {
            for (const int level : {1, 2, 3, 4, 5, 6, 0}) {
                send(level, "level " + std::to_string(level));
            }
            send(3, "I: vidapp: up", {1, 2, 3, 4294967295U});
            send(3, std::string(1023, 'z'));
            const LogMessageClient messages("vidapp", {101, 101, 1, 99});
            *shm_dlog_detail = vidapp::test::allLoggingOn();
            ovraLogImplementPrintf("via %s", OVRA::LOG_LEVEL_INFO, "client");
        }
    });
    std::string received;
    for (const auto& line : capture.lines) {
        received += std::to_string(line.priority) + " " + line.identity +
                    (line.pid == capture.childPid ? "[pid] " : " ") + line.message + "\n";
    }
    EXPECT_EQ(received, "12 JlogClientTest 101.101.1-7 W: vidapp: early\n"
                        "11 OVRALogs[pid] 101.101.1-7 level 1\n12 OVRALogs[pid] 101.101.1-7 level 2\n"
                        "14 OVRALogs[pid] 101.101.1-7 level 3\n15 OVRALogs[pid] 101.101.1-7 level 4\n"
                        "15 OVRALogs[pid] 101.101.1-7 level 5\n14 OVRALogs[pid] 101.101.1-7 level 6\n"
                        "14 OVRALogs[pid] 101.101.1-7 level 0\n14 OVRALogs[pid] 1.2.3-4294967295 I: vidapp: up\n"
                        "14 OVRALogs[pid] 101.101.1-7 " +
                            std::string(1023 - 12, 'z') + // cut at 1023 characters
                            "\n14 OVRALogs[pid] 101.101.1-7 I: vidapp: via client\n")
        << capture.child.describe();
}

TEST_F(JlogClientTest, PropertiesOverrideTheDefaultsAndWhatCannotBeUsedIsReported) {
    VIDAPP_REQUIRE_NFS();
    std::ofstream("/NFS/JlogClientConfiguration.ini") << "[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL=3\n";
    EXPECT_EQ(std::make_pair(client.getNumPages(), client.getVerbosityLevel()), std::make_pair(2, 6))
        << "the constructor does not read the file";

    const std::string defaults = "[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL=4\n";
    const std::string load = "JlogClient::loadJlogClientProperties(): App: vidapp. ";
    const std::string invalid = "JlogClient(): App: vidapp: CUSTOM_";
    const auto rejected = [&](const std::string& pages, const std::string& level) {
        return invalid + "NUM_PAGES has invalid value: " + pages + ". Must be between 1 and 8 inclusive\n" + invalid +
               "VERBOSITY_LEVEL has invalid jlog value: " + level + "\n";
    };
    const std::tuple<std::string, std::string, int, int> rows[] = {
        // content (empty: no file), error, settings
        {defaults + "[vidapp]\nCUSTOM_NUM_PAGES=1\nCUSTOM_VERBOSITY_LEVEL=7\n[router]\nCUSTOM_NUM_PAGES=6\n", "", 1, 7},
        {defaults + "[vidapp]\nCUSTOM_NUM_PAGES=8\nCUSTOM_VERBOSITY_LEVEL=0\n", "", 8, 0},
        {defaults + "[vidapp]\nCUSTOM_NUM_PAGES=9\nCUSTOM_VERBOSITY_LEVEL=8\n", rejected("9", "8"), 5, 4},
        {defaults + "[vidapp]\nCUSTOM_NUM_PAGES=0\nCUSTOM_VERBOSITY_LEVEL=256\n", rejected("0", "256"), 5, 4},
        {"[JlogClientConfigDefault]\n[vidapp]\nCUSTOM_NUM_PAGES=4\n",
         load + "Entry Not Found: NUM_PAGES. Default to: 2\n" + load +
             "Entry Not Found: VERBOSITY_LEVEL. Default to: 6\n",
         4, 6},
        {"[JlogClientConfigDefault]\nNUM_PAGES=many\nVERBOSITY_LEVEL=0x3\n",
         load + "NUM_PAGES is not a 32-bit integer. Default to: 2\n", 2, 3},
        {"[JlogClientConfigDefault]\nNUM_PAGES=5\nVERBOSITY_LEVEL\n",
         load + "Invalid line: missing '=' and value (line 3). Using defaults.\n", 2, 6},
        {"", load + "Failed to open ini File: /NFS/Absent.ini (line 0). Using defaults.\n", 2, 6}};
    for (const auto& [content, error, pages, verbosity] : rows) {
        SCOPED_TRACE(content);
        std::ofstream("/NFS/Jlog.ini", std::ios::trunc) << content;
        JlogClient loaded("vidapp");
        testing::internal::CaptureStderr();
        loaded.loadJlogClientProperties(content.empty() ? "Absent.ini" : "Jlog.ini");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), error);
        EXPECT_EQ(std::make_pair(loaded.getNumPages(), loaded.getVerbosityLevel()), std::make_pair(pages, verbosity));
    }
}
