#include "video_interface/Profile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "log/DynamicDebug.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"

// The thread, driven through the real flag word, is tested end to end in VidappProcessTest.
namespace {

namespace fs = std::filesystem;

// Works in the sandbox's private /dev/shm, with the flag word of a LogCapture.
class ProfileTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        fs::current_path("/dev/shm");
    }

    // One pass with these commands added to the word; the profiles under tmp/ afterwards.
    std::vector<fs::path> pass(std::uint64_t commands) {
        log.word() |= commands;
        OVRA::profilePass();
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator("tmp", ignored)) {
            found.push_back(entry.path());
        }
        return found;
    }

    vidapp::test::LogCapture log;
    std::error_code ignored;
};

TEST_F(ProfileTest, StartAndStopLeaveATimedProfileAndClearEachOthersCommand) {
    EXPECT_TRUE(pass(D_PROFILER_STOP).empty()) << "a stop while idle does nothing";
    const auto profiles = pass(D_PROFILER_START); // with the stop still on: a run starts and stops in one pass
    ASSERT_EQ(profiles.size(), 1U) << "tmp/ is created";
    EXPECT_THAT(profiles[0].string(), testing::MatchesRegex("tmp/profile_app_video_interface_[0-9]{4}-[0-9]{2}-"
                                                            "[0-9]{2}_[0-9]{2}-[0-9]{2}-[0-9]{2}\\.log"));
    EXPECT_GT(fs::file_size(profiles[0]), 0U);
    EXPECT_EQ(log.word() & (D_PROFILER_START | D_PROFILER_STOP), 0U) << "each step cleared the other's command";

    pass(D_PROFILER_START);
    pass(0);
    EXPECT_FALSE(OVRA::isProfile.load()) << "the start command stays during the run";
    pass(D_PROFILER_STOP);
    EXPECT_TRUE(OVRA::isProfile.load());
    EXPECT_EQ(log.word() & (D_PROFILER_START | D_PROFILER_STOP), D_PROFILER_STOP) << "stopping clears the start";
}

} // namespace
