#pragma once

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "framework/FeatureApplication.h"
#include "log/ConsoleOutput.h"
#include "log/LogError.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace featureApplicationDetail {

constexpr std::uint32_t INVALID_ARGUMENT_ERROR = 1071;
constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t SHUTDOWN_REQUEST_ERROR = 1206;
constexpr std::uint32_t FAILED_RUN_ERROR = 1301;
constexpr std::uint16_t ERROR_WITH_VALUE = 4;
// The system's limit for a thread name, without the terminating NUL.
constexpr std::size_t THREAD_NAME_CHARACTERS = 15;

inline std::uint16_t checkedThreads(std::uint16_t numberOfAppThreads) {
    if (numberOfAppThreads == 0) {
        throw InvalidArgumentException(INVALID_ARGUMENT_ERROR, "FeatureApplication() ctor: numAppThreads must be > 0");
    }
    return numberOfAppThreads;
}

inline void printRunningFlag(const char* text, bool running) {
    consolePrintf("%s%d\n", text, running ? 1 : 0);
}

} // namespace featureApplicationDetail

template <typename T>
FeatureApplication<T>::FeatureApplication(const std::string& applicationName, const std::string& channelName,
                                          std::uint16_t port, FeatureApplicationBase<T>& algorithm,
                                          ChannelReaderWriter<T>& channel, std::uint16_t numberOfAppThreads)
    : Application(applicationName, channelName, port), mFeatureApp(algorithm), mChannel(channel),
      mNumberOfAppThreads(featureApplicationDetail::checkedThreads(numberOfAppThreads)) {
    featureApplicationDetail::printRunningFlag("mRunning value at the start of scope", mRunning.load());
    mFeatureApp.setChannel(&mChannel);
    mFeatureApp.setCommonMessageHandler(&getCommonMessageHandler());
    featureApplicationDetail::printRunningFlag("mRunning value after mFeatureApp  ", mRunning.load());
    mAppThreads.reserve(mNumberOfAppThreads);
    featureApplicationDetail::printRunningFlag("mRunning value at the end of scope", mRunning.load());
}

template <typename T> FeatureApplication<T>::~FeatureApplication() {
    // The hub's thread calls receiveMessage: it ends before anything of this object goes.
    try {
        getCommonMessageHandler().stopCommonMsgHandler();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(featureApplicationDetail::STANDARD_EXCEPTION_ERROR,
                                    "~FeatureApplication(): commonMsgHandler: %s", e.what());
    }
    stopWorkers();
}

template <typename T> void FeatureApplication<T>::init() {
    const std::uint64_t startTime_us = ovraSystemTimestamp_us();
    mFeatureApp.initialize();
    ovraLogImplementPrintf("init(): FeatureApp initialized OK (initialize Time= %lu us)", LOG_LEVEL_INFO,
                           ovraSystemTimestamp_us() - startTime_us);
    if (!mAppThreads.empty()) {
        return;
    }
    for (std::uint16_t index = 0; index < mNumberOfAppThreads; ++index) {
        mAppThreads.emplace_back(&FeatureApplication::featureAppThreadRun, this, index);
    }
}

template <typename T> void FeatureApplication<T>::start() {}

template <typename T> bool FeatureApplication<T>::receiveMessage(const PDUMessage_t& message) {
    const std::uint64_t payloadSize = static_cast<std::uint64_t>(message.length) - PDU_LENGTH_FIELD_HEADER_BYTES;
    // A message without payload carries nothing the channel could take: it is dropped, and logged
    // as such, like one whose payload does not fit.
    return mChannel.write(message) == payloadSize && payloadSize != 0;
}

