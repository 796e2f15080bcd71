#include "log/DynamicDebug.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::runInChild;

constexpr std::uint64_t bit(unsigned n) {
    return std::uint64_t{1} << n;
}
constexpr std::uint64_t ALL_ONES = ~std::uint64_t{0};
constexpr const char* NOT_ATTACHED = "Invalid DLOG Shared Memory. Serious issue!\n";

struct CharacterBits {
    char character;
    std::uint64_t bits;
};

// Every row of the character table, written out independently of the implementation.
std::vector<CharacterBits> characterTable() {
    std::vector<CharacterBits> rows;
    for (unsigned i = 0; i < 26; ++i) {
        rows.push_back({static_cast<char>('a' + i), bit(i)});
        rows.push_back({static_cast<char>('A' + i), bit(26 + i)});
    }
    const std::vector<CharacterBits> symbols = {
        {'#', bit(52)},          {'$', bit(53)},          {'%', bit(54)},          {'&', bit(55)},
        {'\'', bit(56)},         {'(', bit(57)},          {')', bit(63) | bit(0)}, {'*', bit(63) | bit(1)},
        {'+', bit(63) | bit(2)}, {',', bit(63) | bit(3)}, {'-', bit(63) | bit(4)}, {'.', bit(63) | bit(5)},
        {'1', bit(58)},          {'2', bit(59)},          {'3', bit(60)},          {'4', bit(61)},
        {'5', bit(62)},          {'6', bit(63)},
    };
    rows.insert(rows.end(), symbols.begin(), symbols.end());
    return rows;
}

struct Latch {
    const char* name;
    void (*reset)();
    std::uint64_t bits;
};

const std::vector<Latch>& latches() {
    static const std::vector<Latch> list = {
        {"resetProfilerStart", resetProfilerStart, bit(52)},
        {"resetProfilerStop", resetProfilerStop, bit(53)},
        {"resetProfilerTransfer", resetProfilerTransfer, bit(54)},
        {"resetHitchBallStart", resetHitchBallStart, bit(55)},
        {"resetHitchBallStop", resetHitchBallStop, bit(56)},
        {"resetDeleteAllFiles", resetDeleteAllFiles, bit(57)},
        {"resetLiveStreamStart", resetLiveStreamStart, bit(63) | bit(0)},
        {"resetLiveStreamStop", resetLiveStreamStop, bit(63) | bit(1)},
        {"resetCalibrationStart", resetCalibrationStart, bit(63) | bit(2)},
        {"resetCalibrationStop", resetCalibrationStop, bit(63) | bit(3)},
        {"resetRecordingStart", resetRecordingStart, bit(63) | bit(4)},
        {"resetRecordingStop", resetRecordingStop, bit(63) | bit(5)},
    };
    return list;
}

template <typename Action> std::string stdoutOf(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

bool segmentExists() {
    return shmget(DLOG_SHARED_MEMORY_KEY, 0, 0) != -1;
}

// Each case attaches the real segment of its private IPC namespace and removes it afterwards, so
// even a run of all cases in one process starts every case from a new, zeroed segment.
class DynamicDebugTest : public ::testing::Test {
protected:
    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        ASSERT_EQ(initDLogInterface(), 1);
        ASSERT_NE(shm_dlog_detail, nullptr);
    }

    void TearDown() override {
        if (shm_dlog_detail != nullptr && attachedHere) {
            (void)closeDLogInterface(false);
        }
        // The pointer outlives the detachment; no later case may use it.
        shm_dlog_detail = nullptr;
    }

    std::uint64_t word() const { return *shm_dlog_detail; }
    void setWord(std::uint64_t value) { *shm_dlog_detail = value; }

    // Cleared by cases that detach on their own.
    bool attachedHere = true;
};

TEST_F(DynamicDebugTest, SegmentHasTheSystemKeySizeAndMode) {
    shmid_ds status{};
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.__key, 0x6163817);
    EXPECT_EQ(status.shm_segsz, 8U);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666U);
    EXPECT_EQ(status.shm_nattch, 1U);
    EXPECT_EQ(word(), 0U) << "a new segment starts with all logging off";
}

