#include "framework/FunctionBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <latch>
#include <vector>

#include "log/OVRALogImplementPrintf.h"
#include "tests/support/Expect.h"

namespace {

using namespace std::chrono_literals;
using OVRA::FunctionBuffer;
using vidapp::test::expectFailure;

struct Record {
    std::uint32_t sequence;
    std::uint32_t check;
};

constexpr std::uint32_t END_OF_STREAM = 0xffffffffU;

void write(FunctionBuffer<Record>& buffer, std::uint32_t sequence, int timeoutMs = 0) {
    *buffer.lockWriteBuffer(timeoutMs) = {sequence, ~sequence};
    buffer.releaseWriteBuffer();
}

std::uint32_t read(FunctionBuffer<Record>& buffer, int timeoutMs = 0) {
    const Record record = *buffer.lockReadBuffer(timeoutMs);
    EXPECT_EQ(record.check, ~record.sequence);
    buffer.releaseReadBuffer();
    return record.sequence;
}

TEST(FunctionBufferTest, WithDepthOneTheNextWriteWaitsForTheConsumersRelease) {
    FunctionBuffer<Record> buffer(1, 1, false);
    auto start = std::chrono::steady_clock::now();
    expectFailure<FunctionBufferTimeout>([&] { buffer.lockReadBuffer(50); }, 1019, "Read lock");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    Record* written = buffer.lockWriteBuffer(0);
    buffer.releaseWriteBuffer();

    expectFailure<FunctionBufferTimeout>([&] { buffer.lockWriteBuffer(0); }, 1021, "Write lock");
    EXPECT_EQ(buffer.lockReadBuffer(0), written); // in place, not copied; the read time-out left no mark
    expectFailure<FunctionBufferException>([&] { buffer.lockReadBuffer(0); }, 1019, "lock read buffer");
    // The failed write left no writer behind: a time-out again, not "lock write buffer".
    start = std::chrono::steady_clock::now();
    expectFailure<FunctionBufferTimeout>([&] { buffer.lockWriteBuffer(50); }, 1021, "Write lock");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);

    auto waiting = std::async(std::launch::async, [&] { return buffer.lockWriteBuffer(-1); });
    buffer.releaseReadBuffer();
    buffer.releaseReadBuffer(); // no effect: this consumer holds nothing
    EXPECT_EQ(waiting.get(), written);
    expectFailure<FunctionBufferException>([&] { buffer.lockWriteBuffer(0); }, 1022, "lock write buffer");
    buffer.releaseWriteBuffer();
    EXPECT_EQ(buffer.getFreeSlots(), 0);
}

// Exceptions are checked on the thread that raises them: one crossing threads has its reference
// count changed inside the uninstrumented C++ runtime, where ThreadSanitizer cannot see it.
// A consumer thread stays alive while others start, so that none can inherit its identity.
TEST(FunctionBufferTest, AThreadBeyondTheRegisteredConsumersIsRefusedAndTimeOutsClearMarks) {
    FunctionBuffer<Record> buffer(4, 2, true);
    std::latch claimed(1);
    buffer.releaseReadBuffer(); // a release claims an entry just as a lock does
    auto second = std::async(std::launch::async, [&] {
        // In broadcast mode a time-out clears the caller's own mark: it can read afterwards.
        expectFailure<FunctionBufferTimeout>([&] { buffer.lockReadBuffer(0); }, 1019, "Read lock");
        claimed.count_down();
        return read(buffer, -1);
    });
    claimed.wait();
    std::async(std::launch::async, [&] {
        expectFailure<FunctionBufferException>([&] { buffer.lockReadBuffer(0); }, 1107, "Too many consumers");
        expectFailure<FunctionBufferException>([&] { buffer.releaseReadBuffer(); }, 1107, "Too many consumers");
    }).get();

    write(buffer, 5);
    EXPECT_EQ(read(buffer), 5U);
    EXPECT_EQ(second.get(), 5U);

    // In shared mode a time-out clears consumer 0's mark, not the caller's.
    FunctionBuffer<Record> shared(2, 2, false);
    shared.releaseReadBuffer(); // this thread is consumer 0
    std::async(std::launch::async, [&] {
        expectFailure<FunctionBufferTimeout>([&] { shared.lockReadBuffer(0); }, 1019, "Read lock");
        // Consumer 1 is still marked as holding a slot that nobody wrote.
        expectFailure<FunctionBufferException>([&] { shared.lockReadBuffer(0); }, 1019, "lock read buffer");
        expectFailure<FunctionBufferException>([&] { shared.releaseReadBuffer(); }, 1020,
                                               "decr mConsumersRemaining past 0");
    }).get();
}

