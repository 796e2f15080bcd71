#pragma once

// How the long-running tools end: SIGINT or SIGTERM (Ctrl-C, kill) read from a descriptor, so the
// tool stops its threads in order instead of dying in the middle of a line or a reply.

#include <chrono>
#include <optional>

namespace vidapp::tools {

// Owns a descriptor and closes it once.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : fd(descriptor) {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

// Blocks SIGINT and SIGTERM in the calling thread and reads them through a signalfd. Build it
// before any thread starts: threads inherit the mask, so the signals reach the descriptor only.
class StopSignals {
public:
    StopSignals();
    // False when the descriptor could not be made (errno tells why).
    bool ready() const { return signals.get() != -1; }

    // Waits for a stop signal, for wakeFd (-1: none) to become readable, or for the deadline.
    void wait(int wakeFd, const std::optional<std::chrono::steady_clock::time_point>& deadline) const;

private:
    FileDescriptor signals;
};

} // namespace vidapp::tools
