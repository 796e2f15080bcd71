#pragma once

#include <stdexcept>

#include "common/OVRAException.h"
#include "framework/FeatureApplicationBase.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace featureApplicationBaseDetail {

constexpr std::uint32_t RELEASE_ERROR = 1020;
constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t NO_OUTPUT_ERROR = 1064;

// An exception's code as a run result; never 0, so a failed run always reads as one.
inline std::uint32_t resultOf(const OVRAException& e) {
    return e.getCode() != 0 ? e.getCode() : UNEXPECTED_ERROR;
}

} // namespace featureApplicationBaseDetail

template <typename T> std::uint32_t FeatureApplicationBase<T>::run() {
    namespace detail = featureApplicationBaseDetail;
    std::uint32_t result = 0;
    try {
        ChannelReaderWriter<T>* channel = mChannel.load();
        if (channel == nullptr) {
            throw std::logic_error("no channel set");
        }
        const T* record = channel->read();
        if (!mStopRequested.load()) {
            const std::uint64_t startTime_us = ovraSystemTimestamp_us();
            FeatureAppOutput* output = mCommonMessageHandler.load();
            if (output == nullptr) {
                ovraLogImplementErrorPrintf(detail::NO_OUTPUT_ERROR,
                                            "FeatureAppBase.run(): mCommonMessageHandlerPtr is null");
            } else {
                try {
                    result = featureAppRun(*record, *output);
                    mNumberOfRuns.fetch_add(1);
                } catch (const OVRAException& e) {
                    ovraLogImplementErrorPrintf(e.getCode(), "FeatureAppBase.run(): algo run: %s", e.what());
                    result = countError(result, detail::resultOf(e));
                } catch (const std::exception& e) {
                    ovraLogImplementErrorPrintf(detail::STANDARD_EXCEPTION_ERROR, "FeatureAppBase.run(): algo run: %s",
                                                e.what());
                    result = countError(result, detail::STANDARD_EXCEPTION_ERROR);
                } catch (...) {
                    ovraLogImplementErrorPrintf(detail::UNEXPECTED_ERROR,
                                                "FeatureAppBase.run(): algo run unexpected exception!");
                    result = countError(result, detail::UNEXPECTED_ERROR);
                }
            }
            recordDuration(ovraSystemTimestamp_us() - startTime_us);
        }
        try {
            channel->releaseReader();
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "FeatureAppBase.run(): release: %s", e.what());
            result = countError(result, detail::resultOf(e));
        } catch (const std::exception& e) {
            // The leading blank is part of the line as log readers know it.
            ovraLogImplementErrorPrintf(detail::RELEASE_ERROR, " FeatureAppBase.run(): release: %s", e.what());
            result = countError(result, detail::RELEASE_ERROR);
        }
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "FeatureAppBase.run(): pipe exception: %s", e.what());
        result = countError(result, detail::resultOf(e));
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(detail::STANDARD_EXCEPTION_ERROR, "FeatureAppBase.run(): pipe exception: %s",
                                    e.what());
        result = countError(result, detail::STANDARD_EXCEPTION_ERROR);
    } catch (...) {
        ovraLogImplementErrorPrintf(detail::UNEXPECTED_ERROR, "FeatureAppBase.run(): unexpected pipe exception!");
        result = countError(result, detail::UNEXPECTED_ERROR);
    }
    return result;
}

template <typename T>
std::uint32_t FeatureApplicationBase<T>::countError(std::uint32_t result, std::uint32_t errorResult) {
    mNumberOfErrors.fetch_add(1);
    return result != 0 ? result : errorResult;
}

template <typename T> void FeatureApplicationBase<T>::recordDuration(std::uint64_t duration_us) {
    std::lock_guard<std::mutex> lock(mStatisticsMutex);
    if (duration_us > mLongestRun_us) {
        mLongestRun_us = duration_us;
    }
    mTotalRunTime_us += duration_us;
    if (mMeasuredRuns == 0 || duration_us < mShortestRun_us) {
        mShortestRun_us = duration_us;
    }
    ++mMeasuredRuns;
}

template <typename T> std::uint64_t FeatureApplicationBase<T>::getShortestRun_us() const {
    std::lock_guard<std::mutex> lock(mStatisticsMutex);
    return mShortestRun_us;
}

template <typename T> std::uint64_t FeatureApplicationBase<T>::getLongestRun_us() const {
    std::lock_guard<std::mutex> lock(mStatisticsMutex);
    return mLongestRun_us;
}

template <typename T> std::uint64_t FeatureApplicationBase<T>::getTotalRunTime_us() const {
    std::lock_guard<std::mutex> lock(mStatisticsMutex);
    return mTotalRunTime_us;
}

} // namespace OVRA