TEST_F(DynamicDebugTest, ModeIs0666WhateverTheUmask) {
    ASSERT_EQ(closeDLogInterface(false), 1);
    const mode_t saved = umask(077);
    const int attached = initDLogInterface();
    umask(saved);
    ASSERT_EQ(attached, 1);
    shmid_ds status{};
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666U);
}

TEST_F(DynamicDebugTest, EveryCharacterSetsItsBits) {
    for (const CharacterBits& row : characterTable()) {
        SCOPED_TRACE(std::string("character ") + row.character);
        setWord(0);
        const std::string command = std::string("+") + row.character;
        setDebugBits(command.c_str());
        EXPECT_EQ(word(), row.bits);
        EXPECT_EQ(debugBitsForCharacter(row.character), row.bits);
    }
}

TEST_F(DynamicDebugTest, EveryCharacterClearsItsBits) {
    for (const CharacterBits& row : characterTable()) {
        SCOPED_TRACE(std::string("character ") + row.character);
        setWord(ALL_ONES);
        const std::string command = std::string("-") + row.character;
        setDebugBits(command.c_str());
        EXPECT_EQ(word(), ~row.bits);
    }
}

TEST_F(DynamicDebugTest, SetAndClearOnlyTouchTheirBits) {
    setWord(bit(7) | bit(40));
    setDebugBitsOn("+a");
    EXPECT_EQ(word(), bit(7) | bit(40) | bit(0));
    setDebugBitsOff("-h");
    EXPECT_EQ(word(), bit(40) | bit(0));
}

TEST_F(DynamicDebugTest, CommandStringsFromTheHelpText) {
    setDebugBits("+12");
    EXPECT_EQ(word(), 0xC00000000000000ULL);

    setWord(0);
    setDebugBits("+AB");
    EXPECT_EQ(word(), bit(26) | bit(27));
    setWord(0);
    setDebugBits("+ab");
    EXPECT_EQ(word(), bit(0) | bit(1));

    setWord(ALL_ONES);
    setDebugBits("-B2");
    EXPECT_EQ(word(), ~(bit(27) | bit(59)));
}

TEST_F(DynamicDebugTest, LiveStreamStartAlsoSwitchesOnTheProfileLevel) {
    setDebugBits("+)");
    EXPECT_EQ(word(), bit(63) | bit(0));
    EXPECT_EQ(checkDebugOn(D_LIVE_STREAM_START), 1);
    EXPECT_EQ(checkDebugOn(D_LOG_LEVEL_PROFILE), 1);
    resetLiveStreamStart();
    EXPECT_EQ(word(), 0U);
}

TEST_F(DynamicDebugTest, PlusOrMinusAfterTheFirstCharacterIsACommandCharacter) {
    setDebugBits("+-");
    EXPECT_EQ(word(), D_RECORDING_START);
    setWord(ALL_ONES);
    setDebugBits("-+");
    EXPECT_EQ(word(), ~D_CALIBRATION_START);
}

TEST_F(DynamicDebugTest, InvalidCharactersAreReportedAndSkipped) {
    const std::string out = stdoutOf([] { setDebugBits("+a9b "); });
    EXPECT_EQ(out, "Warning! Invalid character in the arguments:9\n"
                   "Warning! Invalid character in the arguments: \n");
    EXPECT_EQ(word(), bit(0) | bit(1));

    setWord(ALL_ONES);
    const std::string clearing = stdoutOf([] { setDebugBits("-07"); });
    EXPECT_EQ(clearing, "Warning! Invalid character in the arguments:0\n"
                        "Warning! Invalid character in the arguments:7\n");
    EXPECT_EQ(word(), ALL_ONES);
}

