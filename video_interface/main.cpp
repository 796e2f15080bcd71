#include <csignal>
#include <cstdio>
#include <exception>
#include <pthread.h>
#include <thread>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "communication/OVRACommunicationUtils.h"
#include "framework/FeatureApplication.h"
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

// The profiling thread starts before main blocks SIGINT; it is started with SIGINT blocked all the
// same, so that an early SIGINT waits for the signal wait instead of ending the process.
void startProfileThread() {
    sigset_t interrupt;
    sigset_t previous;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &previous);
    profileThread = std::thread([] {
        pthread_setname_np(pthread_self(), "profile");
        OVRA::profile();
    });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void joinProfileThread() {
    OVRA::stopProfile();
    if (profileThread.joinable()) {
        profileThread.join();
    }
}

int runApplication() {
    sigset_t signals;
    OVRA::initSignalsMask(signals, {SIGINT});
    OVRA::blockThreadSignals(signals);

    static OVRA::VideoInterfacePipe pipe(PIPE_DEPTH, PIPE_CONSUMERS);
    pipe.setTriggerArmed(true);
    static OVRA::VideoInterfaceAlgorithmProxy proxy;
    pipe.setMessageListener(&proxy);

    OVRA::FeatureApplication<OVRA::VideoInterfaceInputAggregate_t> application(
        "vidapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, proxy, pipe, APPLICATION_THREADS);
    return application.main();
}

} // namespace

int main() {
    if (initDLogInterface() == 0) {
        std::fputs("Shared memory Initialization Failed. Exiting!!\n", stdout);
        return 0;
    }
    startProfileThread();

    int status = 1;
    bool logClientReady = false;
    try {
        static LogMessageClient logMessageClient("vidapp", OVRAAppVersion_t{101, 101, 1, 101101});
        logClientReady = true;
    } catch (...) {
        std::fputs("VideoInterfaceApplication main(): Unknown exception from videoInterfacelogMessageClient.\n",
                   stderr);
    }
    if (logClientReady) {
        try {
            status = runApplication();
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "%s", e.what());
            status = 1;
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "%s", e.what());
            status = 1;
        } catch (...) {
            ovraLogImplementErrorPrintf(UNEXPECTED_ERROR,
                                        "VideoInterfaceApplication.main(): general unexpected exception!");
            status = 1;
        }
    }
    joinProfileThread();
    return status;
}
