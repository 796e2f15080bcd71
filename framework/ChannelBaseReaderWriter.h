#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "communication/MessagesTracker.h"
#include "communication/OVRACommunicationUtils.h"
#include "framework/ChannelReaderWriter.h"
#include "framework/FunctionBuffer.h"
#include "framework/InputAggregateHeader.h"

namespace OVRA {

// The buffering every pipe shares: a FunctionBuffer of records in which the consumers share one
// queue (each record goes to exactly one worker), the record currently being filled, and the
// header bookkeeping of every message written.
//
// The receive thread calls write(); it never blocks: every write lock is taken with timeout 0,
// and while every slot is held by the workers there is no current record and write() drops the
// message (returns 0). The first releaseReader() after that locks a slot again, so writing
// resumes as soon as one is free. A new record starts with a copy of the previous record's
// header. Workers call read() and releaseReader(); the owner calls closeWrite() while stopping.
//
// mChannelMutex guards the two record pointers and is always taken before the buffer's own
// mutex, never while waiting for a record. The record being filled belongs to the receive
// thread. The tracker is written by the receive thread only; read it once writing has stopped.
template <InputAggregate T> class ChannelBaseReaderWriter : public ChannelReaderWriter<T> {
public:
    ChannelBaseReaderWriter(unsigned short bufferDepth, unsigned short numberOfConsumers);
    ~ChannelBaseReaderWriter() override = default;

    ChannelBaseReaderWriter(const ChannelBaseReaderWriter&) = delete;
    ChannelBaseReaderWriter& operator=(const ChannelBaseReaderWriter&) = delete;

    T* read() override;
    // Throws what the buffer throws; a busy buffer is not an error.
    void releaseReader() override;
    // Hands the message to the pipe's writeToBuffer, records its time stamp and count in the
    // header and, when the pipe has triggered, hands the record over. Returns the pipe's result,
    // 0 when no record is held. An internal ID above 0x80000032 (or 0x00000033..0x7fffffff)
    // throws std::out_of_range after the pipe has taken the payload.
    std::uint64_t write(const PDUMessage_t& message) override;
    void releaseWriter() override;
    // Releases the record being filled, then pushes one more, so that a worker blocked in read()
    // wakes up. Failures are logged.
    void closeWrite() override;

    const MessagesTracker& getMessagesTracker() const override { return mMessagesTracker; }
    const FunctionBuffer<T>& getFunctionBuffer() const { return mBuffer; }

protected:
    // For the pipe, on the thread that writes: the record being filled, null when none is held.
    T* currentRecord();
    // The message just taken completes the current record.
    void setTriggered() { mTriggered.store(true); }
    void markReceivedMessage(std::uint32_t messageIdBits) { mReceivedMessageMark.fetch_or(messageIdBits); }
    std::uint32_t getReceivedMessageMark() const { return mReceivedMessageMark.load(); }

private:
    static void storeMessageStamp(InputAggregateHeader_t& header, const PDUMessage_t& message);
    // Locks the next slot with timeout 0 and makes it the current record, carrying the previous
    // record's header into it; leaves no current record when every slot is held. Needs
    // mChannelMutex.
    void lockNextRecord();

    MessagesTracker mMessagesTracker;
    std::atomic<bool> mTriggered{false};
    // IDs ORed in by the pipe; never cleared.
    std::atomic<std::uint32_t> mReceivedMessageMark{0};
    FunctionBuffer<T> mBuffer;
    std::mutex mChannelMutex;
    T* mCurrentRecord = nullptr;  // guarded by mChannelMutex
    T* mPreviousRecord = nullptr; // guarded by mChannelMutex
};

} // namespace OVRA

#include "framework/detail/ChannelBaseReaderWriter.inl"