TEST_F(DynamicDebugTest, OperatorAloneChangesNothing) {
    setWord(bit(5));
    const std::string out = stdoutOf([] {
        setDebugBits("+");
        setDebugBits("-");
        setDebugBitsOn("+");
        setDebugBitsOff("");
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(word(), bit(5));
}

TEST_F(DynamicDebugTest, LeadingZeroResetsWhateverFollows) {
    for (const char* command : {"0", "0abc", "0+12", "0-"}) {
        SCOPED_TRACE(command);
        setWord(ALL_ONES);
        setDebugBits(command);
        EXPECT_EQ(word(), 0U);
    }
}

TEST_F(DynamicDebugTest, OtherFirstCharactersDoNothing) {
    for (const char* command : {"", "12", "x+a", " +a", "=a"}) {
        SCOPED_TRACE(command);
        setWord(bit(9));
        EXPECT_EQ(stdoutOf([command] { setDebugBits(command); }), "");
        EXPECT_EQ(word(), bit(9));
    }
}

TEST_F(DynamicDebugTest, EveryLatchClearsExactlyItsCommand) {
    for (const Latch& latch : latches()) {
        SCOPED_TRACE(latch.name);
        setWord(ALL_ONES);
        latch.reset();
        EXPECT_EQ(word(), ~latch.bits);
        latch.reset();
        EXPECT_EQ(word(), ~latch.bits) << "a second reset changes nothing";
    }
}

TEST_F(DynamicDebugTest, LatchConstantsMatchTheCommandCharacters) {
    EXPECT_EQ(D_PROFILER_START, debugBitsForCharacter('#'));
    EXPECT_EQ(D_HITCH_BALL_STOP, debugBitsForCharacter('\''));
    EXPECT_EQ(D_LIVE_STREAM_START, debugBitsForCharacter(')'));
    EXPECT_EQ(D_RECORDING_STOP, debugBitsForCharacter('.'));
    EXPECT_EQ(debugBitsForCharacter('0'), 0U);
    EXPECT_EQ(debugBitsForCharacter('7'), 0U);
    EXPECT_EQ(debugBitsForCharacter('/'), 0U);
    EXPECT_EQ(debugBitsForCharacter('"'), 0U);
    EXPECT_EQ(debugBitsForCharacter('\xe9'), 0U);
}

TEST_F(DynamicDebugTest, CheckDebugOnNeedsEveryBitOfTheMask) {
    setWord(bit(37) | bit(60));
    EXPECT_EQ(checkDebugOn(0), 1);
    EXPECT_EQ(checkDebugOn(bit(37)), 1);
    EXPECT_EQ(checkDebugOn(bit(37) | bit(60)), 1);
    EXPECT_EQ(checkDebugOn(bit(37) | bit(59)), 0);
    EXPECT_EQ(checkDebugOn(bit(59)), 0);
    setWord(0);
    EXPECT_EQ(checkDebugOn(0), 1);
    EXPECT_EQ(checkDebugOn(ALL_ONES), 0);
}

TEST_F(DynamicDebugTest, ResetDebugFlagsClearsTheWord) {
    setWord(ALL_ONES);
    EXPECT_EQ(resetDebugFlags(), 1);
    EXPECT_EQ(word(), 0U);
}

TEST_F(DynamicDebugTest, ShowDebugFlagsPrintsTheWordInHex) {
    setDebugBits("+12");
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(showDebugFlags(), 1); }), "Debug Flags in Hex Format:c00000000000000\n");
    setWord(0);
    EXPECT_EQ(stdoutOf([] { showDebugFlags(); }), "Debug Flags in Hex Format:0\n");
    setWord(ALL_ONES);
    EXPECT_EQ(stdoutOf([] { showDebugFlags(); }), "Debug Flags in Hex Format:ffffffffffffffff\n");
}

TEST_F(DynamicDebugTest, PrintHelpPrintsTheNineLines) {
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(printHelp(), 1); }),
              "Dynamic Debug Help\n"
              "+ and - characters are used to add or remove debug flags\n"
              "+ and - character can not be used simultaneously i.e. only one at a time\n"
              "+ and - character should be at beginning e.g. +12 for enabling level 1 and 2 OR -3 for disabling "
              "level 3\n"
              "e.g. +AB for App 1 and App 2 OR -B2 will disable for App 2 and also level 2\n"
              "Reset all flags with 0 as first character\n"
              "---- App Listing mapped to Alpha Characters ------\n"
              "App 1 : A or a\n"
              "App 2 : B or b\n");
}

