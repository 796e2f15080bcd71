#include "video_interface/Profile.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/stat.h>

#include <gperftools/profiler.h>

#include "common/SystemCall.h"
#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

std::atomic<bool> isProfile{true};

namespace {

constexpr std::chrono::seconds COMMAND_POLL_PERIOD{1};
constexpr const char* PROFILE_DIRECTORY = "tmp";

std::mutex stopMutex;
std::condition_variable stopCondition;
bool stopRequested = false; // stopMutex

bool waitForStop(std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(stopMutex);
    return stopCondition.wait_for(lock, timeout, [] { return stopRequested; });
}

std::string profileFileName() {
    // The process's clock divisor applies here too: with a divisor above 1 the name shows an early time.
    const auto seconds = static_cast<std::time_t>(ovraSystemTimestamp_us() / 1000000U);
    std::tm local{};
    char time[20] = {};
    if (localtime_r(&seconds, &local) != nullptr) {
        std::strftime(time, sizeof(time), "%Y-%m-%d_%H-%M-%S", &local);
    }
    char fileName[100] = {};
    std::snprintf(fileName, sizeof(fileName), "tmp/profile_app_video_interface_%s.log", time);
    return fileName;
}

void startRun() {
    const std::string fileName = profileFileName();
    // The profiler cannot create the directory of its file.
    if (retryOnEintr([] { return ::mkdir(PROFILE_DIRECTORY, 0777); }) != 0 && errno != EEXIST) {
        ovraLogImplementPrintf("profile(): cannot create directory [%s]: %s", LOG_LEVEL_WARNING, PROFILE_DIRECTORY,
                               std::strerror(errno));
    }
    if (ProfilerStart(fileName.c_str()) == 0) {
        ovraLogImplementPrintf("profile(): ProfilerStart(%s) failed", LOG_LEVEL_WARNING, fileName.c_str());
    }
}

} // namespace

void profilePass() {
    // One reading of the word per pass: with both commands set while idle, a run starts and stops
    // within the pass although starting clears the stop command in the word.
    const bool startCommand = checkDebugOn(D_PROFILER_START) != 0;
    const bool stopCommand = checkDebugOn(D_PROFILER_STOP) != 0;
    if (startCommand && isProfile.load()) {
        isProfile.store(false);
        resetProfilerStop();
        startRun();
    }
    if (stopCommand && !isProfile.load()) {
        isProfile.store(true);
        resetProfilerStart();
        ProfilerStop();
    }
}

void profile() {
    while (!waitForStop(COMMAND_POLL_PERIOD)) {
        profilePass();
    }
    if (!isProfile.load()) {
        // A run cut short by the process's end still leaves a complete file.
        ProfilerStop();
        isProfile.store(true);
    }
    std::lock_guard<std::mutex> lock(stopMutex);
    stopRequested = false;
}

void stopProfile() {
    {
        std::lock_guard<std::mutex> lock(stopMutex);
        stopRequested = true;
    }
    stopCondition.notify_all();
}

} // namespace OVRA
