#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "log/DynamicDebug.h"
#include "log/LogMessageClient.h"
#include "log/OVRALogImplementPrintf.h"

// What every fuzz target of vidapp shares: a flag word of its own (the machine's segment is never
// attached), standard output sent to /dev/null (the framework's debugging lines would dominate a
// run), and a log client that drops every record. Everything runs on libFuzzer's one thread.
//
// Logging is off unless VIDAPP_FUZZ_LOG=1 is in the environment: the word is 0, so no message is
// ever formatted. With it the word has this process's application bit and every level bit, and
// each message is formatted and handed to the dropping client, so the formatting paths are fuzzed
// as well.
namespace vidapp::fuzz {

// Drops every record the log front end produces; counts them, so that a run can show that
// logging was on.
class DiscardingLogClient : public LogMessageClient {
public:
    DiscardingLogClient() : LogMessageClient("vidapp", OVRAAppVersion_t{}) {}
    ~DiscardingLogClient() override {
        std::fprintf(stderr, "vidapp fuzz: %llu log records formatted and dropped\n", records);
    }
    DiscardingLogClient(const DiscardingLogClient&) = delete;
    DiscardingLogClient& operator=(const DiscardingLogClient&) = delete;

    void sendLogMessage(const OVRALogMessage_t* /*record*/) override { ++records; }

private:
    unsigned long long records = 0;
};

inline bool loggingRequested() {
    const char* value = std::getenv("VIDAPP_FUZZ_LOG");
    return value != nullptr && value[0] == '1';
}

inline std::uint64_t allLoggingBits() {
    return OVRA::APP_DEBUG_VALUE.at(OVRA::APP_NAME) | D_LOG_LEVEL_ERROR | D_LOG_LEVEL_WARNING | D_LOG_LEVEL_INFO |
           D_LOG_LEVEL_DEBUG | D_LOG_LEVEL_VERBOSE | D_LOG_LEVEL_PROFILE;
}

// The target's flag word; shm_dlog_detail points here once setUp() has run.
inline std::uint64_t& privateFlagWord() {
    static std::uint64_t word = 0;
    return word;
}

// The word's value for this run: 0, or every logging bit with VIDAPP_FUZZ_LOG=1.
inline std::uint64_t configuredFlagWord() {
    return loggingRequested() ? allLoggingBits() : 0;
}

// Once per process, before the first input: stdout to /dev/null, the private word attached, and
// the dropping log client installed when logging is on. Returns true so it can initialise a static.
inline bool setUp() {
    std::fflush(stdout);
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull >= 0) {
        (void)::dup2(devNull, STDOUT_FILENO);
        ::close(devNull);
    }
    privateFlagWord() = configuredFlagWord();
    shm_dlog_detail = &privateFlagWord();
    if (loggingRequested()) {
        static DiscardingLogClient client;
    }
    return true;
}

// Reports a broken invariant on standard error and aborts, which libFuzzer records as a crash
// together with the input.
[[noreturn]] inline void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fputs("fuzz invariant broken: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
    std::abort();
}

} // namespace vidapp::fuzz
