#pragma once

#include <csignal>
#include <vector>

// Turns signals into ordinary events: the main thread builds a set, blocks it before any other
// thread starts (so every thread inherits the block) and later waits for it synchronously; a
// thread that meets a fatal condition asks the whole process to stop with sendSignal(getpid(),
// SIGINT). Failures throw SignalHandlingException 1007 naming the call, errno and its text.
// Safe from any thread; the mask functions act on the calling thread only.
namespace OVRA {

// The signals that end a process in order: SIGINT as the system sends it, SIGTERM as service
// managers and a plain kill send it, SIGHUP as a closing terminal sends it.
inline const std::vector<int>& stopSignals() {
    static const std::vector<int> signals = {SIGINT, SIGTERM, SIGHUP};
    return signals;
}

// Blocks the stop signals in the calling thread and ignores SIGPIPE for the whole process, so that a
// write to a reader that went away fails with EPIPE instead of killing the process. Uses no heap
// and throws nothing, so a process may call it before anything else; false when a call failed.
bool blockStopSignalsAndIgnoreSigpipe() noexcept;

// True when the signal was sent or the target is already gone (ESRCH); never throws.
bool sendSignal(int processId, int signalNumber);

// Empties set, then adds every signal of signals in order.
void initSignalsMask(sigset_t& set, const std::vector<int>& signals);

// pthread_sigmask(how, set) for the calling thread; the old mask is not kept.
void setThreadSignalsMask(int how, const sigset_t& set);

void blockThreadSignals(const sigset_t& set);

// sigaction(signalNumber, action); the previous action is not kept.
void setSignalAction(int signalNumber, const struct sigaction& action);

} // namespace OVRA
