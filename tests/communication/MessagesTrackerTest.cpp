#include "communication/MessagesTracker.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"

namespace {

std::uint64_t fakeNow_us = 0;
std::uint64_t fakeClock() {
    return fakeNow_us;
}

class MessagesTrackerTest : public ::testing::Test {
protected:
    MessagesTrackerTest() { fakeNow_us = 0; }

    // Tracks one message of that ID at each of the times.
    void trackAt(std::uint32_t messageId, std::initializer_list<std::uint64_t> times_us) {
        for (const std::uint64_t now_us : times_us) {
            fakeNow_us = now_us;
            tracker.track(messageId);
        }
    }

    MessagesTracker tracker{fakeClock};
};

TEST_F(MessagesTrackerTest, ReportsGiveCountRateAndMeanPeriodOverTheCountInIdOrder) {
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("rx"), "");
    trackAt(5, {1000000, 1100000, 1200000});
    trackAt(2, {5000000, 5100000});
    trackAt(16, {123456});
    trackAt(OVRA::VIDEO_INTERFACE_RESULTS, {1}); // a host ID without a name
    trackAt(OVRA::VIDEO_CONSUMER_REGISTER, {10, 20010});
    EXPECT_DOUBLE_EQ(tracker.getHostMessages()[5].totalIntervalUs, 200000.0);
    EXPECT_EQ(tracker.getHostMessagesTracked(), 7U);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 2U);
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("rx"),
              "rx: DYNAMIC_VEHICLE_INFO:2\t2\t20.00 Hz ( 50.00 ms)\n"
              "rx: ENHANCED_TARGET_SELECTION_DATA:5\t3\t15.00 Hz ( 66.67 ms)\n"
              "rx: CAMERA_SUPPORT_DATA:16\t1\t0.00 Hz ( 0.00 ms)\n"
              "rx: (null):29\t1\t0.00 Hz ( 0.00 ms)\n");
    EXPECT_EQ(tracker.getTrackedInternalMessagesStats("vidapp"),
              "vidapp: VIDEO_CONSUMER_REGISTER:2147483676\t2\t100.00 Hz ( 10.00 ms)\n");
}

TEST_F(MessagesTrackerTest, IdsOutside1To30CountAsInternalByTheirLow31Bits) {
    EXPECT_THROW(tracker.track(0x80000033), std::out_of_range);
    EXPECT_THROW(tracker.track(0xFFFFFFFF), std::out_of_range);
    trackAt(31, {1});
    trackAt(0, {1});
    EXPECT_EQ(tracker.getInternalMessages()[31].count, 1U);
    EXPECT_EQ(tracker.getInternalMessages()[0].count, 1U);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 2U);
    EXPECT_EQ(tracker.getHostMessagesTracked(), 0U);
    EXPECT_THROW(MessagesTracker::getMessageName(31), OVRA::InvalidMessageIDException);
    // Entry 0 has no name, so the report of the internal table cannot be built.
    vidapp::test::expectFailure<OVRA::InvalidMessageIDException>(
        [this] { (void)tracker.getTrackedInternalMessagesStats("rx"); }, 1060,
        "getInternalMessageIdString(). Invalid messageId: 0x80000000");
}

TEST_F(MessagesTrackerTest, TimestampZeroIsNeverTakenAsAPreviousMessage) {
    trackAt(7, {0, 500});
    EXPECT_DOUBLE_EQ(tracker.getHostMessages()[7].totalIntervalUs, 0.0);
    EXPECT_EQ(tracker.getHostMessages()[7].lastTimestampUs, 500U);
    trackAt(7, {700});
    EXPECT_DOUBLE_EQ(tracker.getHostMessages()[7].totalIntervalUs, 200.0);
}

TEST(MessagesTrackerClockTest, DefaultClockIsTheSharedTimestamp) {
    MessagesTracker tracker;
    const std::uint64_t before = ovraSystemTimestamp_us();
    tracker.track(3);
    EXPECT_GE(tracker.getHostMessages()[3].lastTimestampUs, before);
    EXPECT_LE(tracker.getHostMessages()[3].lastTimestampUs, ovraSystemTimestamp_us());
}

} // namespace
