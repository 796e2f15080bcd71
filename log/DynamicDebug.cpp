#include "log/DynamicDebug.h"
#include "log/ConsoleOutput.h"
#include "log/SyslogClient.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <syslog.h>
#include <vector>

int shm_dlog_id = -1;
std::uint64_t* shm_dlog_detail = nullptr;

namespace {

constexpr std::uint64_t bit(unsigned n) {
    return std::uint64_t{1} << n;
}

// The setting table, indexed by character; the clearing table is its complement.
constexpr std::array<std::uint64_t, 128> makeSetTable() {
    std::array<std::uint64_t, 128> table{};
    for (unsigned i = 0; i < 26; ++i) {
        table['a' + i] = bit(i);
        table['A' + i] = bit(26 + i);
    }
    table['#'] = D_PROFILER_START;
    table['$'] = D_PROFILER_STOP;
    table['%'] = D_PROFILER_TRANSFER;
    table['&'] = D_HITCH_BALL_START;
    table['\''] = D_HITCH_BALL_STOP;
    table['('] = D_DELETE_ALL_FILES;
    table[')'] = D_LIVE_STREAM_START;
    table['*'] = D_LIVE_STREAM_STOP;
    table['+'] = D_CALIBRATION_START;
    table[','] = D_CALIBRATION_STOP;
    table['-'] = D_RECORDING_START;
    table['.'] = D_RECORDING_STOP;
    for (unsigned level = 1; level <= 6; ++level) {
        table['0' + level] = bit(57 + level);
    }
    return table;
}

constexpr std::array<std::uint64_t, 128> SET_TABLE = makeSetTable();

constexpr std::array<std::uint64_t, 128> makeClearTable() {
    std::array<std::uint64_t, 128> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = ~SET_TABLE[i];
    }
    return table;
}

constexpr std::array<std::uint64_t, 128> CLEAR_TABLE = makeClearTable();

bool isCommandCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '#' && c <= '.') || (c >= '1' && c <= '6');
}

// The word's address may change at run time (refreshDLogInterface), while other threads log:
// the pointer itself is read and swapped atomically.
std::uint64_t* wordAddress() {
    return std::atomic_ref<std::uint64_t*>(shm_dlog_detail).load(std::memory_order_acquire);
}

std::atomic_ref<std::uint64_t> word() {
    return std::atomic_ref<std::uint64_t>(*wordAddress());
}

// Mappings of segments that were removed under us; a thread may still be reading through one, so
// they stay attached until closeDLogInterface.
// A failure to follow a removed word is reported once, and again only after a success.
std::atomic<bool> refreshFailureReported{false};

int refreshFailed(const char* call) {
    const int error = errno;
    if (!refreshFailureReported.exchange(true)) {
        OVRA::consoleErrorPrintf(
            "refreshDLogInterface(): the debug flag word was removed and cannot be attached again: "
            "%s errno: %d (%s)\n",
            call, error, std::strerror(error));
    }
    return 0;
}

// A command on a word that was never attached is reported instead of crashing the caller.
bool attached() {
    if (wordAddress() == nullptr) {
        OVRA::consolePrintf("Invalid DLOG Shared Memory. Serious issue!\n");
        return false;
    }
    return true;
}

void clearBits(std::uint64_t bits) {
    if (attached()) {
        word().fetch_and(~bits, std::memory_order_relaxed);
    }
}

} // namespace

int initDLogInterface() {
    shm_dlog_id = shmget(DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t), IPC_CREAT | DLOG_SHARED_MEMORY_MODE);
    if (shm_dlog_id == -1) {
        OVRA::consolePrintf("Shared Memory DLog Initialization Failed\n");
        return 0;
    }
    void* address = shmat(shm_dlog_id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        OVRA::consolePrintf("shared memory DLog access failed\n");
        shm_dlog_detail = nullptr;
        return 0;
    }
    shm_dlog_detail = static_cast<std::uint64_t*>(address);
    OVRA::syslogOpen("OVRALogs", LOG_CONS | LOG_PID, LOG_USER);
    return 1;
}

int refreshDLogInterface() {
    if (shm_dlog_id == -1 || wordAddress() == nullptr) {
        return 0;
    }
    shmid_ds status{};
    const bool removed = shmctl(shm_dlog_id, IPC_STAT, &status) == -1 || (status.shm_perm.mode & SHM_DEST) != 0;
    if (!removed) {
        return 1;
    }
    const int id = shmget(DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t), IPC_CREAT | DLOG_SHARED_MEMORY_MODE);
    if (id == -1) {
        return refreshFailed("shmget()");
    }
    // The new word replaces the old one at the same address: a thread reading the word through the
    // pointer it already holds reads one or the other, never an unmapped page, and the old
    // attachment goes in the same step instead of piling up.
    void* address = shmat(id, shm_dlog_detail, SHM_REMAP);
    if (address == reinterpret_cast<void*>(-1)) {
        return refreshFailed("shmat()");
    }
    shm_dlog_id = id;
    refreshFailureReported.store(false);
    return 1;
}

