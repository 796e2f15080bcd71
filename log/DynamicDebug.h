#pragma once

#include <cstdint>

// The system-wide debug flag word: 64 bits in a System V shared memory segment that every process
// of the system attaches. Application bits and level bits switch logging on at run time; command
// bits are one-shot latches that an operator sets and the obeying process clears.
// All functions may be called from any thread; accesses to the word are single atomic operations
// (other processes change it without any lock).

// Key, size and mode of the segment, fixed for the whole system.
constexpr int DLOG_SHARED_MEMORY_KEY = 0x6163817;
constexpr unsigned DLOG_SHARED_MEMORY_MODE = 0666;

// Command latches.
constexpr std::uint64_t D_PROFILER_START = 0x0010000000000000ULL;    // bit 52
constexpr std::uint64_t D_PROFILER_STOP = 0x0020000000000000ULL;     // bit 53
constexpr std::uint64_t D_PROFILER_TRANSFER = 0x0040000000000000ULL; // bit 54
constexpr std::uint64_t D_HITCH_BALL_START = 0x0080000000000000ULL;  // bit 55
constexpr std::uint64_t D_HITCH_BALL_STOP = 0x0100000000000000ULL;   // bit 56
constexpr std::uint64_t D_DELETE_ALL_FILES = 0x0200000000000000ULL;  // bit 57
// These six share bit 63 with the profile level and bits 0 to 5 with the first applications;
// other processes decode them so, so the overlap stays.
constexpr std::uint64_t D_LIVE_STREAM_START = 0x8000000000000001ULL;
constexpr std::uint64_t D_LIVE_STREAM_STOP = 0x8000000000000002ULL;
constexpr std::uint64_t D_CALIBRATION_START = 0x8000000000000004ULL;
constexpr std::uint64_t D_CALIBRATION_STOP = 0x8000000000000008ULL;
constexpr std::uint64_t D_RECORDING_START = 0x8000000000000010ULL;
constexpr std::uint64_t D_RECORDING_STOP = 0x8000000000000020ULL;

// Log level bits, levels 1 (error) to 6 (profile).
constexpr std::uint64_t D_LOG_LEVEL_ERROR = 0x0400000000000000ULL;   // bit 58
constexpr std::uint64_t D_LOG_LEVEL_WARNING = 0x0800000000000000ULL; // bit 59
constexpr std::uint64_t D_LOG_LEVEL_INFO = 0x1000000000000000ULL;    // bit 60
constexpr std::uint64_t D_LOG_LEVEL_DEBUG = 0x2000000000000000ULL;   // bit 61
constexpr std::uint64_t D_LOG_LEVEL_VERBOSE = 0x4000000000000000ULL; // bit 62
constexpr std::uint64_t D_LOG_LEVEL_PROFILE = 0x8000000000000000ULL; // bit 63

// Segment identifier and the attached word; null while not attached. A test or a fuzz target may
// point shm_dlog_detail at a word of its own.
extern int shm_dlog_id;
extern std::uint64_t* shm_dlog_detail;

// Gets or creates the segment, attaches it and opens the system log as "OVRALogs". 1 or 0.
int initDLogInterface();
// When the attached segment has been marked for removal (an operator removed the word), attaches
// the key's current segment instead, creating it when absent, so that the process follows the
// word that the operator tools now use: a fresh word is 0, and logging falls silent. Called once a
// second by the process's command poll. 1 when a word is attached afterwards, 0 otherwise.
int refreshDLogInterface();
// Detaches and closes the system log; unless keepSegment, marks the segment for removal. 1 or 0.
int closeDLogInterface(bool keepSegment);

// 1 when every bit of mask is set in the word (a mask of 0 is always on), 0 otherwise.
int checkDebugOn(std::uint64_t mask);

// Applies one command string: "+..." sets, "-..." clears, "0..." resets; anything else is ignored.
void setDebugBits(const char* command);
void setDebugBitsOn(const char* command);
void setDebugBitsOff(const char* command);

int resetDebugFlags();
int showDebugFlags();
int printHelp();

// The bits a command character selects: 0 for a character outside the tables.
std::uint64_t debugBitsForCharacter(char character);

void resetProfilerStart();
void resetProfilerStop();
void resetProfilerTransfer();
void resetHitchBallStart();
void resetHitchBallStop();
void resetDeleteAllFiles();
void resetLiveStreamStart();
void resetLiveStreamStop();
void resetCalibrationStart();
void resetCalibrationStop();
void resetRecordingStart();
void resetRecordingStop();
