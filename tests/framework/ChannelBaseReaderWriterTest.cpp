#include "framework/ChannelBaseReaderWriter.h"

#include <chrono>
#include <tuple>

#include "tests/framework/TestApplication.h"

namespace {

using vidapp::test::TestPipe;

// What the messages of the tests leave in a header.
auto stamps(const OVRA::InputAggregateHeader_t& h) {
    return std::tuple(h.triggerMessageId, h.externalMessageTimestamps[4], h.externalMessageCounts[4],
                      h.externalMessageTimestamps[1], h.externalMessageCounts[1], h.internalMessageTimestamps[0],
                      h.internalMessageCounts[0], h.internalMessageTimestamps[4], h.internalMessageCounts[4]);
}

class ChannelBaseReaderWriterTest : public ::testing::Test {
protected:
    static std::uint64_t write(TestPipe& pipe, std::uint32_t id, std::uint64_t timestamp = 1, std::uint16_t count = 1) {
        return pipe.write(vidapp::test::testMessage(0, id, timestamp, count));
    }

    vidapp::test::LogCapture log;
};

TEST_F(ChannelBaseReaderWriterTest, DropsWhileEverySlotIsHeldAndResumesAfterRelease) {
    TestPipe pipe(2, 1);
    ASSERT_EQ(write(pipe, TestPipe::TRIGGER_ID), 4u);
    ASSERT_EQ(write(pipe, 4, 111), 4u);
    pipe.releaseWriter(); // hands over the record being filled

    EXPECT_EQ(write(pipe, 4), 0u);
    EXPECT_EQ(pipe.taken, 2);
    // A record completed while every slot is held finds no next one and does not wait for it: the
    // receive thread writes here.
    TestPipe full(1, 1);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(write(full, TestPipe::TRIGGER_ID), 4u);
    EXPECT_EQ(write(full, TestPipe::TRIGGER_ID), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(100));
    pipe.closeWrite();
    EXPECT_EQ(log.count("D: vidapp: closeWrite(): lock write exception:[Write lock]"), 1u) << log.dump();

    EXPECT_EQ(pipe.read()->header.triggerMessageId, TestPipe::TRIGGER_ID);
    pipe.releaseReader();
    EXPECT_EQ(write(pipe, 4), 4u);
    EXPECT_EQ(pipe.taken, 3);
    EXPECT_EQ(pipe.read()->header.externalMessageTimestamps[4], 111u);
}

// Counts are kept modulo 65536 (65535 is followed by 0); ID 0 lands at internal index 0; an index
// beyond the internal table throws once the pipe has taken the payload.
TEST_F(ChannelBaseReaderWriterTest, NewRecordStartsWithThePreviousHeader) {
    TestPipe pipe(4, 1);
    write(pipe, 4, 111, 65535);
    write(pipe, 0, 99, 1);
    EXPECT_THROW(write(pipe, 0x80000033), std::out_of_range);
    EXPECT_THROW(write(pipe, 0x33), std::out_of_range);
    EXPECT_EQ(pipe.taken, 4);
    write(pipe, TestPipe::SECOND_TRIGGER_ID, 222, 9);
    write(pipe, 4, 333, 0);
    write(pipe, TestPipe::TRIGGER_ID, 444, 2);

    EXPECT_EQ(stamps(pipe.read()->header), std::tuple(TestPipe::SECOND_TRIGGER_ID, 111, 65535, 0, 0, 99, 1, 222, 9));
    pipe.releaseReader();
    EXPECT_EQ(stamps(pipe.read()->header), std::tuple(TestPipe::TRIGGER_ID, 333, 0, 444, 2, 99, 1, 222, 9));
    const MessagesTracker& tracker = pipe.getMessagesTracker();
    EXPECT_EQ(tracker.getHostMessagesTracked(), 1u);
    EXPECT_EQ(tracker.getHostMessages()[1].count, 1u);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 1u);
    EXPECT_EQ(tracker.getInternalMessages()[4].count, 1u);
}

} // namespace
