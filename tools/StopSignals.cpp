#include "tools/StopSignals.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "common/SignalHandling.h"

namespace vidapp::tools {

namespace {

int blockedStopSignals() {
    sigset_t stopSignals;
    OVRA::initSignalsMask(stopSignals, {SIGINT, SIGTERM});
    OVRA::blockThreadSignals(stopSignals);
    return signalfd(-1, &stopSignals, SFD_CLOEXEC);
}

// Milliseconds left until deadline for poll(): at least 1 while time is left, at most INT_MAX.
int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) {
        return 0;
    }
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<long long>(milliseconds, INT_MAX));
}

} // namespace

FileDescriptor::~FileDescriptor() {
    if (fd >= 0) {
        close(fd);
    }
}

StopSignals::StopSignals() : signals(blockedStopSignals()) {}

void StopSignals::wait(int wakeFd, const std::optional<std::chrono::steady_clock::time_point>& deadline) const {
    pollfd watched[2] = {{signals.get(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
    for (;;) {
        const int timeout = deadline ? millisecondsUntil(*deadline) : -1;
        if (deadline && timeout == 0) {
            return;
        }
        const int ready = poll(watched, wakeFd == -1 ? 1 : 2, timeout);
        if (ready == -1) {
            if (errno == EINTR) {
                continue;
            }
            std::fprintf(stderr, "%s: poll() failed: %s\n", program_invocation_short_name, std::strerror(errno));
            return;
        }
        if (ready > 0) {
            return;
        }
    }
}

} // namespace vidapp::tools