TEST_F(DynamicDebugTest, CloseKeepingTheSegmentLeavesTheWordForTheNextProcess) {
    setDebugBits("+3Z");
    const std::uint64_t before = word();
    ASSERT_EQ(closeDLogInterface(true), 1);
    EXPECT_TRUE(segmentExists());
    shmid_ds status{};
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_nattch, 0U);

    ASSERT_EQ(initDLogInterface(), 1);
    EXPECT_EQ(word(), before);
}

TEST_F(DynamicDebugTest, CloseWithoutKeepingRemovesTheSegment) {
    const int id = shm_dlog_id;
    ASSERT_EQ(closeDLogInterface(false), 1);
    attachedHere = false;
    EXPECT_FALSE(segmentExists());
    shmid_ds status{};
    EXPECT_EQ(shmctl(id, IPC_STAT, &status), -1);
}

TEST_F(DynamicDebugTest, SecondCloseFailsToDetach) {
    ASSERT_EQ(closeDLogInterface(true), 1);
    attachedHere = false;
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(true), 0); }),
              "Detachment of Shared Memory DLog from process address space, failed\n");
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
}

TEST_F(DynamicDebugTest, CloseReportsASegmentRemovedBehindItsBack) {
    // Marked for removal by someone else: the detach destroys it, so our own removal must fail.
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
    attachedHere = false;
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(false), 0); }),
              "Marking for destruction of Shared Memory DLog, failed\n");
}

TEST_F(DynamicDebugTest, RefreshKeepsAWordThatIsStillInPlace) {
    setDebugBits("+L3");
    std::uint64_t* before = shm_dlog_detail;
    EXPECT_EQ(refreshDLogInterface(), 1);
    EXPECT_EQ(shm_dlog_detail, before);
    EXPECT_EQ(checkDebugOn(0x2000000000ULL | D_LOG_LEVEL_INFO), 1);
}

TEST_F(DynamicDebugTest, RefreshFollowsAWordRemovedAndRecreatedByAnOperator) {
    setDebugBits("+L3");
    const int removedId = shm_dlog_id;
    // The operator removes the word; the next operator command creates a fresh one.
    ASSERT_EQ(shmctl(removedId, IPC_RMID, nullptr), 0);
    const int freshId = shmget(DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t), IPC_CREAT | 0666);
    ASSERT_NE(freshId, -1);
    ASSERT_NE(freshId, removedId);

    ASSERT_EQ(refreshDLogInterface(), 1);
    EXPECT_EQ(shm_dlog_id, freshId);
    EXPECT_EQ(word(), 0U) << "logging falls silent with the fresh word";
    EXPECT_EQ(checkDebugOn(D_LOG_LEVEL_INFO), 0);

    // Commands given to the fresh word reach this process again.
    void* operatorView = shmat(freshId, nullptr, 0);
    ASSERT_NE(operatorView, reinterpret_cast<void*>(-1));
    *static_cast<std::uint64_t*>(operatorView) = D_LIVE_STREAM_START;
    EXPECT_EQ(checkDebugOn(D_LIVE_STREAM_START), 1);
    ASSERT_EQ(shmdt(operatorView), 0);
}

TEST_F(DynamicDebugTest, RefreshCreatesTheWordWhenNoneIsLeft) {
    ASSERT_EQ(shmctl(shm_dlog_id, IPC_RMID, nullptr), 0);
    ASSERT_EQ(refreshDLogInterface(), 1);
    EXPECT_TRUE(segmentExists());
    EXPECT_EQ(word(), 0U);
    // The replaced mapping is detached on close, with the current one.
    ASSERT_EQ(closeDLogInterface(false), 1);
    attachedHere = false;
    EXPECT_FALSE(segmentExists());
}

