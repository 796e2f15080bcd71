#include "log/ConsoleOutput.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/SystemCall.h"

namespace OVRA {

namespace {

constexpr std::size_t LINE_SIZE = 2048;

// One of the two streams in never-wait mode. A pipe gets a descriptor of its own opened with
// O_NONBLOCK (through /proc/self/fd: a new open file description of the same pipe), so the shell's
// description stays as it was; a socket is sent to with MSG_DONTWAIT; anything else (a terminal, a
// file) is written once poll() says it takes data.
struct Stream {
    int fd = -1;
    FILE* file = nullptr;
    int nonBlockingFd = -1;
    bool socket = false;
    std::uint64_t dropped = 0;
    std::uint64_t reported = 0;
};

struct Console {
    std::mutex mutex;
    bool neverWaits = false; // mutex
    Stream out{STDOUT_FILENO, stdout};
    Stream err{STDERR_FILENO, stderr};
};

Console& console() {
    static Console instance;
    return instance;
}

void prepare(Stream& stream) {
    struct stat status {};
    if (::fstat(stream.fd, &status) != 0) {
        return;
    }
    stream.socket = S_ISSOCK(status.st_mode);
    if (S_ISFIFO(status.st_mode) && stream.nonBlockingFd < 0) {
        char path[32];
        std::snprintf(path, sizeof(path), "/proc/self/fd/%d", stream.fd);
        stream.nonBlockingFd = ::open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    }
}

// The whole of text, or nothing when the stream would wait (or has no reader any more).
bool writeNow(const Stream& stream, const char* text, std::size_t length) {
    if (length == 0) {
        return true;
    }
    ssize_t written = -1;
    if (stream.nonBlockingFd >= 0) {
        // Up to PIPE_BUF bytes go into a pipe whole or not at all.
        if (length > PIPE_BUF) {
            return false;
        }
        written = retryOnEintr([&] { return ::write(stream.nonBlockingFd, text, length); });
    } else if (stream.socket) {
        written = retryOnEintr([&] { return ::send(stream.fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL); });
    } else {
        pollfd ready{stream.fd, POLLOUT, 0};
        if (retryOnEintr([&] { return ::poll(&ready, 1, 0); }) != 1 || (ready.revents & POLLOUT) == 0) {
            return false;
        }
        written = retryOnEintr([&] { return ::write(stream.fd, text, length); });
    }
    return written == static_cast<ssize_t>(length);
}

void reportDropped(Stream& stream) {
    if (stream.dropped == stream.reported) {
        return;
    }
    char report[128];
    const int length = std::snprintf(report, sizeof(report),
                                     "vidapp: %" PRIu64 " console lines dropped: the reader was not keeping up\n",
                                     stream.dropped - stream.reported);
    if (writeNow(stream, report, static_cast<std::size_t>(length))) {
        stream.reported = stream.dropped;
    }
}

void emit(Stream& stream, const char* text, std::size_t length) {
    Console& state = console();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.neverWaits) {
        std::fwrite(text, 1, length, stream.file);
        std::fflush(stream.file);
        return;
    }
    reportDropped(stream);
    if (stream.dropped != stream.reported || !writeNow(stream, text, length)) {
        ++stream.dropped;
    }
}

void emitFormatted(Stream& stream, const char* format, va_list args) {
    char text[LINE_SIZE];
    const int length = std::vsnprintf(text, sizeof(text), format, args);
    if (length < 0) {
        return;
    }
    emit(stream, text, std::min(static_cast<std::size_t>(length), sizeof(text) - 1));
}

} // namespace

void setConsoleNeverWaits(bool neverWaits) {
    Console& state = console();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (neverWaits) {
        std::fflush(stdout);
        std::fflush(stderr);
        prepare(state.out);
        prepare(state.err);
    }
    state.neverWaits = neverWaits;
}

void consoleLine(const char* text) {
    char line[LINE_SIZE];
    const int length = std::snprintf(line, sizeof(line), "%s\n", text);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof(line)) {
        emit(console().out, line, static_cast<std::size_t>(length));
        return;
    }
    // Longer than a line buffer: in two writes.
    emit(console().out, text, std::strlen(text));
    emit(console().out, "\n", 1);
}

void consolePrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emitFormatted(console().out, format, args);
    va_end(args);
}

void consoleErrorPrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emitFormatted(console().err, format, args);
    va_end(args);
}

void reportDroppedConsoleLines() {
    Console& state = console();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.neverWaits) {
        reportDropped(state.out);
        reportDropped(state.err);
    }
}

std::uint64_t droppedConsoleLines() {
    Console& state = console();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.out.dropped + state.err.dropped;
}

} // namespace OVRA
