#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace OVRA {

// A bounded ring of records handed from one writer thread to registered consumer threads. Both
// sides work on the records in place: lock a slot, fill or read it, release it.
// A timeout below 0 waits without limit; 0 or more is a limit in milliseconds.
template <typename T> class FunctionBufferBase {
public:
    virtual ~FunctionBufferBase() = default;
    virtual T* lockReadBuffer(int timeoutMs) = 0;
    virtual void releaseReadBuffer() = 0;
    virtual T* lockWriteBuffer(int timeoutMs) = 0;
    virtual void releaseWriteBuffer() = 0;
};

// The ring between the receive thread (the one writer) and the worker threads (the consumers).
// In broadcast mode every consumer reads every record; in shared mode the consumers take records
// from one queue, each record going to exactly one of them. A slot becomes writable again when
// every consumer that must see it has released it, so a slow consumer makes the writer wait
// instead of losing records.
// Consumers are told apart by their thread: the first time a thread locks or releases a read
// slot it claims the next free entry of the consumer table and keeps that index for the life of
// the buffer; a thread beyond the registered number gets FunctionBufferException 1107.
// Every member below is guarded by mMutex; the records themselves belong to whoever holds their
// slot. All memory is taken at construction: locking and releasing never allocate.
//
// Failures: FunctionBufferTimeout 1021 "Write lock" and 1019 "Read lock" on time-out;
// FunctionBufferException 1022 "lock write buffer" (a second writer), 1019 "lock read buffer"
// (a consumer that already holds a slot), 1020 "decr mConsumersRemaining past 0", 1107 "Too many
// consumers". The time-out paths undo the marks they set (in shared mode: consumer 0's).
template <typename T> class FunctionBuffer : public FunctionBufferBase<T> {
public:
    // Throws InvalidArgumentException 1071 for a zero depth, then for zero consumers.
    FunctionBuffer(unsigned short bufferDepth, unsigned short numberOfRegisteredConsumers, bool everyConsumerReadsAll);
    FunctionBuffer(const FunctionBuffer&) = delete;
    FunctionBuffer& operator=(const FunctionBuffer&) = delete;
    ~FunctionBuffer() override = default;

    // Consumer side: the oldest record this consumer has not read, valid until releaseReadBuffer.
    T* lockReadBuffer(int timeoutMs) override;
    // No effect when the calling consumer holds no slot.
    void releaseReadBuffer() override;
    // Writer side: the next slot, once every consumer has released it. Not cleared.
    T* lockWriteBuffer(int timeoutMs) override;
    // Hands the slot to the consumers; no effect when no write lock is held.
    void releaseWriteBuffer() override;

    std::uint16_t getBufferDepth() const;
    std::uint16_t getNumberOfRegisteredConsumers() const;
    // Slots that are neither written-and-unread nor being read.
    std::uint16_t getFreeSlots() const;
    // The most slots ever filled at once, and when it was last raised (ms of the µs log clock).
    std::uint16_t getHighWaterMark() const;
    std::uint64_t getHighWaterTime_ms() const;

private:
    // The calling thread's index in the consumer table, claiming an entry on first use.
    std::size_t identifyConsumer();
    // Waits on condition until ready() holds; false once the deadline has been reached.
    template <typename Ready>
    bool waitUntilReady(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, int timeoutMs,
                        Ready ready);

    const std::uint16_t mBufferDepth;
    const std::uint16_t mNumberOfRegisteredConsumers;
    const bool mEveryConsumerReadsAll;
    const std::uint16_t mConsumersPerSlot;
    std::vector<T> mBuffer;
    std::uint16_t mWriteIndex = 0;
    std::uint16_t mHighWaterMark = 0;
    std::uint64_t mHighWaterTime_ms = 0;
    std::vector<std::uint16_t> mReadIndex;          // per consumer; one shared entry in shared mode
    std::vector<std::uint16_t> mCurrentSlot;        // per consumer
    std::vector<std::uint16_t> mConsumersRemaining; // per slot
    std::vector<bool> mHasReadLock;                 // per consumer
    std::vector<std::uint16_t> mAvailable;          // per consumer; only entry 0 in shared mode
    std::uint16_t mFreeSlots;
    bool mWriterActive = false;
    std::vector<pthread_t> mConsumerThreads; // 0: unclaimed
    mutable std::mutex mMutex;
    std::condition_variable mReadersCondition; // a slot was written
    std::condition_variable mWritersCondition; // a slot became free
};

} // namespace OVRA

#include "framework/detail/FunctionBuffer.inl"
