#include "video_interface/Profile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log/DynamicDebug.h"
#include "tests/support/LogCapture.h"

namespace {

namespace fs = std::filesystem;

// The names a run started between the two times may have: the local time of one of those seconds.
std::vector<std::string> profileNamesBetween(std::time_t first, std::time_t last) {
    std::vector<std::string> names;
    for (std::time_t t = first; t <= last; ++t) {
        std::tm local{};
        localtime_r(&t, &local);
        char text[20];
        std::strftime(text, sizeof text, "%Y-%m-%d_%H-%M-%S", &local);
        names.push_back(std::string("tmp/profile_app_video_interface_") + text + ".log");
    }
    return names;
}

// Each case works in a directory of its own, with the flag word of a LogCapture.
class ProfileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/profile-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
        previous = fs::current_path();
        fs::current_path(directory);
        OVRA::isProfile.store(true);
    }

    void TearDown() override {
        if (!OVRA::isProfile.load()) {
            log.word() |= D_PROFILER_STOP;
            OVRA::profilePass();
        }
        fs::current_path(previous);
        fs::remove_all(directory);
    }

    static std::vector<fs::path> profiles() {
        std::vector<fs::path> found;
        if (fs::is_directory("tmp")) {
            for (const auto& entry : fs::directory_iterator("tmp")) {
                found.push_back(entry.path());
            }
        }
        return found;
    }

    vidapp::test::LogCapture log;
    fs::path directory;
    fs::path previous;
};

TEST_F(ProfileTest, StartThenStopLeavesAProfile) {
    log.word() |= D_PROFILER_START;
    const std::time_t before = std::time(nullptr);
    OVRA::profilePass();
    const std::time_t after = std::time(nullptr);

    EXPECT_FALSE(OVRA::isProfile.load());
    ASSERT_EQ(profiles().size(), 1U) << "tmp/ is created and the run's file opened";
    const fs::path file = profiles().front();
    const auto names = profileNamesBetween(before, after);
    EXPECT_NE(std::find(names.begin(), names.end(), file.string()), names.end()) << file;
    EXPECT_NE(log.word() & D_PROFILER_START, 0U) << "the start command stays until a stop";

    log.word() |= D_PROFILER_STOP;
    OVRA::profilePass();

    EXPECT_TRUE(OVRA::isProfile.load());
    EXPECT_GT(fs::file_size(file), 0U);
    EXPECT_EQ(log.word() & (D_PROFILER_START | D_PROFILER_STOP), D_PROFILER_STOP)
        << "stopping clears the start command; the stop command stays";
}

TEST_F(ProfileTest, NoSecondRunWhileTheStartCommandStays) {
    log.word() |= D_PROFILER_START;
    OVRA::profilePass();
    ASSERT_FALSE(OVRA::isProfile.load());

    OVRA::profilePass();
    OVRA::profilePass();
    EXPECT_FALSE(OVRA::isProfile.load());
    EXPECT_EQ(profiles().size(), 1U);
}

TEST_F(ProfileTest, StopAloneWhileIdleDoesNothing) {
    log.word() |= D_PROFILER_STOP;
    OVRA::profilePass();

    EXPECT_TRUE(OVRA::isProfile.load());
    EXPECT_NE(log.word() & D_PROFILER_STOP, 0U);
    EXPECT_FALSE(fs::exists("tmp"));
}

TEST_F(ProfileTest, BothCommandsWhileIdleStartAndStopInOnePass) {
    log.word() |= D_PROFILER_START | D_PROFILER_STOP;
    OVRA::profilePass();

    EXPECT_TRUE(OVRA::isProfile.load());
    ASSERT_EQ(profiles().size(), 1U);
    EXPECT_GT(fs::file_size(profiles().front()), 0U);
    EXPECT_EQ(log.word() & (D_PROFILER_START | D_PROFILER_STOP), 0U) << "each step cleared the other's command";
}

TEST_F(ProfileTest, ProfilerThatCannotWriteIsReportedAndStillStops) {
    std::ofstream("tmp") << "a file where the directory should be";
    log.word() |= D_PROFILER_START;
    OVRA::profilePass();

    EXPECT_FALSE(OVRA::isProfile.load());
    EXPECT_TRUE(log.contains("W: vidapp: profile(): ProfilerStart(tmp/profile_app_video_interface_")) << log.dump();

    log.word() |= D_PROFILER_STOP;
    OVRA::profilePass();
    EXPECT_TRUE(OVRA::isProfile.load());
}

TEST_F(ProfileTest, ThreadEndsPromptlyOnStopAndFinishesItsRun) {
    log.word() |= D_PROFILER_START;
    std::thread profiler(OVRA::profile);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (profiles().empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_EQ(profiles().size(), 1U) << "the thread did not start a run";

    const auto stopAt = std::chrono::steady_clock::now();
    OVRA::stopProfile();
    profiler.join();
    const auto stopTime = std::chrono::steady_clock::now() - stopAt;

    EXPECT_LT(stopTime, std::chrono::milliseconds(900)) << "the one-second wait is interrupted";
    EXPECT_TRUE(OVRA::isProfile.load()) << "the run under way is ended";
    EXPECT_GT(fs::file_size(profiles().front()), 0U);
}

TEST_F(ProfileTest, StopRequestedBeforeTheThreadRunsEndsItAtOnce) {
    OVRA::stopProfile();
    const auto startedAt = std::chrono::steady_clock::now();
    std::thread profiler(OVRA::profile);
    profiler.join();
    EXPECT_LT(std::chrono::steady_clock::now() - startedAt, std::chrono::milliseconds(900));
}

} // namespace
