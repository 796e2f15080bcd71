#include "log/OVRALogImplementPrintf.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/ConsoleOutput.h"
#include "log/DynamicDebug.h"
#include "log/LogError.h"

namespace OVRA {

const std::map<LogLevel_e, std::string> LOG_LEVEL_PREFIX = {
    {LOG_LEVEL_ERROR, "E: "}, {LOG_LEVEL_WARNING, "W: "}, {LOG_LEVEL_INFO, "I: "},
    {LOG_LEVEL_DEBUG, "D: "}, {LOG_LEVEL_VERBOSE, "V: "}, {LOG_LEVEL_PROFILE, "P: "},
};

const std::map<LogLevel_e, std::uint64_t> LOG_LEVEL_DEBUG_VALUE = {
    {LOG_LEVEL_ERROR, D_LOG_LEVEL_ERROR},     {LOG_LEVEL_WARNING, D_LOG_LEVEL_WARNING},
    {LOG_LEVEL_INFO, D_LOG_LEVEL_INFO},       {LOG_LEVEL_DEBUG, D_LOG_LEVEL_DEBUG},
    {LOG_LEVEL_VERBOSE, D_LOG_LEVEL_VERBOSE}, {LOG_LEVEL_PROFILE, D_LOG_LEVEL_PROFILE},
};

const std::map<std::string, std::uint64_t> APP_DEBUG_VALUE = {
    {"launch", 0x1},       {"extint", 0x2},        {"router", 0x4},        {"modmgr", 0x8},
    {"parkas", 0x10},      {"logmsg", 0x20},       {"utguid", 0x2000000},  {"ahifusn", 0x4000000},
    {"ahivis", 0x8000000}, {"hballd", 0x20000000}, {"localz", 0x40000000}, {"vidapp", 0x2000000000},
    {"udr", 0x8000000000},
};

const std::string APP_NAME = "vidapp";

} // namespace OVRA

namespace {

constexpr std::size_t PRINTF_BUFFER_SIZE = 1024;
constexpr std::size_t ERROR_BUFFER_SIZE = 128;

std::uint64_t readClockDivisor() {
    const char* text = std::getenv("CLOCK_DIVISOR");
    if (text == nullptr) {
        return 1;
    }
    // Read as the other processes of the system read it (std::stol, base 10): leading blanks and a
    // sign are taken, and whatever follows the number is ignored, so "1000\r" or "1000ms" is 1000.
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text || errno == ERANGE || value < 0) {
        OVRA::consoleErrorPrintf("CLOCK_DIVISOR=\"%s\" is not a non-negative decimal number: using 1\n", text);
        return 1;
    }
    if (*end != '\0') {
        OVRA::consoleErrorPrintf("CLOCK_DIVISOR=\"%s\" has text after its number: using %lld\n", text, value);
    }
    return static_cast<std::uint64_t>(value);
}

// "vidapp: " followed by the caller's message, formatted into buffer (cut at its size).
// Negative when the C library could not apply the format.
int formatWithAppName(char* buffer, std::size_t size, const char* format, va_list args) {
    const int opening = std::snprintf(buffer, size, "%s: ", OVRA::APP_NAME.c_str());
    int result = opening;
    if (opening >= 0 && static_cast<std::size_t>(opening) < size) {
        result = std::vsnprintf(buffer + opening, size - static_cast<std::size_t>(opening), format, args);
    }
    buffer[size - 1] = '\0';
    return result;
}

} // namespace

std::uint64_t getClockDivisor() {
    static const std::uint64_t divisor = readClockDivisor();
    return divisor;
}

std::uint64_t ovraSystemTimestamp_us() {
    static const std::uint64_t divisor = getClockDivisor();
    if (divisor == 0) {
        return 0;
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto nanoseconds =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    return nanoseconds / 1000 / divisor;
}

std::uint64_t ovraGetDebugMaxStringBufferLength() {
    return PRINTF_BUFFER_SIZE;
}

void ovraLogImplementPrintf(const char* format, OVRA::LogLevel_e level, ...) {
    const std::uint64_t mask = OVRA::APP_DEBUG_VALUE.at(OVRA::APP_NAME) | OVRA::LOG_LEVEL_DEBUG_VALUE.at(level);
    if (checkDebugOn(mask) == 0) {
        return;
    }
    char text[PRINTF_BUFFER_SIZE];
    va_list args;
    va_start(args, level);
    (void)formatWithAppName(text, sizeof text, format, args);
    va_end(args);
    ovraLogImplementString(text, level);
}

void ovraLogImplementErrorPrintf(std::uint32_t errorCode, const char* format, ...) {
    const std::uint64_t mask = OVRA::APP_DEBUG_VALUE.at(OVRA::APP_NAME) | D_LOG_LEVEL_ERROR;
    if (checkDebugOn(mask) == 0) {
        return;
    }
    char text[ERROR_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    const int length = formatWithAppName(text, sizeof text, format, args);
    va_end(args);
    if (length < 0) {
        std::strncpy(text, "Message not available: vsnprintf() failed", sizeof text - 1);
    }
    text[sizeof text - 1] = '\0';
    completeOVRALogError(errorCode, OVRALogMessage_t::TYPE_ERROR_MESSAGE, 0, text);
}
