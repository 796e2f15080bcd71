#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <pthread.h>
#include <string>
#include <thread>

#include "common/InstanceLock.h"
#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "communication/OVRACommunicationUtils.h"
#include "framework/FeatureApplication.h"
#include "log/ConsoleOutput.h"
#include "log/DynamicDebug.h"
#include "log/LogMessageClient.h"
#include "log/OVRALogImplementPrintf.h"
#include "video_interface/Profile.h"
#include "video_interface/VideoInterfaceAlgorithmProxy.h"
#include "video_interface/VideoInterfacePipe.h"

namespace {

constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr unsigned short PIPE_DEPTH = 28;
constexpr unsigned short PIPE_CONSUMERS = 1;
constexpr std::uint16_t APPLICATION_THREADS = 1;

std::thread profileThread;

// The stop signals are blocked and SIGPIPE ignored before anything else happens (bin/vidapp does it
// even before this program's libraries load): every thread inherits the block, and a stop signal
// that arrives at any point of start-up stays pending until the signal wait, which it then ends at
// once, so the process still ends in order.
void blockStopSignals() {
    if (!OVRA::blockStopSignalsAndIgnoreSigpipe()) {
        std::fputs("vidapp: the stop signals could not be blocked\n", stderr);
    }
}

// Where an exception escaped a thread the process ends at once, without the destructors of the
// objects that the other threads still use; the frame segment it created goes all the same.
OVRA::VideoInterfaceAlgorithmProxy* frameSegmentOwner = nullptr;

void removeFrameSegmentAtQuickExit() {
    if (frameSegmentOwner != nullptr) {
        frameSegmentOwner->removeFrameSegment();
    }
}

void startProfileThread() {
    profileThread = std::thread([] {
        pthread_setname_np(pthread_self(), "profile");
        OVRA::profile();
    });
}

void joinProfileThread() {
    OVRA::stopProfile();
    if (profileThread.joinable()) {
        profileThread.join();
    }
}

// The exit status; failureReason gets what ended a failed start-up.
int runApplication(std::string& failureReason) {
    static OVRA::VideoInterfacePipe pipe(PIPE_DEPTH, PIPE_CONSUMERS);
    pipe.setTriggerArmed(true);
    static OVRA::VideoInterfaceAlgorithmProxy proxy;
    pipe.setMessageListener(&proxy);
    frameSegmentOwner = &proxy;
    std::at_quick_exit(removeFrameSegmentAtQuickExit);

    OVRA::FeatureApplication<OVRA::VideoInterfaceInputAggregate_t> application(
        "vidapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, proxy, pipe, APPLICATION_THREADS);
    const int status = application.main();
    failureReason = application.getStartupFailure();
    return status;
}

// The error records go to the system log only: an operator starting vidapp by hand learns from
// standard error why it ended with status 1.
void reportFailure(const std::string& reason) {
    if (reason.empty()) {
        OVRA::consoleErrorPrintf("vidapp: ended with status 1; the reasons are in the system log (OVRALogs)\n");
    } else {
        OVRA::consoleErrorPrintf("vidapp: start-up failed: %s\n", reason.c_str());
    }
}

} // namespace

int main() {
    blockStopSignals();
    // A second vidapp would share port 50427 and the frame segment with the first one, and remove the
    // segment under it at its exit: it is refused before it touches anything.
    OVRA::InstanceLock instanceLock("vidapp");
    if (std::string reason; !instanceLock.acquire(reason)) {
        std::fprintf(stderr, "vidapp: not started: %s\n", reason.c_str());
        return 1;
    }
    // From here on a slow reader of the console costs lines, never a wait.
    OVRA::setConsoleNeverWaits(true);
    if (initDLogInterface() == 0) {
        OVRA::consolePrintf("Shared memory Initialization Failed. Exiting!!\n");
        return 0;
    }
    startProfileThread();

    int status = 1;
    bool logClientReady = false;
    try {
        static LogMessageClient logMessageClient("vidapp", OVRAAppVersion_t{101, 101, 1, 101101});
        logClientReady = true;
    } catch (...) {
        OVRA::consoleErrorPrintf(
            "VideoInterfaceApplication main(): Unknown exception from videoInterfacelogMessageClient.\n");
    }
    if (logClientReady) {
        std::string failureReason;
        try {
            status = runApplication(failureReason);
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "%s", e.what());
            failureReason = e.what();
            status = 1;
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "%s", e.what());
            failureReason = e.what();
            status = 1;
        } catch (...) {
            ovraLogImplementErrorPrintf(UNEXPECTED_ERROR,
                                        "VideoInterfaceApplication.main(): general unexpected exception!");
            failureReason = "general unexpected exception";
            status = 1;
        }
        if (status == 1) {
            reportFailure(failureReason);
        }
    }
    joinProfileThread();
    OVRA::reportDroppedConsoleLines();
    return status;
}
