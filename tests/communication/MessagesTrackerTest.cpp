#include "communication/MessagesTracker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/OVRAException.h"

namespace {

std::uint64_t fakeNow_us = 0;
std::uint64_t fakeClock() {
    return fakeNow_us;
}

class MessagesTrackerTest : public ::testing::Test {
protected:
    MessagesTrackerTest() { fakeNow_us = 0; }

    void trackAt(std::uint64_t now_us, std::uint32_t messageId) {
        fakeNow_us = now_us;
        tracker.track(messageId);
    }

    MessagesTracker tracker{fakeClock};
};

TEST_F(MessagesTrackerTest, ThreeMessagesGiveTheMeanPeriodOverTheCount) {
    trackAt(1000000, 5);
    trackAt(1100000, 5);
    trackAt(1200000, 5);

    const auto& entry = tracker.getHostMessages()[5];
    EXPECT_EQ(entry.messageId, 5U);
    EXPECT_EQ(entry.count, 3U);
    EXPECT_DOUBLE_EQ(entry.totalIntervalUs, 200000.0);
    EXPECT_EQ(entry.lastTimestampUs, 1200000U);
    EXPECT_EQ(tracker.getHostMessagesTracked(), 3U);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 0U);
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("rx"),
              "rx: ENHANCED_TARGET_SELECTION_DATA:5\t3\t15.00 Hz ( 66.67 ms)\n");
}

TEST_F(MessagesTrackerTest, TwoMessagesDivideTheirIntervalByTwoAndASingleOneHasNoRate) {
    trackAt(5000000, 2);
    trackAt(5100000, 2);
    trackAt(123456, 16);
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("p"), "p: DYNAMIC_VEHICLE_INFO:2\t2\t20.00 Hz ( 50.00 ms)\n"
                                                        "p: CAMERA_SUPPORT_DATA:16\t1\t0.00 Hz ( 0.00 ms)\n");
}

TEST_F(MessagesTrackerTest, ReportListsTrackedEntriesInIdOrderOnly) {
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("rx"), "");
    EXPECT_EQ(tracker.getTrackedInternalMessagesStats("rx"), "");

    trackAt(1000, 21);
    trackAt(1000, 1);
    trackAt(3000, 21);

    EXPECT_EQ(tracker.getTrackedHostMessagesStats("rx"), "rx: FUSED_TRACK_DATA:1\t1\t0.00 Hz ( 0.00 ms)\n"
                                                         "rx: MPL_INPUTS:21\t2\t1000.00 Hz ( 1.00 ms)\n");
    EXPECT_EQ(tracker.getTrackedInternalMessagesStats("rx"), "");
}

TEST_F(MessagesTrackerTest, InternalMessagesAreReportedApartWithTheirFullId) {
    trackAt(10, OVRA::VIDEO_CONSUMER_REGISTER);
    trackAt(20010, OVRA::VIDEO_CONSUMER_REGISTER);

    EXPECT_EQ(tracker.getInternalMessagesTracked(), 2U);
    EXPECT_EQ(tracker.getTrackedInternalMessagesStats("vidapp"),
              "vidapp: VIDEO_CONSUMER_REGISTER:2147483676\t2\t100.00 Hz ( 10.00 ms)\n");
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("vidapp"), "");
}

TEST_F(MessagesTrackerTest, HostIdWithoutNameIsReportedAsNull) {
    trackAt(1, OVRA::VIDEO_INTERFACE_RESULTS);
    EXPECT_EQ(tracker.getTrackedHostMessagesStats("tx"), "tx: (null):29\t1\t0.00 Hz ( 0.00 ms)\n");
}

TEST_F(MessagesTrackerTest, IdsOutside1To30CountAsInternalByTheirLow31Bits) {
    EXPECT_THROW(tracker.track(0x80000033), std::out_of_range);
    EXPECT_THROW(tracker.track(0xFFFFFFFF), std::out_of_range);
    trackAt(1, 31);
    trackAt(1, 0);
    EXPECT_EQ(tracker.getInternalMessages()[31].count, 1U);
    EXPECT_EQ(tracker.getInternalMessages()[0].count, 1U);
    EXPECT_EQ(tracker.getInternalMessagesTracked(), 2U);
    EXPECT_EQ(tracker.getHostMessagesTracked(), 0U);
}

TEST_F(MessagesTrackerTest, InternalReportThrowsOnceEntry0WasTracked) {
    trackAt(1, 0);
    try {
        (void)tracker.getTrackedInternalMessagesStats("rx");
        ADD_FAILURE() << "no exception";
    } catch (const OVRA::InvalidMessageIDException& e) {
        EXPECT_EQ(e.getCode(), 1060U);
        EXPECT_STREQ(e.what(), "getInternalMessageIdString(). Invalid messageId: 0x80000000");
    }
}

TEST_F(MessagesTrackerTest, TimestampZeroIsNeverTakenAsAPreviousMessage) {
    trackAt(0, 7);
    trackAt(500, 7);
    EXPECT_DOUBLE_EQ(tracker.getHostMessages()[7].totalIntervalUs, 0.0);
    EXPECT_EQ(tracker.getHostMessages()[7].lastTimestampUs, 500U);
    trackAt(700, 7);
    EXPECT_DOUBLE_EQ(tracker.getHostMessages()[7].totalIntervalUs, 200.0);
}

TEST_F(MessagesTrackerTest, MessageNamesComeFromBothIdTables) {
    EXPECT_EQ(MessagesTracker::getMessageName(1), "FUSED_TRACK_DATA");
    EXPECT_EQ(MessagesTracker::getMessageName(OVRA::SYSTEM_APPLICATION_STATUS), "SYSTEM_APPLICATION_STATUS");
    EXPECT_EQ(MessagesTracker::getMessageName(26), "(null)");
    EXPECT_THROW(MessagesTracker::getMessageName(31), OVRA::InvalidMessageIDException);
}

TEST(MessagesTrackerClockTest, DefaultClockMeasuresRealIntervals) {
    if (std::getenv("CLOCK_DIVISOR") != nullptr) {
        GTEST_SKIP() << "needs the default clock divisor";
    }
    MessagesTracker tracker;
    tracker.track(3);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto slept_us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
    tracker.track(3);

    const double interval = tracker.getHostMessages()[3].totalIntervalUs;
    // The wall clock may be slewed a little; allow for it and for a loaded machine.
    EXPECT_GE(interval, 0.9 * static_cast<double>(slept_us) - 1000.0);
    EXPECT_LT(interval, static_cast<double>(slept_us) + 10e6);
}

} // namespace
