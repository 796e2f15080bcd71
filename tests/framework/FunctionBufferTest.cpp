#include "framework/FunctionBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

// This file replaces operator new and delete with malloc and free; once inlined, the compiler sees
// free() meet a pointer from new and warns, wrongly.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {

// Counts the allocations of the thread that has switched counting on.
thread_local bool countAllocations = false;
std::atomic<std::size_t> allocations{0};

} // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (countAllocations) {
        ++allocations;
    }
    return std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
    if (void* memory = operator new(size, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace std::chrono_literals;
using OVRA::FunctionBuffer;

struct Record {
    std::uint32_t sequence;
    std::uint32_t check;
};

constexpr std::uint32_t END_OF_STREAM = 0xffffffffU;

// A thread that keeps its identity across steps, so the buffer sees it as one consumer (or a
// second writer). Steps run in order; each returns a future for its result or exception.
class Worker {
public:
    Worker() : thread([this] { loop(); }) {}
    ~Worker() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            finished = true;
        }
        posted.notify_all();
        thread.join();
    }

    template <typename Call> auto start(Call call) -> std::future<decltype(call())> {
        auto step = std::make_shared<std::packaged_task<decltype(call())()>>(std::move(call));
        auto result = step->get_future();
        {
            std::lock_guard<std::mutex> lock(mutex);
            steps.emplace_back([step] { (*step)(); });
        }
        posted.notify_all();
        return result;
    }

    template <typename Call> auto run(Call call) -> decltype(call()) { return start(std::move(call)).get(); }

private:
    void loop() {
        std::unique_lock<std::mutex> lock(mutex);
        while (true) {
            posted.wait(lock, [this] { return finished || !steps.empty(); });
            if (steps.empty()) {
                return;
            }
            auto step = std::move(steps.front());
            steps.pop_front();
            lock.unlock();
            step();
            lock.lock();
        }
    }

    std::mutex mutex;
    std::condition_variable posted;
    std::deque<std::function<void()>> steps;
    bool finished = false;
    std::thread thread;
};

template <typename Exception, typename Call> void expectFailure(Call&& call, std::uint32_t code, const char* text) {
    try {
        call();
        ADD_FAILURE() << "no exception, expected " << code << " " << text;
    } catch (const Exception& e) {
        EXPECT_EQ(e.getCode(), code);
        EXPECT_STREQ(e.what(), text);
    }
}

// The check runs on the worker itself: an exception never crosses threads, whose reference
// counting ThreadSanitizer cannot see inside the uninstrumented C++ runtime.
template <typename Exception, typename Call>
void expectFailureOn(Worker& worker, Call&& call, std::uint32_t code, const char* text) {
    worker.run([&] { expectFailure<Exception>(call, code, text); });
}

class FunctionBufferTest : public ::testing::Test {
protected:
    static void write(FunctionBuffer<Record>& buffer, std::uint32_t sequence, int timeoutMs = 0) {
        Record* record = buffer.lockWriteBuffer(timeoutMs);
        record->sequence = sequence;
        record->check = ~sequence;
        buffer.releaseWriteBuffer();
    }

    // Reads one record and releases it; its sequence number.
    static std::uint32_t read(FunctionBuffer<Record>& buffer, int timeoutMs = 0) {
        const Record* record = buffer.lockReadBuffer(timeoutMs);
        const std::uint32_t sequence = record->sequence;
        EXPECT_EQ(record->check, ~sequence);
        buffer.releaseReadBuffer();
        return sequence;
    }