// No record lost or duplicated: one writer streams the records, then an end mark per consumer.
TEST(FunctionBufferTest, EveryRecordReachesEachConsumerThatMustSeeItOnceAndInOrder) {
    for (const bool broadcast : {true, false}) {
        SCOPED_TRACE(broadcast ? "broadcast" : "shared");
        const std::uint32_t records = broadcast ? 2000 : 100'000;
        FunctionBuffer<Record> buffer(8, 3, broadcast);
        std::vector<std::future<std::vector<std::uint32_t>>> consumers;
        for (int c = 0; c < 3; ++c) {
            consumers.push_back(std::async(std::launch::async, [&buffer] {
                std::vector<std::uint32_t> got;
                while (got.empty() || got.back() != END_OF_STREAM) {
                    got.push_back(read(buffer, 60'000));
                }
                return got;
            }));
        }
        for (std::uint32_t sequence = 0; sequence < records + 3; ++sequence) {
            write(buffer, sequence < records ? sequence : END_OF_STREAM, 60'000);
        }

        std::vector<int> seen(records + 1, 0);
        for (auto& consumer : consumers) {
            const std::vector<std::uint32_t> got = consumer.get();
            // One queue: a consumer gets its share in writing order.
            EXPECT_EQ(std::ranges::adjacent_find(got, std::greater_equal<>()), got.end());
            for (const std::uint32_t sequence : got) {
                ++seen[std::min(sequence, records)];
            }
        }
        EXPECT_EQ(std::count(seen.begin(), seen.end() - 1, broadcast ? 3 : 1), records);
        EXPECT_EQ(buffer.getFreeSlots(), broadcast ? 6 : 8); // broadcast consumers leave two end marks
    }
}

TEST(FunctionBufferTest, TheHighWaterMarkReachesTheDepthWhenNobodyReads) {
    expectFailure<OVRA::InvalidArgumentException>([] { FunctionBuffer<Record>(0, 0, false); }, 1071,
                                                  "FunctionBuffer(): bufferDepth must be > 0");
    expectFailure<OVRA::InvalidArgumentException>([] { FunctionBuffer<Record>(1, 0, true); }, 1071,
                                                  "FunctionBuffer(): numberOfRegisteredConsumers must be > 0");
    FunctionBuffer<Record> buffer(5, 1, false);
    const std::uint64_t before_ms = ovraSystemTimestamp_us() / 1000;
    for (std::uint32_t sequence = 0; sequence < 5; ++sequence) {
        write(buffer, sequence);
        EXPECT_EQ(buffer.getHighWaterMark(), sequence + 1);
    }
    const std::uint64_t after_ms = ovraSystemTimestamp_us() / 1000;

    EXPECT_GE(buffer.getHighWaterTime_ms(), before_ms);
    EXPECT_LE(buffer.getHighWaterTime_ms(), after_ms);
    expectFailure<FunctionBufferTimeout>([&] { write(buffer, 5); }, 1021, "Write lock");
    EXPECT_EQ(read(buffer), 0U);
    write(buffer, 5);
    EXPECT_EQ(buffer.getHighWaterMark(), 5); // draining does not lower it
}

} // namespace
