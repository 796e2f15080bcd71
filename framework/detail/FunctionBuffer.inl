#pragma once

#include <chrono>

#include "common/OVRAException.h"
#include "framework/FunctionBuffer.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace functionBufferDetail {

constexpr std::uint32_t READ_LOCK_ERROR = 1019;
constexpr std::uint32_t CONSUMERS_REMAINING_ERROR = 1020;
constexpr std::uint32_t WRITE_LOCK_TIMEOUT = 1021;
constexpr std::uint32_t WRITE_LOCK_ERROR = 1022;
constexpr std::uint32_t INVALID_ARGUMENT_ERROR = 1071;
constexpr std::uint32_t TOO_MANY_CONSUMERS_ERROR = 1107;

inline std::uint16_t checkedDepth(unsigned short bufferDepth) {
    if (bufferDepth == 0) {
        throw InvalidArgumentException(INVALID_ARGUMENT_ERROR, "FunctionBuffer(): bufferDepth must be > 0");
    }
    return bufferDepth;
}

inline std::uint16_t checkedConsumers(unsigned short numberOfRegisteredConsumers) {
    if (numberOfRegisteredConsumers == 0) {
        throw InvalidArgumentException(INVALID_ARGUMENT_ERROR,
                                       "FunctionBuffer(): numberOfRegisteredConsumers must be > 0");
    }
    return numberOfRegisteredConsumers;
}

} // namespace functionBufferDetail

// The members are initialised in declaration order, so the depth is checked before the consumers.
template <typename T>
FunctionBuffer<T>::FunctionBuffer(unsigned short bufferDepth, unsigned short numberOfRegisteredConsumers,
                                  bool everyConsumerReadsAll)
    : mBufferDepth(functionBufferDetail::checkedDepth(bufferDepth)),
      mNumberOfRegisteredConsumers(functionBufferDetail::checkedConsumers(numberOfRegisteredConsumers)),
      mEveryConsumerReadsAll(everyConsumerReadsAll),
      mConsumersPerSlot(everyConsumerReadsAll ? numberOfRegisteredConsumers : std::uint16_t{1}), mBuffer(bufferDepth),
      mReadIndex(everyConsumerReadsAll ? numberOfRegisteredConsumers : 1, 0),
      mCurrentSlot(numberOfRegisteredConsumers, 0), mConsumersRemaining(bufferDepth, 0),
      mHasReadLock(numberOfRegisteredConsumers, false), mAvailable(numberOfRegisteredConsumers, 0),
      mFreeSlots(bufferDepth), mConsumerThreads(numberOfRegisteredConsumers, pthread_t{}) {}

template <typename T> T* FunctionBuffer<T>::lockWriteBuffer(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mWriterActive) {
        throw FunctionBufferException(functionBufferDetail::WRITE_LOCK_ERROR, "lock write buffer");
    }
    mWriterActive = true;
    if (!waitUntilReady(lock, mWritersCondition, timeoutMs, [this] { return mConsumersRemaining[mWriteIndex] == 0; })) {
        mWriterActive = false;
        throw FunctionBufferTimeout(functionBufferDetail::WRITE_LOCK_TIMEOUT, "Write lock");
    }
    mConsumersRemaining[mWriteIndex] = mConsumersPerSlot;
    return &mBuffer[mWriteIndex];
}

template <typename T> void FunctionBuffer<T>::releaseWriteBuffer() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mWriterActive) {
        return;
    }
    if (mEveryConsumerReadsAll) {
        for (std::uint16_t& available : mAvailable) {
            ++available;
        }
    } else {
        ++mAvailable[0];
    }
    --mFreeSlots;
    mWriteIndex = static_cast<std::uint16_t>((mWriteIndex + 1) % mBufferDepth);
    const auto filled = static_cast<std::uint16_t>(mBufferDepth - mFreeSlots);
    if (filled > mHighWaterMark) {
        mHighWaterMark = filled;
        mHighWaterTime_ms = ovraSystemTimestamp_us() / 1000;
    }
    mReadersCondition.notify_all();
    mWriterActive = false;
}

