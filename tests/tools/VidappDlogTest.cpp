#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <sys/shm.h>

#include "log/DynamicDebug.h"
#include "tests/support/Child.h"
#include "tests/support/Sandbox.h"

namespace {

using testing::HasSubstr;
using vidapp::test::ChildResult;

constexpr const char* USAGE = "usage: vidapp-dlog <command string>... | show | help | remove\n";

// The operator tool run as a child process against the flag word of the sandbox's IPC namespace.
class VidappDlogTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    // Runs the tool with the words of arguments; checks its exit status and how its output starts.
    static ChildResult dlog(const std::string& arguments, int exitCode = 0, const std::string& outStart = "") {
        std::istringstream words(arguments);
        std::vector<std::string> argv(std::istream_iterator<std::string>(words), {});
        argv.insert(argv.begin(), VIDAPP_BIN_DIR "/vidapp-dlog");
        const ChildResult result = vidapp::test::runProgram(argv);
        EXPECT_TRUE(result.exited && result.exitCode == exitCode) << arguments << "\n" << result.describe();
        EXPECT_EQ(result.out.rfind(outStart, 0), 0U) << arguments << ": expected at the start: " << outStart;
        return result;
    }

    static bool segmentExists() { return shmget(DLOG_SHARED_MEMORY_KEY, 0, 0) != -1; }
};

TEST_F(VidappDlogTest, CommandStringsApplyInOrderAndShowSeesTheWord) {
    // Each row acts on the word the rows before it left; "--" and "--B" are command strings.
    const std::pair<const char*, std::string> rows[] = {{"+12", "c00000000000000"},
                                                        {"-2 +AB", "40000000c000000"},
                                                        {"0 +) -a", "8000000000000000"},
                                                        {"+) 0", "0"},
                                                        {"+-", "8000000000000010"},
                                                        {"--", "0"},
                                                        {"+B --B", "0"}};
    for (const auto& [arguments, word] : rows) {
        dlog(arguments, 0, "Debug Flags in Hex Format:" + word + "\n");
        dlog("show", 0, "Debug Flags in Hex Format:" + word + "\n"); // the word as another process sees it
    }
    dlog("+a9", 0, "Warning! Invalid character in the arguments:9\nDebug Flags in Hex Format:1\n");
    // ')' is bit 63 with bit 0: the live stream command, the profile level and "launch" at once.
    EXPECT_EQ(dlog("0 +12 +3) +Mx").out,
              "Debug Flags in Hex Format:9c00004000800001\nLevels:       error warning info profile\n"
              "Applications: launch\nCommands:     live-stream-start\n"
              "Pending:      live-stream start: vidapp starts the camera within a second\nOther bits:   x M\n");
    // The profile level with the letter a is that command too: applied, but not without a warning.
    const std::string warning = "vidapp-dlog: warning: the profile level (6) and the letter a together are the "
                                "live-stream start command";
    EXPECT_THAT(dlog("0 +6a").err, HasSubstr(warning));
    EXPECT_EQ(dlog("0 +)").err, "");
    EXPECT_THAT(dlog("-a +a").err, HasSubstr(warning));
    EXPECT_EQ(dlog("+1").err, "") << "pending before, not made by this command";
}

TEST_F(VidappDlogTest, HelpAndUsageErrorsNeedNoSegmentAndRemoveTakesItAway) {
    const std::string help = "Dynamic Debug Help\n+ and - characters are used to add or remove debug flags\n";
    EXPECT_THAT(dlog("help", 0, help).out, HasSubstr("App 2 : B or b\n"));
    EXPECT_THAT(dlog("--help", 0, help).out, HasSubstr(USAGE));
    // Keywords out of place and words that are no command strings are never applied to the word.
    for (const char* arguments : {"", "x12", "12", "+1 show", "show +1", "SHOW", "--help +1", "remove now"}) {
        const ChildResult result = dlog(arguments, 2);
        EXPECT_THAT(result.err, HasSubstr(USAGE)) << arguments;
        EXPECT_EQ(result.out, "") << arguments;
    }
    EXPECT_FALSE(segmentExists()) << "neither help nor a usage error makes the word";
    dlog("+1");
    ASSERT_TRUE(segmentExists());
    dlog("remove");
    EXPECT_FALSE(segmentExists());
    dlog("show", 0, "Debug Flags in Hex Format:0\n"); // a new, zeroed word
}

TEST_F(VidappDlogTest, SegmentThatCannotBeAttachedExitsWithOneAndIsLeftAlone) {
    // A segment of the same key but the wrong size: shmget refuses it.
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_NE(foreign, -1);
    for (const char* command : {"show", "+1", "remove"}) {
        const ChildResult result = dlog(command, 1, "Shared Memory DLog Initialization Failed\n");
        EXPECT_THAT(result.err, HasSubstr("cannot attach the debug flag word"));
    }
    shmid_ds status{};
    ASSERT_EQ(shmctl(foreign, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 4U);
}

} // namespace
