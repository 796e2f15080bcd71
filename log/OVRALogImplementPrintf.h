#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "log/LogLevel.h"

// The log front end. A message is produced only when the debug flag word has both this process's
// application bit and the level's bit set; the check comes before any formatting, so a suppressed
// message costs two look-ups and one read of the word. Callable from any thread.

namespace OVRA {

// "E: " to "P: ".
extern const std::map<LogLevel_e, std::string> LOG_LEVEL_PREFIX;
// The level's bit in the flag word (bits 58 to 63).
extern const std::map<LogLevel_e, std::uint64_t> LOG_LEVEL_DEBUG_VALUE;
// Application short name to its bit in the flag word.
extern const std::map<std::string, std::uint64_t> APP_DEBUG_VALUE;
// This process's short name: selects its application bit and opens every message text.
extern const std::string APP_NAME;

} // namespace OVRA

// A printf-style message at the given level. Throws std::out_of_range for a level outside 1..6.
void ovraLogImplementPrintf(const char* format, OVRA::LogLevel_e level, ...) __attribute__((format(printf, 1, 3)));

// An error message with a numeric code, at the error level; it becomes an error record only
// (nothing on standard output). The text is cut at 127 characters.
void ovraLogImplementErrorPrintf(std::uint32_t errorCode, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

std::uint64_t ovraGetDebugMaxStringBufferLength();

// Wall-clock microseconds divided by the process clock divisor.
std::uint64_t ovraSystemTimestamp_us();

// The process clock divisor: the decimal value of "CLOCK_DIVISOR", read once per process; 1 when
// the variable is absent, or (after one warning on standard error) when it is not a non-negative
// decimal number. 0 makes every time stamp 0.
std::uint64_t getClockDivisor();

#include "log/OVRALogImplementString.h"