template <typename T> void FeatureApplication<T>::featureAppThreadRun(std::uint16_t index) {
    namespace detail = featureApplicationDetail;
    char threadName[32] = {};
    std::snprintf(threadName, sizeof(threadName), "ApplicationRun-%u", static_cast<unsigned>(index) + 1U);
    // "ApplicationRun-1" is one character over the system's limit: tools see the first 15.
    char systemName[detail::THREAD_NAME_CHARACTERS + 1] = {};
    std::snprintf(systemName, sizeof(systemName), "%s", threadName);
    pthread_setname_np(pthread_self(), systemName);
    try {
        ovraLogImplementPrintf("appThreadRun(): %s app thread started ... ", LOG_LEVEL_DEBUG, threadName);
        consolePrintf("inside featureAppThreadRun() \nmRunning value %d\n", mRunning.load() ? 1 : 0);
        while (mRunning.load()) {
            const std::uint32_t result = mFeatureApp.run();
            if (!mRunning.load()) {
                break;
            }
            if (result != 0) {
                completeOVRALogError(detail::FAILED_RUN_ERROR, detail::ERROR_WITH_VALUE, result, "");
                if (mFeatureApp.getNumberOfErrors() > mMaxErrorsBeforeShutdown) {
                    ovraLogImplementErrorPrintf(detail::SHUTDOWN_REQUEST_ERROR,
                                                "%s requesting shutdown due to exceptions",
                                                getApplicationName().c_str());
                    sendSignal(getpid(), SIGINT);
                }
            }
        }
        ovraLogImplementPrintf("featureAppThreadRun(): %s featureApp thread terminated OK.", LOG_LEVEL_DEBUG,
                               threadName);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "featureAppThreadRun(): %s", e.what());
        sendSignal(getpid(), SIGINT);
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(detail::STANDARD_EXCEPTION_ERROR, "featureAppThreadRun(): %s", e.what());
        sendSignal(getpid(), SIGINT);
    } catch (...) {
        ovraLogImplementErrorPrintf(detail::UNEXPECTED_ERROR, "featureAppThreadRun(): general unexpected exception");
        sendSignal(getpid(), SIGINT);
    }
}

template <typename T> void FeatureApplication<T>::stopWorkers() {
    mRunning.store(false);
    bool anyRunning = false;
    for (const std::thread& worker : mAppThreads) {
        anyRunning = anyRunning || worker.joinable();
    }
    if (anyRunning) {
        for (std::uint16_t index = 0; index < mNumberOfAppThreads; ++index) {
            mFeatureApp.requestStop();
            mChannel.closeWrite();
        }
    }
    for (std::thread& worker : mAppThreads) {
        if (worker.joinable()) {
            worker.join();
        }
    }
}

template <typename T> void FeatureApplication<T>::stop() {
    namespace detail = featureApplicationDetail;
    ovraLogImplementPrintf("stop(): stopping application thread(s) ...", LOG_LEVEL_DEBUG);
    stopWorkers();
    ovraLogImplementPrintf("stop(): app thread(s) terminated OK", LOG_LEVEL_DEBUG);
    try {
        mFeatureApp.stopFeatureApp();
        ovraLogImplementPrintf("stop(): feature app stopped OK", LOG_LEVEL_DEBUG);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "%s: feature app stop() exception:[%s]", getApplicationName().c_str(),
                                    e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(detail::STANDARD_EXCEPTION_ERROR, "%s: feature app stop() exception:[%s]",
                                    getApplicationName().c_str(), e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(detail::UNEXPECTED_ERROR, "feature app stop() unexpected exception!");
    }

    const MessagesTracker& tracker = mChannel.getMessagesTracker();
    ovraLogImplementPrintf("#Triggering Host Messages = [%lu]", LOG_LEVEL_DEBUG, tracker.getHostMessagesTracked());
    const auto& hostMessages = tracker.getHostMessages();
    tracker.logTrackedMessages(getApplicationName(), hostMessages.data(), hostMessages.data() + hostMessages.size());
    ovraLogImplementPrintf("#Triggering Internal Messages = [%lu]", LOG_LEVEL_DEBUG,
                           tracker.getInternalMessagesTracked());
    const auto& internalMessages = tracker.getInternalMessages();
    tracker.logTrackedMessages(getApplicationName(), internalMessages.data(),
                               internalMessages.data() + internalMessages.size());

    const std::uint32_t runs = mFeatureApp.getNumberOfRuns();
    const double cadence_ms = runs == 0 ? 0.0 : static_cast<double>(mFeatureApp.getTotalRunTime_us()) / runs / 1000.0;
    // The first letter of the line has always been missing; log readers match it so.
    ovraLogImplementPrintf(
        "eatureAppRun() #runs= %u, #errors= %u, cadence= %.2f ms (shortest run= %.2f ms, Longest run= %.2f ms)",
        LOG_LEVEL_DEBUG, runs, mFeatureApp.getNumberOfErrors(), cadence_ms,
        static_cast<double>(mFeatureApp.getShortestRun_us()) / 1000.0,
        static_cast<double>(mFeatureApp.getLongestRun_us()) / 1000.0);
    ovraLogImplementPrintf("stop(): OK", LOG_LEVEL_DEBUG);
}

} // namespace OVRA