int closeDLogInterface(bool keepSegment) {
    if (shm_dlog_detail == nullptr) {
        OVRA::consolePrintf("Error: In closeDLogInterface(), found that shared memory is not created\n");
        return 0;
    }
    if (shmdt(shm_dlog_detail) == -1) {
        OVRA::consolePrintf("Detachment of Shared Memory DLog from process address space, failed\n");
        return 0;
    }
    OVRA::syslogClose();
    if (!keepSegment && shmctl(shm_dlog_id, IPC_RMID, nullptr) == -1) {
        OVRA::consolePrintf("Marking for destruction of Shared Memory DLog, failed\n");
        return 0;
    }
    // The pointer is left as it is after detaching, as every process of the system does.
    return 1;
}

int checkDebugOn(std::uint64_t mask) {
    if (!attached()) {
        return 0;
    }
    return (word().load(std::memory_order_relaxed) & mask) == mask ? 1 : 0;
}

std::uint64_t debugBitsForCharacter(char character) {
    return isCommandCharacter(character) ? SET_TABLE[static_cast<unsigned char>(character)] : 0;
}

void setDebugBitsOn(const char* command) {
    if (command == nullptr || std::strlen(command) < 2 || !attached()) {
        return;
    }
    for (const char* c = command + 1; *c != '\0'; ++c) {
        if (isCommandCharacter(*c)) {
            word().fetch_or(SET_TABLE[static_cast<unsigned char>(*c)], std::memory_order_relaxed);
        } else {
            OVRA::consolePrintf("Warning! Invalid character in the arguments:%c\n", *c);
        }
    }
}

void setDebugBitsOff(const char* command) {
    if (command == nullptr || std::strlen(command) < 2 || !attached()) {
        return;
    }
    for (const char* c = command + 1; *c != '\0'; ++c) {
        if (isCommandCharacter(*c)) {
            word().fetch_and(CLEAR_TABLE[static_cast<unsigned char>(*c)], std::memory_order_relaxed);
        } else {
            OVRA::consolePrintf("Warning! Invalid character in the arguments:%c\n", *c);
        }
    }
}

void setDebugBits(const char* command) {
    if (command == nullptr) {
        return;
    }
    switch (command[0]) {
    case '+':
        setDebugBitsOn(command);
        break;
    case '-':
        setDebugBitsOff(command);
        break;
    case '0':
        resetDebugFlags();
        break;
    default:
        break;
    }
}

int resetDebugFlags() {
    if (!attached()) {
        return 0;
    }
    word().store(0, std::memory_order_relaxed);
    return 1;
}

int showDebugFlags() {
    if (!attached()) {
        return 0;
    }
    std::printf("Debug Flags in Hex Format:%lx\n", static_cast<unsigned long>(word().load(std::memory_order_relaxed)));
    return 1;
}

int printHelp() {
    std::printf("Dynamic Debug Help\n");
    std::printf("+ and - characters are used to add or remove debug flags\n");
    std::printf("+ and - character can not be used simultaneously i.e. only one at a time\n");
    std::printf("+ and - character should be at beginning e.g. +12 for enabling level 1 and 2 OR -3 for disabling "
                "level 3\n");
    std::printf("e.g. +AB for App 1 and App 2 OR -B2 will disable for App 2 and also level 2\n");
    std::printf("Reset all flags with 0 as first character\n");
    std::printf("---- App Listing mapped to Alpha Characters ------\n");
    std::printf("App 1 : A or a\n");
    std::printf("App 2 : B or b\n");
    return 1;
}

void resetProfilerStart() {
    clearBits(D_PROFILER_START);
}
void resetProfilerStop() {
    clearBits(D_PROFILER_STOP);
}
void resetProfilerTransfer() {
    clearBits(D_PROFILER_TRANSFER);
}
void resetHitchBallStart() {
    clearBits(D_HITCH_BALL_START);
}
void resetHitchBallStop() {
    clearBits(D_HITCH_BALL_STOP);
}
void resetDeleteAllFiles() {
    clearBits(D_DELETE_ALL_FILES);
}
void resetLiveStreamStart() {
    clearBits(D_LIVE_STREAM_START);
}
void resetLiveStreamStop() {
    clearBits(D_LIVE_STREAM_STOP);
}
void resetCalibrationStart() {
    clearBits(D_CALIBRATION_START);
}
void resetCalibrationStop() {
    clearBits(D_CALIBRATION_STOP);
}
void resetRecordingStart() {
    clearBits(D_RECORDING_START);
}
void resetRecordingStop() {
    clearBits(D_RECORDING_STOP);
}
