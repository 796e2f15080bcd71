#include "log/DynamicDebug.h"

#include <gtest/gtest.h>

#include <fstream>

#include <atomic>
#include <string>
#include <sys/resource.h>
#include <sys/shm.h>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/Sandbox.h"

constexpr std::uint64_t ALL = ~std::uint64_t{0};
constexpr std::uint64_t CMD = std::uint64_t{1} << 63;
constexpr std::uint64_t bit(unsigned n) {
    return std::uint64_t{1} << n;
}

template <typename Action> std::string stdoutOf(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

// Each case attaches the real word of its private IPC namespace; cases that close it clear the pointer.
class DynamicDebugTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        ASSERT_EQ(initDLogInterface(), 1);
    }
    void TearDown() override {
        if (shm_dlog_detail != nullptr) {
            (void)closeDLogInterface(false);
        }
        shm_dlog_detail = nullptr;
    }
    std::uint64_t& word() { return *shm_dlog_detail; }
};

TEST_F(DynamicDebugTest, SegmentOutlivesACloseThatKeepsItAndASecondCloseFails) {
    EXPECT_EQ(word(), 0U) << "a new segment starts with all logging off";
    setDebugBits("+3Z");
    ASSERT_EQ(closeDLogInterface(true), 1);
    shmid_ds status{};
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_STAT, &status), 0);
    EXPECT_EQ(std::make_tuple(status.shm_perm.__key, status.shm_segsz, status.shm_perm.mode & 0777, status.shm_nattch),
              std::make_tuple(0x6163817, 8U, 0666U, 0U)); // key, size, mode, attachments
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(true), 0); }),
              "Detachment of Shared Memory DLog from process address space, failed\n");
    ASSERT_EQ(initDLogInterface(), 1);
    EXPECT_EQ(word(), bit(51) | bit(60));
}

TEST_F(DynamicDebugTest, EveryCharacterSetsAndClearsItsBitsAndOthersAreReported) {
    // The table in bit order: plain characters from bit 0, command characters bit 63 with 0 to 5.
    const std::string plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ#$%&'(123456";
    const std::string commands = ")*+,-.";
    for (unsigned i = 0; i < plain.size() + commands.size(); ++i) {
        const char character = i < plain.size() ? plain[i] : commands[i - plain.size()];
        const std::uint64_t bits = i < plain.size() ? bit(i) : CMD | bit(i - 64);
        SCOPED_TRACE(std::string("character ") + character);
        word() = 0;
        setDebugBits((std::string("+") + character).c_str());
        EXPECT_EQ(word(), bits);
        word() = ALL;
        setDebugBits((std::string("-") + character).c_str());
        EXPECT_EQ(word(), ~bits);
    }
    const std::string invalid = "Warning! Invalid character in the arguments:";
    word() = 0;
    EXPECT_EQ(stdoutOf([] { setDebugBits("+a9b "); }) + stdoutOf([] { setDebugBits("+"); }),
              invalid + "9\n" + invalid + " \n");
    EXPECT_EQ(word(), bit(0) | bit(1));
    word() = ALL;
    EXPECT_EQ(stdoutOf([] { setDebugBits("-07"); }) + stdoutOf([] { setDebugBits("-"); }),
              invalid + "0\n" + invalid + "7\n");
    EXPECT_EQ(word(), ALL);
    setDebugBits("0+12");
    EXPECT_EQ(word(), 0U);
}

TEST_F(DynamicDebugTest, EveryLatchClearsExactlyItsCommand) {
    const struct {
        void (*reset)();
        std::uint64_t constant, bits;
    } rows[] = {
        {resetProfilerStart, D_PROFILER_START, bit(52)},       {resetProfilerStop, D_PROFILER_STOP, bit(53)},
        {resetProfilerTransfer, D_PROFILER_TRANSFER, bit(54)}, {resetHitchBallStart, D_HITCH_BALL_START, bit(55)},
        {resetHitchBallStop, D_HITCH_BALL_STOP, bit(56)},      {resetDeleteAllFiles, D_DELETE_ALL_FILES, bit(57)},
        {resetLiveStreamStart, D_LIVE_STREAM_START, CMD | 1},  {resetLiveStreamStop, D_LIVE_STREAM_STOP, CMD | 2},
        {resetCalibrationStart, D_CALIBRATION_START, CMD | 4}, {resetCalibrationStop, D_CALIBRATION_STOP, CMD | 8},
        {resetRecordingStart, D_RECORDING_START, CMD | 0x10},  {resetRecordingStop, D_RECORDING_STOP, CMD | 0x20}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bits);
        EXPECT_EQ(row.constant, row.bits);
        word() = ALL;
        row.reset();
        row.reset();
        EXPECT_EQ(word(), ~row.bits);
    }
}

