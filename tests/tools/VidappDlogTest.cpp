#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <vector>

#include "log/DynamicDebug.h"
#include "tests/support/Child.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::ChildResult;

constexpr const char* USAGE = "usage: vidapp-dlog <command string>... | show | help | remove\n";

// The operator tool run as a child process against the flag word of the sandbox's IPC namespace.
class VidappDlogTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    void TearDown() override {
        if (!vidapp::test::inSandbox()) {
            return; // skipped: the machine's own word is not ours to remove
        }
        const int id = shmget(DLOG_SHARED_MEMORY_KEY, 0, 0);
        if (id != -1) {
            shmctl(id, IPC_RMID, nullptr);
        }
    }

    static ChildResult dlog(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv = {VIDAPP_BIN_DIR "/vidapp-dlog"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return vidapp::test::runProgram(argv);
    }

    static std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

    // The word as another process sees it.
    static std::uint64_t word() {
        const int id = shmget(DLOG_SHARED_MEMORY_KEY, 0, 0);
        EXPECT_NE(id, -1) << "no flag word";
        if (id == -1) {
            return 0;
        }
        auto* attached = static_cast<std::uint64_t*>(shmat(id, nullptr, SHM_RDONLY));
        const std::uint64_t value = *attached;
        shmdt(attached);
        return value;
    }

    static bool segmentExists() { return shmget(DLOG_SHARED_MEMORY_KEY, 0, 0) != -1; }
};

TEST_F(VidappDlogTest, SetThenShow) {
    const ChildResult set = dlog({"+12"});
    ASSERT_TRUE(set.exited && set.exitCode == 0) << set.describe();
    EXPECT_EQ(firstLine(set.out), "Debug Flags in Hex Format:c00000000000000");

    const ChildResult show = dlog({"show"});
    ASSERT_TRUE(show.exited && show.exitCode == 0) << show.describe();
    EXPECT_EQ(firstLine(show.out), "Debug Flags in Hex Format:c00000000000000");
    EXPECT_NE(show.out.find("Levels:       error warning\n"), std::string::npos) << show.out;
    EXPECT_EQ(show.err, "");
    EXPECT_EQ(word(), 0xC00000000000000ULL);
}

TEST_F(VidappDlogTest, ShowNamesApplicationsCommandsAndOtherBits) {
    const ChildResult result = dlog({"+3)", "+Mx"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    // ')' is bit 63 with bit 0: the live stream command, the profile level and "launch" at once.
    EXPECT_EQ(result.out, "Debug Flags in Hex Format:9000004000800001\n"
                          "Levels:       info profile\n"
                          "Applications: launch\n"
                          "Commands:     live-stream-start\n"
                          "Other bits:   x M\n");
}

TEST_F(VidappDlogTest, ClearResetAndCommandStringsInOrder) {
    ASSERT_EQ(dlog({"+AB12"}).exitCode, 0);
    const ChildResult cleared = dlog({"-B2"});
    ASSERT_TRUE(cleared.exited && cleared.exitCode == 0) << cleared.describe();
    EXPECT_EQ(firstLine(cleared.out), "Debug Flags in Hex Format:400000004000000");
    EXPECT_EQ(word(), (1ULL << 26) | (1ULL << 58));

    const ChildResult ordered = dlog({"0", "+)", "-a"});
    ASSERT_TRUE(ordered.exited && ordered.exitCode == 0) << ordered.describe();
    EXPECT_EQ(firstLine(ordered.out), "Debug Flags in Hex Format:8000000000000000");

    const ChildResult reset = dlog({"+)", "0"});
    EXPECT_EQ(firstLine(reset.out), "Debug Flags in Hex Format:0");
    EXPECT_EQ(word(), 0U);
}

TEST_F(VidappDlogTest, LiveStreamStartCommand) {
    const ChildResult result = dlog({"+)"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(firstLine(result.out), "Debug Flags in Hex Format:8000000000000001");
    EXPECT_EQ(word(), D_LIVE_STREAM_START);
}

TEST_F(VidappDlogTest, InvalidCharacterIsWarnedAndSkipped) {
    const ChildResult result = dlog({"+a9"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out.rfind("Warning! Invalid character in the arguments:9\n"
                               "Debug Flags in Hex Format:1\n",
                               0),
              0U)
        << result.out;
}

TEST_F(VidappDlogTest, RemoveTakesTheSegmentAway) {
    ASSERT_EQ(dlog({"+1"}).exitCode, 0);
    ASSERT_TRUE(segmentExists());
    const ChildResult result = dlog({"remove"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_FALSE(segmentExists());

    const ChildResult fresh = dlog({"show"});
    EXPECT_EQ(firstLine(fresh.out), "Debug Flags in Hex Format:0") << "a new, zeroed word";
}

TEST_F(VidappDlogTest, HelpNeedsNoSegment) {
    const ChildResult result = dlog({"help"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out.rfind("Dynamic Debug Help\n+ and - characters are used to add or remove debug flags\n", 0),
              0U);
    EXPECT_NE(result.out.find("App 2 : B or b\n"), std::string::npos);
    EXPECT_NE(result.out.find(USAGE), std::string::npos);
    EXPECT_FALSE(segmentExists());
}

TEST_F(VidappDlogTest, DoubleDashHelpPrintsTheHelpAndLeavesTheWordAlone) {
    const ChildResult result = dlog({"--help"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out.rfind("Dynamic Debug Help\n", 0), 0U);
    EXPECT_FALSE(segmentExists());
}

TEST_F(VidappDlogTest, DoubleDashAloneStillClearsTheRecordingStartCommand) {
    ASSERT_EQ(dlog({"+-"}).exitCode, 0);
    ASSERT_EQ(word(), D_RECORDING_START);
    const ChildResult result = dlog({"--"});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(word(), 0U);
}

TEST_F(VidappDlogTest, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"x12"},
        {"12"},
        {""},
        {"+1", "show"},
        {"show", "+1"},
        {"remove", "now"},
        {"SHOW"},
        // Options typed out of habit are never applied to the word.
        {"--verbose"},
        {"+1", "--show"},
        {"--help", "+1"},
    };
    for (const auto& arguments : wrong) {
        SCOPED_TRACE(arguments.empty() ? "(none)" : arguments[0]);
        const ChildResult result = dlog(arguments);
        EXPECT_TRUE(result.exited && result.exitCode == 2) << result.describe();
        EXPECT_NE(result.err.find(USAGE), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
    EXPECT_FALSE(segmentExists()) << "a usage error must not create the word";
}

TEST_F(VidappDlogTest, SegmentThatCannotBeAttachedExitsWithOne) {
    // A segment of the same key but the wrong size: shmget refuses it.
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_NE(foreign, -1);
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"show"}, {"+1"}, {"remove"}}) {
        SCOPED_TRACE(arguments[0]);
        const ChildResult result = dlog(arguments);
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        EXPECT_EQ(result.out, "Shared Memory DLog Initialization Failed\n");
        EXPECT_NE(result.err.find("cannot attach the debug flag word"), std::string::npos) << result.err;
    }
    shmid_ds status{};
    ASSERT_EQ(shmctl(foreign, IPC_STAT, &status), 0) << "the foreign segment is left alone";
    EXPECT_EQ(status.shm_segsz, 4U);
}

} // namespace
