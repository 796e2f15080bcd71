#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "framework/Application.h"
#include "framework/ChannelReaderWriter.h"
#include "framework/FeatureApplicationBase.h"

namespace OVRA {

// The application host: an Application whose received messages go into a channel and whose
// worker threads ("ApplicationRun-1", ...) run the algorithm on each completed record.
//
// init() initialises the algorithm and starts the workers; stop() clears the running flag,
// wakes every worker through the channel's closeWrite, joins them, stops the algorithm and logs
// the trigger counts and run statistics. A worker whose runs have failed more than five times in
// all, or from which an exception escaped, asks for the process's orderly stop with SIGINT.
//
// init, start and stop run on the main thread, receiveMessage on the message hub's receive
// thread. mRunning is atomic (read by every worker); mAppThreads is touched by the main thread
// only. The destructor stops the hub and any worker still running, so an object that never went
// through stop() leaves no thread behind.
template <typename T> class FeatureApplication : public Application {
public:
    // Throws InvalidArgumentException 1071 for zero threads. The algorithm and the channel must
    // outlive the application.
    FeatureApplication(const std::string& applicationName, const std::string& channelName, std::uint16_t port,
                       FeatureApplicationBase<T>& algorithm, ChannelReaderWriter<T>& channel,
                       std::uint16_t numberOfAppThreads);
    ~FeatureApplication() override;

    void init() override;
    void start() override;
    void stop() override;
    // True exactly when the channel took the whole payload, which must not be empty.
    bool receiveMessage(const PDUMessage_t& message) override;

private:
    void featureAppThreadRun(std::uint16_t index);
    // Clears the running flag, wakes and joins every worker still running.
    void stopWorkers();

    // Starts true: workers serve until stopWorkers() clears it.
    std::atomic<bool> mRunning{true};
    FeatureApplicationBase<T>& mFeatureApp;
    ChannelReaderWriter<T>& mChannel;
    const std::uint16_t mNumberOfAppThreads;
    std::vector<std::thread> mAppThreads;
    const std::uint8_t mMaxErrorsBeforeShutdown = 5;
};

} // namespace OVRA

#include "framework/detail/FeatureApplication.inl"
