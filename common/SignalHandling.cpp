#include "common/SignalHandling.h"

#include <cerrno>
#include <cstring>
#include <pthread.h>

#include "common/OVRAException.h"

namespace {

constexpr std::uint32_t SIGNAL_ERROR = 1007;

[[noreturn]] void throwSignalError(const char* format, int error) {
    throw SignalHandlingException(SIGNAL_ERROR, formatExceptionText(format, error, std::strerror(error)).text);
}

} // namespace

namespace OVRA {

bool sendSignal(int processId, int signalNumber) {
    setErrno(0);
    if (kill(processId, signalNumber) != -1) {
        return true;
    }
    // A target that has already gone counts as reached.
    return getErrno() == ESRCH;
}

void initSignalsMask(sigset_t& set, const std::vector<int>& signals) {
    if (sigemptyset(&set) != 0) {
        throwSignalError("initSignalsMask(): sigemptyset errno: %d (%s)", errno);
    }
    for (const int signalNumber : signals) {
        if (sigaddset(&set, signalNumber) != 0) {
            throwSignalError("initSignalsMask(): sigaddset errno: %d (%s)", errno);
        }
    }
}

void setThreadSignalsMask(int how, const sigset_t& set) {
    const int result = pthread_sigmask(how, &set, nullptr);
    if (result != 0) {
        throwSignalError("setThreadSignalsMask(): pthread_sigmask errno: %d (%s)", result);
    }
}

void blockThreadSignals(const sigset_t& set) {
    setThreadSignalsMask(SIG_BLOCK, set);
}

bool blockStopSignalsAndIgnoreSigpipe() noexcept {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    const bool blocked = pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
    return sigaction(SIGPIPE, &ignore, nullptr) == 0 && blocked;
}

void setSignalAction(int signalNumber, const struct sigaction& action) {
    if (sigaction(signalNumber, &action, nullptr) < 0) {
        throwSignalError("setSignalAction(): sigaction errno: %d (%s)", errno);
    }
}

} // namespace OVRA
