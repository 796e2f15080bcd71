#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "framework/ChannelReaderWriter.h"
#include "framework/FeatureAppOutput.h"

namespace OVRA {

// The algorithm object of a feature application. The host (FeatureApplication) gives it the
// channel to read from and the output to publish through before its workers start; each worker
// then calls run() in a loop: one completed input record, one featureAppRun on it, the record
// handed back. run() catches and logs everything at that boundary and keeps the statistics.
//
// run() may be called from several workers at once: the run and error counts are atomics,
// mStatisticsMutex guards the three durations. The stop request is atomic; the host sets it
// from the main thread while stopping, and a run that finds it set skips the algorithm.
template <typename T> class FeatureApplicationBase {
public:
    FeatureApplicationBase() = default;
    virtual ~FeatureApplicationBase() = default;

    FeatureApplicationBase(const FeatureApplicationBase&) = delete;
    FeatureApplicationBase& operator=(const FeatureApplicationBase&) = delete;

    // Called once by the host's init(), on the main thread, before any worker runs.
    virtual void initialize() = 0;
    // One run on a completed record; 0 for success.
    virtual std::uint32_t featureAppRun(const T& input, FeatureAppOutput& output) = 0;
    // Called once by the host's stop(), on the main thread, after the workers have ended.
    virtual void stopFeatureApp() = 0;

    // Waits for the next record, runs the algorithm on it (unless a stop was requested) and
    // releases it. Returns the algorithm's result; a run in which an exception was caught counts
    // as an error and returns non-zero (the exception's code, 1045 for other standard exceptions,
    // 1020 for a failed release, 1023 otherwise) unless the algorithm had already returned
    // non-zero.
    std::uint32_t run();

    void setChannel(ChannelReaderWriter<T>* channel) { mChannel.store(channel); }
    void setCommonMessageHandler(FeatureAppOutput* output) { mCommonMessageHandler.store(output); }
    FeatureAppOutput* getCommonMessageHandler() const { return mCommonMessageHandler.load(); }

    void requestStop() { mStopRequested.store(true); }
    bool isStopRequested() const { return mStopRequested.load(); }

    std::uint32_t getNumberOfRuns() const { return mNumberOfRuns.load(); }
    std::uint32_t getNumberOfErrors() const { return mNumberOfErrors.load(); }
    // Microseconds; 0 before the first measured run.
    std::uint64_t getShortestRun_us() const;
    std::uint64_t getLongestRun_us() const;
    std::uint64_t getTotalRunTime_us() const;

private:
    void recordDuration(std::uint64_t duration_us);
    std::uint32_t countError(std::uint32_t result, std::uint32_t errorResult);

    std::atomic<bool> mStopRequested{false};
    std::atomic<std::uint32_t> mNumberOfRuns{0};
    std::atomic<std::uint32_t> mNumberOfErrors{0};
    mutable std::mutex mStatisticsMutex;
    std::uint64_t mShortestRun_us = 0;  // guarded by mStatisticsMutex
    std::uint64_t mLongestRun_us = 0;   // guarded by mStatisticsMutex
    std::uint64_t mTotalRunTime_us = 0; // guarded by mStatisticsMutex
    std::uint32_t mMeasuredRuns = 0;    // guarded by mStatisticsMutex
    std::atomic<ChannelReaderWriter<T>*> mChannel{nullptr};
    std::atomic<FeatureAppOutput*> mCommonMessageHandler{nullptr};
};

} // namespace OVRA

#include "framework/detail/FeatureApplicationBase.inl"
