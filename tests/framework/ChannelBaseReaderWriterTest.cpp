#include "framework/ChannelBaseReaderWriter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <stdexcept>
#include <thread>

#include "tests/support/LogCapture.h"

namespace {

using namespace std::chrono_literals;

struct Record_t {
    OVRA::InputAggregateHeader_t header;
    std::uint8_t payload[8];
};

// Takes up to 8 payload bytes of every message; TRIGGER_ID and SECOND_TRIGGER_ID complete the
// record.
class TestPipe : public OVRA::ChannelBaseReaderWriter<Record_t> {
public:
    static constexpr std::uint32_t TRIGGER_ID = 5;
    static constexpr std::uint32_t SECOND_TRIGGER_ID = 0x80000004;

    TestPipe(unsigned short depth, unsigned short consumers) : ChannelBaseReaderWriter(depth, consumers) {}

    bool isTrigger() override { return lastId == TRIGGER_ID || lastId == SECOND_TRIGGER_ID; }
    unsigned long writeToBuffer(const OVRA::PDUMessage_t& message) override {
        ++taken;
        Record_t* record = currentRecord();
        const unsigned long size = message.length - 16;
        std::memcpy(record->payload, message.payload, std::min<unsigned long>(size, sizeof(record->payload)));
        lastId = message.messageId;
        if (isTrigger()) {
            record->header.triggerMessageId = lastId;
            setTriggered();
        }
        return size;
    }

    int taken = 0;

private:
    std::uint32_t lastId = 0;
};

class ChannelBaseReaderWriterTest : public ::testing::Test {
protected:
    std::uint64_t write(TestPipe& pipe, std::uint32_t id, std::uint64_t timestamp = 1, std::uint16_t count = 1) {
        message.messageId = id;
        message.length = 16 + 4;
        message.timestamp = timestamp;
        message.count = count;
        return pipe.write(message);
    }

    vidapp::test::LogCapture log;
    OVRA::PDUMessage_t message{};
};

TEST_F(ChannelBaseReaderWriterTest, DropsWhileEverySlotIsHeldAndResumesAfterRelease) {
    TestPipe pipe(2, 1);
    ASSERT_EQ(write(pipe, TestPipe::TRIGGER_ID), 4u);
    ASSERT_EQ(write(pipe, TestPipe::TRIGGER_ID), 4u);

    EXPECT_EQ(write(pipe, 3), 0u);
    EXPECT_EQ(pipe.taken, 2);

    pipe.read();
    pipe.releaseReader();
    EXPECT_EQ(write(pipe, 3), 4u);
    EXPECT_EQ(pipe.taken, 3);
}

TEST_F(ChannelBaseReaderWriterTest, NewRecordStartsWithThePreviousHeader) {
    TestPipe pipe(4, 1);
    write(pipe, 3, 111, 65535);
    write(pipe, 0, 99, 1);
    write(pipe, TestPipe::SECOND_TRIGGER_ID, 222, 9);
    write(pipe, 3, 333, 0);
    write(pipe, TestPipe::TRIGGER_ID, 444, 2);

    const Record_t* first = pipe.read();
    EXPECT_EQ(first->header.triggerMessageId, TestPipe::SECOND_TRIGGER_ID);
    EXPECT_EQ(first->header.externalMessageTimestamps[3], 111u);
    EXPECT_EQ(first->header.externalMessageCounts[3], 65535u);
    EXPECT_EQ(first->header.internalMessageTimestamps[0], 99u);
    EXPECT_EQ(first->header.internalMessageTimestamps[4], 222u);
    EXPECT_EQ(first->header.internalMessageCounts[4], 9u);
    pipe.releaseReader();

    const Record_t* second = pipe.read();
    EXPECT_EQ(second->header.triggerMessageId, TestPipe::TRIGGER_ID);
    EXPECT_EQ(second->header.externalMessageTimestamps[3], 333u);
    EXPECT_EQ(second->header.externalMessageCounts[3], 0u);
    EXPECT_EQ(second->header.externalMessageTimestamps[5], 444u);
    EXPECT_EQ(second->header.internalMessageTimestamps[0], 99u);
    EXPECT_EQ(second->header.internalMessageTimestamps[4], 222u);
    EXPECT_EQ(second->header.internalMessageCounts[4], 9u);
    pipe.releaseReader();

    const MessagesTracker& tracker = pipe.getMessagesTracker();
    EXPECT_EQ(tracker.getHostMessagesTracked(), 1u);
    EXPECT_EQ(tracker.getHostMessages()[5].count, 1u);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 1u);
    EXPECT_EQ(tracker.getInternalMessages()[4].count, 1u);
}

TEST_F(ChannelBaseReaderWriterTest, InternalIdBeyondTheTableThrowsAfterThePipeTookThePayload) {
    TestPipe pipe(4, 1);

    EXPECT_THROW(write(pipe, 0x80000033), std::out_of_range);
    EXPECT_THROW(write(pipe, 0x33), std::out_of_range);
    EXPECT_EQ(pipe.taken, 2);
    EXPECT_EQ(write(pipe, 31, 77), 4u);
}

TEST_F(ChannelBaseReaderWriterTest, ReleaseWriterHandsOverTheRecordBeingFilled) {
    TestPipe pipe(1, 1);
    write(pipe, 3, 111);

    pipe.releaseWriter();

    EXPECT_EQ(write(pipe, 3, 222), 0u);
    EXPECT_EQ(pipe.read()->header.externalMessageTimestamps[3], 111u);
}

TEST_F(ChannelBaseReaderWriterTest, CloseWriteWakesABlockedReader) {
    TestPipe pipe(4, 1);
    write(pipe, 3, 111);
    std::promise<const Record_t*> readerGot;
    std::thread reader([&] { readerGot.set_value(pipe.read()); });

    pipe.closeWrite();

    auto record = readerGot.get_future();
    ASSERT_EQ(record.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(record.get()->header.externalMessageTimestamps[3], 111u);
    reader.join();
    EXPECT_EQ(write(pipe, 3), 0u);
}

TEST_F(ChannelBaseReaderWriterTest, CloseWriteWithEverySlotHeldLogsTheLockFailure) {
    TestPipe pipe(1, 1);
    write(pipe, TestPipe::TRIGGER_ID);

    pipe.closeWrite();

    EXPECT_EQ(log.count("D: vidapp: closeWrite(): lock write exception:[Write lock]"), 1u) << log.dump();
    EXPECT_EQ(pipe.read()->header.triggerMessageId, TestPipe::TRIGGER_ID);
}

} // namespace