TEST_F(DynamicDebugTest, UnattachedWordIsReportedNotDereferenced) {
    ASSERT_EQ(closeDLogInterface(false), 1);
    attachedHere = false;
    shm_dlog_detail = nullptr;

    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(checkDebugOn(0), 0); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(resetDebugFlags(), 0); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { showDebugFlags(); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { setDebugBits("+12"); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { setDebugBits("-12"); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { resetLiveStreamStart(); }), NOT_ATTACHED);
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(closeDLogInterface(true), 0); }),
              "Error: In closeDLogInterface(), found that shared memory is not created\n");
    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(printHelp(), 1); }).rfind("Dynamic Debug Help\n", 0), 0U);
}

TEST_F(DynamicDebugTest, InitFailsOnASegmentOfTheWrongSize) {
    ASSERT_EQ(closeDLogInterface(false), 1);
    attachedHere = false;
    shm_dlog_detail = nullptr;
    const int foreign = shmget(DLOG_SHARED_MEMORY_KEY, 4, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_NE(foreign, -1);

    EXPECT_EQ(stdoutOf([] { EXPECT_EQ(initDLogInterface(), 0); }), "Shared Memory DLog Initialization Failed\n");
    EXPECT_EQ(shm_dlog_detail, nullptr);
    EXPECT_EQ(shmctl(foreign, IPC_RMID, nullptr), 0);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(DynamicDebugTest, InitReportsAnAttachThatFails) {
    // No address space left for the mapping: shmget finds the segment, shmat cannot map it.
    const auto result = runInChild([] {
        shm_dlog_detail = nullptr;
        std::printf("child\n");
        rlimit limit{};
        if (getrlimit(RLIMIT_AS, &limit) != 0) {
            return 10;
        }
        limit.rlim_cur = 0;
        if (setrlimit(RLIMIT_AS, &limit) != 0) {
            return 11;
        }
        const int attached = initDLogInterface();
        return attached == 0 && shm_dlog_detail == nullptr ? 0 : 12;
    });
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "child\nshared memory DLog access failed\n");
}
#endif

TEST_F(DynamicDebugTest, TwoProcessesShareTheWord) {
    setDebugBits("+3");
    // A separate process attaches on its own, sees our bit and adds its own.
    const auto result = runInChild([] {
        shm_dlog_detail = nullptr;
        if (initDLogInterface() != 1) {
            return 10;
        }
        if (checkDebugOn(D_LOG_LEVEL_INFO) != 1) {
            return 11;
        }
        setDebugBits("+)");
        showDebugFlags();
        return closeDLogInterface(true) == 1 ? 0 : 12;
    });
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "Debug Flags in Hex Format:9000000000000001\n");
    EXPECT_EQ(word(), D_LOG_LEVEL_INFO | D_LIVE_STREAM_START);

    resetLiveStreamStart();
    const auto after = runInChild([] {
        shm_dlog_detail = nullptr;
        return initDLogInterface() == 1 && checkDebugOn(D_LIVE_STREAM_START) == 0 ? 0 : 1;
    });
    EXPECT_TRUE(after.exited && after.exitCode == 0) << after.describe();
}

TEST_F(DynamicDebugTest, ConcurrentCommandsOnDifferentBitsAreNotLost) {
    // Each thread toggles its own letter; a read-modify-write that is not atomic lets another
    // thread's write undo it now and then (and is a data race that ThreadSanitizer reports).
    constexpr int ROUNDS = 200000;
    const std::string letters = "abcd";
    std::atomic<int> ready{0};
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (const char letter : letters) {
        threads.emplace_back([&, letter] {
            const std::string on = std::string("+") + letter;
            const std::string off = std::string("-") + letter;
            const std::uint64_t mine = debugBitsForCharacter(letter);
            ++ready;
            while (ready.load() < static_cast<int>(letters.size())) {
                std::this_thread::yield();
            }
            for (int i = 0; i < ROUNDS; ++i) {
                setDebugBits(on.c_str());
                if (checkDebugOn(mine) != 1) {
                    ++lost;
                }
                setDebugBits(off.c_str());
            }
            setDebugBits(on.c_str());
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lost.load(), 0);
    EXPECT_EQ(word(), bit(0) | bit(1) | bit(2) | bit(3));
}

} // namespace
