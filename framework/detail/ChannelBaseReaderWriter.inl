#pragma once

#include <cstddef>

#include "common/OVRAException.h"
#include "framework/ChannelBaseReaderWriter.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace channelDetail {

constexpr std::uint32_t WRITE_LOCK_ERROR = 1021;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;

} // namespace channelDetail

template <InputAggregate T>
ChannelBaseReaderWriter<T>::ChannelBaseReaderWriter(unsigned short bufferDepth, unsigned short numberOfConsumers)
    : mBuffer(bufferDepth, numberOfConsumers, false) {
    static_assert(offsetof(T, header) == 0, "an input record begins with its header");
    try {
        mCurrentRecord = mBuffer.lockWriteBuffer(0);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(channelDetail::WRITE_LOCK_ERROR, "ChannelBaseReaderWriter() ctor: %s", e.what());
    }
}

template <InputAggregate T> T* ChannelBaseReaderWriter<T>::currentRecord() {
    std::lock_guard<std::mutex> lock(mChannelMutex);
    return mCurrentRecord;
}

template <InputAggregate T> T* ChannelBaseReaderWriter<T>::read() {
    return mBuffer.lockReadBuffer(-1);
}

template <InputAggregate T> void ChannelBaseReaderWriter<T>::releaseReader() {
    mBuffer.releaseReadBuffer();
    std::lock_guard<std::mutex> lock(mChannelMutex);
    if (mCurrentRecord == nullptr) {
        lockNextRecord();
    }
}

template <InputAggregate T> void ChannelBaseReaderWriter<T>::lockNextRecord() {
    T* next = nullptr;
    try {
        next = mBuffer.lockWriteBuffer(0);
    } catch (const FunctionBufferTimeout&) {
        mCurrentRecord = nullptr;
        return;
    }
    // With a single slot the next record can be the previous one.
    if (mPreviousRecord != nullptr && next != mPreviousRecord) {
        next->header = mPreviousRecord->header;
    }
    mCurrentRecord = next;
}

template <InputAggregate T>
void ChannelBaseReaderWriter<T>::storeMessageStamp(InputAggregateHeader_t& header, const PDUMessage_t& message) {
    const std::uint32_t id = message.messageId;
    if (id >= FIRST_HOST_MESSAGE_ID && id <= LAST_HOST_MESSAGE_ID) {
        header.externalMessageTimestamps.at(id) = message.timestamp;
        header.externalMessageCounts.at(id) = message.count;
        return;
    }
    // Every other ID counts as internal by its low 31 bits, ID 0 included, as the other
    // processes of the system count them.
    const std::uint32_t index = id & ~INTERNAL_MESSAGE_FLAG;
    header.internalMessageTimestamps.at(index) = message.timestamp;
    header.internalMessageCounts.at(index) = message.count;
}

template <InputAggregate T> std::uint64_t ChannelBaseReaderWriter<T>::write(const PDUMessage_t& message) {
    T* record = currentRecord();
    if (record == nullptr) {
        return 0;
    }
    const std::uint64_t result = this->writeToBuffer(message);
    storeMessageStamp(record->header, message);
    if (mTriggered.exchange(false)) {
        mMessagesTracker.track(record->header.triggerMessageId);
        std::lock_guard<std::mutex> lock(mChannelMutex);
        mBuffer.releaseWriteBuffer();
        mPreviousRecord = record;
        lockNextRecord();
    }
    return result;
}

template <InputAggregate T> void ChannelBaseReaderWriter<T>::releaseWriter() {
    std::lock_guard<std::mutex> lock(mChannelMutex);
    if (mCurrentRecord != nullptr) {
        mBuffer.releaseWriteBuffer();
        mPreviousRecord = mCurrentRecord;
        mCurrentRecord = nullptr;
    }
}

template <InputAggregate T> void ChannelBaseReaderWriter<T>::closeWrite() {
    std::lock_guard<std::mutex> lock(mChannelMutex);
    if (mCurrentRecord != nullptr) {
        mBuffer.releaseWriteBuffer();
        mPreviousRecord = mCurrentRecord;
        mCurrentRecord = nullptr;
    }
    try {
        mBuffer.lockWriteBuffer(0);
    } catch (const FunctionBufferTimeout& e) {
        ovraLogImplementPrintf("closeWrite(): lock write exception:[%s]", LOG_LEVEL_DEBUG, e.what());
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(channelDetail::STANDARD_EXCEPTION_ERROR, "closeWrite(): lock write exception:[%s]",
                                    e.what());
    }
    try {
        mBuffer.releaseWriteBuffer();
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "closeWrite(): release write exception:[%s]", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(channelDetail::STANDARD_EXCEPTION_ERROR,
                                    "closeWrite(): release write exception:[%s]", e.what());
    }
}

} // namespace OVRA