TEST_F(DynamicDebugTest, CheckShowResetAndHelp) {
    word() = bit(37) | bit(60);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(showDebugFlags(), 1); }), "Debug Flags in Hex Format:1000002000000000\n");
    EXPECT_EQ(resetDebugFlags(), 1);
    EXPECT_EQ(word(), 0U);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(printHelp(), 1); }),
              "Dynamic Debug Help\n+ and - characters are used to add or remove debug flags\n"
              "+ and - character can not be used simultaneously i.e. only one at a time\n"
              "+ and - character should be at beginning e.g. +12 for enabling level 1 and 2 OR -3 for disabling "
              "level 3\ne.g. +AB for App 1 and App 2 OR -B2 will disable for App 2 and also level 2\n"
              "Reset all flags with 0 as first character\n---- App Listing mapped to Alpha Characters ------\n"
              "App 1 : A or a\nApp 2 : B or b\n");
}

// The word attached at the same address, once, however often it was removed and made anew; a word
// that cannot be attached again is reported once until a refresh succeeds.
TEST_F(DynamicDebugTest, RefreshFollowsAWordRecreatedByAnOperatorAndCloseRemovesIt) {
    const std::uint64_t* const address = shm_dlog_detail;
    const auto attachments = [] {
        std::ifstream maps("/proc/self/maps");
        std::string line;
        int count = 0;
        while (std::getline(maps, line)) {
            count += line.find("SYSV06163817") != std::string::npos ? 1 : 0;
        }
        return count;
    };
    for (int cycle = 0; cycle < 20; ++cycle) {
        ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
        const int fresh = shmget(DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t), IPC_CREAT | 0666);
        auto* operatorView = static_cast<std::uint64_t*>(shmat(fresh, nullptr, 0));
        ASSERT_NE(operatorView, reinterpret_cast<void*>(-1));
        *operatorView = D_LIVE_STREAM_START + static_cast<std::uint64_t>(cycle);
        ASSERT_EQ(refreshDLogInterface(), 1);
        EXPECT_EQ(word(), D_LIVE_STREAM_START + static_cast<std::uint64_t>(cycle));
        ASSERT_EQ(shmdt(operatorView), 0);
    }
    EXPECT_EQ(shm_dlog_detail, address);
    EXPECT_EQ(attachments(), 1);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
        const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666); // the wrong size
        testing::internal::CaptureStderr();
        EXPECT_EQ(refreshDLogInterface() + refreshDLogInterface(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "refreshDLogInterface(): the debug flag word was removed and cannot be attached again: shmget() "
                  "errno: 22 (Invalid argument)\n");
        ASSERT_EQ(shmctl(foreign, IPC_RMID, nullptr), 0);
        ASSERT_EQ(refreshDLogInterface(), 1);
    }
    ASSERT_EQ(closeDLogInterface(false), 1); // with the mapping of the removed word
    shm_dlog_detail = nullptr;
    EXPECT_EQ(shmget(DLOG_SHARED_MEMORY_KEY, 0, 0), -1);
}

TEST_F(DynamicDebugTest, FailuresAreReportedNotDereferenced) {
    // Marked for removal by someone else: the detach destroys it, so our own removal must fail.
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(false), 0); }),
              "Marking for destruction of Shared Memory DLog, failed\n");
    shm_dlog_detail = nullptr;
    const std::string notAttached = "Invalid DLOG Shared Memory. Serious issue!\n";
    EXPECT_EQ(stdoutOf([] {
                  EXPECT_EQ(checkDebugOn(0) + resetDebugFlags(), 0);
                  setDebugBits("+12");
                  setDebugBits("-12");
                  resetLiveStreamStart();
              }),
              notAttached + notAttached + notAttached + notAttached + notAttached);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(true), 0); }),
              "Error: In closeDLogInterface(), found that shared memory is not created\n");
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(initDLogInterface(), 0); }), "Shared Memory DLog Initialization Failed\n");
    EXPECT_EQ(shm_dlog_detail, nullptr) << "a segment of the wrong size is not used";
    EXPECT_EQ(shmctl(foreign, IPC_RMID, nullptr), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // No address space left: shmget still gets the segment, shmat cannot map it.
    const auto result = vidapp::test::runInChild([] {
        shm_dlog_detail = nullptr;
        std::printf("child\n"); // stdout's buffer is allocated before the limit
        const rlimit none{0, 0};
        return setrlimit(RLIMIT_AS, &none) == 0 && initDLogInterface() == 0 && shm_dlog_detail == nullptr ? 0 : 12;
    });
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "child\nshared memory DLog access failed\n");
#endif
}

TEST_F(DynamicDebugTest, ConcurrentCommandsOnDifferentBitsAreNotLost) {
    // A read-modify-write that is not atomic loses bits now and then (and ThreadSanitizer reports it).
    std::atomic<int> lost{0};
    std::vector<std::jthread> threads;
    for (const std::string letter : {"a", "b", "c", "d"}) {
        threads.emplace_back([&lost, on = "+" + letter, off = "-" + letter] {
            for (int i = 0; i < 200000; ++i) {
                setDebugBits(on.c_str());
                lost += checkDebugOn(debugBitsForCharacter(on[1])) != 1 ? 1 : 0;
                setDebugBits(off.c_str());
            }
            setDebugBits(on.c_str());
        });
    }
    threads.clear();
    EXPECT_EQ(lost.load(), 0);
    EXPECT_EQ(word(), bit(0) | bit(1) | bit(2) | bit(3));
}