template <typename T> T* FunctionBuffer<T>::lockReadBuffer(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mMutex);
    const std::size_t consumer = identifyConsumer();
    if (mHasReadLock[consumer]) {
        throw FunctionBufferException(functionBufferDetail::READ_LOCK_ERROR, "lock read buffer");
    }
    mHasReadLock[consumer] = true;

    // In shared mode every consumer takes from queue 0.
    const std::size_t queue = mEveryConsumerReadsAll ? consumer : 0;
    if (!waitUntilReady(lock, mReadersCondition, timeoutMs, [this, queue] { return mAvailable[queue] > 0; })) {
        // Shared mode clears consumer 0's mark rather than the caller's; the two agree for the
        // single consumer this process runs, and the behaviour is kept as it always was.
        mHasReadLock[queue] = false;
        throw FunctionBufferTimeout(functionBufferDetail::READ_LOCK_ERROR, "Read lock");
    }
    mCurrentSlot[consumer] = mReadIndex[queue];
    mReadIndex[queue] = static_cast<std::uint16_t>((mReadIndex[queue] + 1) % mBufferDepth);
    --mAvailable[queue];
    return &mBuffer[mCurrentSlot[consumer]];
}

template <typename T> void FunctionBuffer<T>::releaseReadBuffer() {
    std::lock_guard<std::mutex> lock(mMutex);
    const std::size_t consumer = identifyConsumer();
    if (!mHasReadLock[consumer]) {
        return;
    }
    std::uint16_t& remaining = mConsumersRemaining[mCurrentSlot[consumer]];
    if (remaining == 0) {
        throw FunctionBufferException(functionBufferDetail::CONSUMERS_REMAINING_ERROR,
                                      "decr mConsumersRemaining past 0");
    }
    --remaining;
    if (remaining == 0) {
        mWritersCondition.notify_all();
        ++mFreeSlots;
    }
    mHasReadLock[consumer] = false;
}

template <typename T> std::uint16_t FunctionBuffer<T>::getBufferDepth() const {
    return mBufferDepth;
}

template <typename T> std::uint16_t FunctionBuffer<T>::getNumberOfRegisteredConsumers() const {
    return mNumberOfRegisteredConsumers;
}

template <typename T> std::uint16_t FunctionBuffer<T>::getFreeSlots() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mFreeSlots;
}

template <typename T> std::uint16_t FunctionBuffer<T>::getHighWaterMark() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mHighWaterMark;
}

template <typename T> std::uint64_t FunctionBuffer<T>::getHighWaterTime_ms() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mHighWaterTime_ms;
}

template <typename T> std::size_t FunctionBuffer<T>::identifyConsumer() {
    const pthread_t self = pthread_self();
    for (std::size_t index = 0; index < mConsumerThreads.size(); ++index) {
        if (mConsumerThreads[index] == pthread_t{}) {
            mConsumerThreads[index] = self;
            return index;
        }
        if (pthread_equal(mConsumerThreads[index], self) != 0) {
            return index;
        }
    }
    throw FunctionBufferException(functionBufferDetail::TOO_MANY_CONSUMERS_ERROR, "Too many consumers");
}

// The deadline is on the system clock. A wake at or after it fails even when the condition became
// true at that very moment.
template <typename T>
template <typename Ready>
bool FunctionBuffer<T>::waitUntilReady(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
                                       int timeoutMs, Ready ready) {
    if (timeoutMs < 0) {
        condition.wait(lock, ready);
        return true;
    }
    const auto deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(timeoutMs);
    if (ready()) {
        return true;
    }
    // A zero timeout fails here without letting go of the mutex.
    if (std::chrono::system_clock::now() >= deadline) {
        return false;
    }
    do {
        condition.wait_until(lock, deadline);
        if (std::chrono::system_clock::now() >= deadline) {
            return false;
        }
    } while (!ready());
    return true;
}

} // namespace OVRA