    // Reads until the end-of-stream record; every sequence number read, in order.
    static std::vector<std::uint32_t> readAll(FunctionBuffer<Record>& buffer, std::size_t expected) {
        std::vector<std::uint32_t> sequences;
        sequences.reserve(expected);
        for (std::uint32_t sequence = read(buffer, 60'000); sequence != END_OF_STREAM;
             sequence = read(buffer, 60'000)) {
            sequences.push_back(sequence);
        }
        return sequences;
    }

    // One writer (this thread) and consumers that share the records; each record must reach
    // exactly one of them.
    static void streamToSharedConsumers(unsigned short depth, unsigned short consumerCount, std::uint32_t records) {
        FunctionBuffer<Record> buffer(depth, consumerCount, false);
        std::vector<std::unique_ptr<Worker>> consumers;
        std::vector<std::future<std::vector<std::uint32_t>>> received;
        for (unsigned short c = 0; c < consumerCount; ++c) {
            consumers.push_back(std::make_unique<Worker>());
            received.push_back(consumers.back()->start([&] { return readAll(buffer, records); }));
        }
        for (std::uint32_t sequence = 0; sequence < records; ++sequence) {
            write(buffer, sequence, 60'000);
        }
        for (unsigned short c = 0; c < consumerCount; ++c) {
            write(buffer, END_OF_STREAM, 60'000);
        }

        std::vector<int> seen(records, 0);
        for (auto& future : received) {
            const auto sequences = future.get();
            for (std::size_t i = 0; i < sequences.size(); ++i) {
                ASSERT_LT(sequences[i], records);
                ++seen[sequences[i]];
                // One queue: a consumer gets its share in writing order.
                if (i > 0) {
                    EXPECT_GT(sequences[i], sequences[i - 1]);
                }
            }
        }
        for (std::uint32_t sequence = 0; sequence < records; ++sequence) {
            ASSERT_EQ(seen[sequence], 1) << "record " << sequence;
        }
        EXPECT_EQ(buffer.getFreeSlots(), depth);
    }
};

TEST_F(FunctionBufferTest, ConstructorChecksTheDepthFirstThenTheConsumers) {
    expectFailure<OVRA::InvalidArgumentException>([] { FunctionBuffer<Record>(0, 0, false); }, 1071,
                                                  "FunctionBuffer(): bufferDepth must be > 0");
    expectFailure<OVRA::InvalidArgumentException>([] { FunctionBuffer<Record>(1, 0, true); }, 1071,
                                                  "FunctionBuffer(): numberOfRegisteredConsumers must be > 0");

    const FunctionBuffer<Record> buffer(28, 1, false);
    EXPECT_EQ(buffer.getBufferDepth(), 28);
    EXPECT_EQ(buffer.getNumberOfRegisteredConsumers(), 1);
    EXPECT_EQ(buffer.getFreeSlots(), 28);
    EXPECT_EQ(buffer.getHighWaterMark(), 0);
    EXPECT_EQ(buffer.getHighWaterTime_ms(), 0U);
}

TEST_F(FunctionBufferTest, WithDepthOneTheNextWriteWaitsForTheConsumersRelease) {
    FunctionBuffer<Record> buffer(1, 1, false);
    Worker consumer;
    Record* written = buffer.lockWriteBuffer(0);
    written->sequence = 7;
    buffer.releaseWriteBuffer();

    expectFailure<FunctionBufferTimeout>([&] { buffer.lockWriteBuffer(0); }, 1021, "Write lock");
    const Record* read = consumer.run([&] { return buffer.lockReadBuffer(0); });
    EXPECT_EQ(read, written); // used in place, not copied
    EXPECT_EQ(read->sequence, 7U);
    // The failed attempt left no writer behind: still a time-out, not a second writer.
    expectFailure<FunctionBufferTimeout>([&] { buffer.lockWriteBuffer(0); }, 1021, "Write lock");

    const auto start = std::chrono::steady_clock::now();
    expectFailure<FunctionBufferTimeout>([&] { buffer.lockWriteBuffer(50); }, 1021, "Write lock");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);

    consumer.run([&] { buffer.releaseReadBuffer(); });
    EXPECT_EQ(buffer.lockWriteBuffer(0), written);
}

TEST_F(FunctionBufferTest, ASecondWriterGetsLockWriteBuffer) {
    FunctionBuffer<Record> buffer(1, 1, false);
    Worker secondWriter;
    buffer.lockWriteBuffer(0);
    expectFailureOn<FunctionBufferException>(
        secondWriter, [&] { buffer.lockWriteBuffer(0); }, 1022, "lock write buffer");
    buffer.releaseWriteBuffer();
}

TEST_F(FunctionBufferTest, AWriterWaitingWithoutLimitGetsTheSlotOnceItIsReleased) {
    FunctionBuffer<Record> buffer(1, 1, false);
    Worker writer;
    write(buffer, 1);

    auto waiting = writer.start([&] { return buffer.lockWriteBuffer(-1); });
    EXPECT_EQ(read(buffer), 1U);

    EXPECT_NE(waiting.get(), nullptr);
    writer.run([&] { buffer.releaseWriteBuffer(); });
    EXPECT_EQ(buffer.getFreeSlots(), 0);
}

TEST_F(FunctionBufferTest, ALockedConsumerCannotLockAgainAndASecondReleaseDoesNothing) {
    FunctionBuffer<Record> buffer(2, 1, false);
    write(buffer, 1);
    write(buffer, 2);

    EXPECT_EQ(buffer.lockReadBuffer(0)->sequence, 1U);
    expectFailure<FunctionBufferException>([&] { buffer.lockReadBuffer(0); }, 1019, "lock read buffer");
    EXPECT_EQ(buffer.getFreeSlots(), 0);
    buffer.releaseReadBuffer();
    EXPECT_EQ(buffer.getFreeSlots(), 1);
    buffer.releaseReadBuffer();
    EXPECT_EQ(buffer.getFreeSlots(), 1);

    EXPECT_EQ(read(buffer), 2U);
    EXPECT_EQ(buffer.getFreeSlots(), 2);
}

TEST_F(FunctionBufferTest, AThreadBeyondTheRegisteredConsumersIsRefused) {
    FunctionBuffer<Record> buffer(4, 2, true);
    Worker second;
    Worker third;
    // A release claims an entry just as a lock does.
    buffer.releaseReadBuffer();
    second.run([&] { buffer.releaseReadBuffer(); });

    expectFailureOn<FunctionBufferException>(
        third, [&] { buffer.lockReadBuffer(0); }, 1107, "Too many consumers");
    expectFailureOn<FunctionBufferException>(
        third, [&] { buffer.releaseReadBuffer(); }, 1107, "Too many consumers");
    // In broadcast mode a time-out clears the caller's own mark: it can read afterwards.
    expectFailureOn<FunctionBufferTimeout>(
        second, [&] { buffer.lockReadBuffer(0); }, 1019, "Read lock");
    write(buffer, 5);
    EXPECT_EQ(read(buffer), 5U);
    EXPECT_EQ(second.run([&] { return read(buffer); }), 5U);
}

TEST_F(FunctionBufferTest, AReadTimesOutAndCanBeRetried) {
    FunctionBuffer<Record> buffer(2, 1, false);
    Worker consumer;

    const auto start = std::chrono::steady_clock::now();
    expectFailureOn<FunctionBufferTimeout>(
        consumer, [&] { buffer.lockReadBuffer(50); }, 1019, "Read lock");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    expectFailureOn<FunctionBufferTimeout>(
        consumer, [&] { buffer.lockReadBuffer(0); }, 1019, "Read lock");

    // A reader waiting without limit gets the next record.
    auto waiting = consumer.start([&] { return read(buffer, -1); });
    write(buffer, 3);
    EXPECT_EQ(waiting.get(), 3U);
}

TEST_F(FunctionBufferTest, ASharedTimeOutClearsConsumerZerosMarkNotTheCallers) {
    FunctionBuffer<Record> buffer(2, 2, false);
    Worker second;
    buffer.releaseReadBuffer(); // this thread is consumer 0

    expectFailureOn<FunctionBufferTimeout>(
        second, [&] { buffer.lockReadBuffer(0); }, 1019, "Read lock");
    // Consumer 1 is still marked as holding a slot that nobody wrote.
    expectFailureOn<FunctionBufferException>(
        second, [&] { buffer.lockReadBuffer(0); }, 1019, "lock read buffer");
    expectFailureOn<FunctionBufferException>(
        second, [&] { buffer.releaseReadBuffer(); }, 1020, "decr mConsumersRemaining past 0");
}

TEST_F(FunctionBufferTest, BroadcastDeliversEveryRecordToEveryConsumerInOrder) {
    constexpr std::uint32_t RECORDS = 2000;
    FunctionBuffer<Record> buffer(4, 3, true);
    std::vector<std::unique_ptr<Worker>> consumers;
    std::vector<std::future<std::vector<std::uint32_t>>> received;
    for (int c = 0; c < 3; ++c) {
        consumers.push_back(std::make_unique<Worker>());
        received.push_back(consumers.back()->start([&] { return readAll(buffer, RECORDS); }));
    }
    for (std::uint32_t sequence = 0; sequence < RECORDS; ++sequence) {
        write(buffer, sequence, 60'000);
    }
    write(buffer, END_OF_STREAM, 60'000);

    std::vector<std::uint32_t> expected(RECORDS);
    for (std::uint32_t sequence = 0; sequence < RECORDS; ++sequence) {
        expected[sequence] = sequence;
    }
    for (auto& future : received) {
        EXPECT_EQ(future.get(), expected);
    }
    EXPECT_EQ(buffer.getFreeSlots(), 4);
}

TEST_F(FunctionBufferTest, SharedModeDeliversEachRecordToExactlyOneConsumer) {
    streamToSharedConsumers(4, 3, 2000);
}

TEST_F(FunctionBufferTest, StressOneWriterAndSeveralSharedConsumers) {
    streamToSharedConsumers(8, 3, 100'000);
}

TEST_F(FunctionBufferTest, TheHighWaterMarkReachesTheDepthWhenNobodyReads) {
    FunctionBuffer<Record> buffer(5, 1, false);
    const std::uint64_t before_ms = ovraSystemTimestamp_us() / 1000;
    for (std::uint32_t sequence = 0; sequence < 5; ++sequence) {
        write(buffer, sequence);
        EXPECT_EQ(buffer.getHighWaterMark(), sequence + 1);
    }
    const std::uint64_t after_ms = ovraSystemTimestamp_us() / 1000;

    EXPECT_EQ(buffer.getFreeSlots(), 0);
    EXPECT_GE(buffer.getHighWaterTime_ms(), before_ms);
    EXPECT_LE(buffer.getHighWaterTime_ms(), after_ms);
    expectFailure<FunctionBufferTimeout>([&] { write(buffer, 5); }, 1021, "Write lock");
    // Draining does not lower the mark.
    EXPECT_EQ(read(buffer), 0U);
    write(buffer, 5);
    EXPECT_EQ(buffer.getHighWaterMark(), 5);
}

TEST_F(FunctionBufferTest, LockingAndReleasingNeverAllocate) {
    FunctionBuffer<Record> buffer(3, 1, true);
    write(buffer, 0); // the first use claims the consumer entry and reads the clock divisor
    read(buffer);

    countAllocations = true;
    for (int round = 0; round < 100; ++round) {
        buffer.lockWriteBuffer(0);
        buffer.releaseWriteBuffer();
        buffer.lockWriteBuffer(-1);
        buffer.releaseWriteBuffer();
        buffer.lockReadBuffer(0);
        buffer.releaseReadBuffer();
        buffer.lockReadBuffer(-1);
        buffer.releaseReadBuffer();
    }
    countAllocations = false;
    EXPECT_EQ(allocations.load(), 0U);
}

} // namespace
