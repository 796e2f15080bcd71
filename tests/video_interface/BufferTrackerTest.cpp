#include "video_interface/BufferTracker.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>
#include <string>

#include "tests/support/LogCapture.h"

namespace {

class BufferTrackerTest : public ::testing::Test {
protected:
    static BufferManager::ConsumerRegistry registered(std::initializer_list<std::size_t> ids) {
        BufferManager::ConsumerRegistry registry{};
        for (const std::size_t id : ids) {
            registry[id].registered = true;
        }
        return registry;
    }

    std::string lastLine() const {
        const auto records = log.records();
        return records.empty() ? std::string() : records.back().text;
    }

    vidapp::test::LogCapture log;
    BufferTracker tracker;
};

TEST_F(BufferTrackerTest, StartTrackingLogsTheCountAndTheListOfRegisteredConsumers) {
    tracker.startTracking(3, 77, registered({2, 5}));

    EXPECT_EQ(lastLine(), "D: vidapp: BufferTracker.startTracking(): start tracking buffer#3, #consumers=2, "
                          "consumersList:2, 5, ");
    EXPECT_EQ(tracker.getConsumersRemaining(), 2U);
    EXPECT_EQ(tracker.getTrackedBufferIndex(), 3U);
}

TEST_F(BufferTrackerTest, RegisteredConsumersAreWaitedForWhetherActiveOrNot) {
    auto registry = registered({4});
    registry[9].active = true; // active without being registered: not waited for

    tracker.startTracking(1, 0, registry);

    EXPECT_TRUE(tracker.isReading(4));
    EXPECT_FALSE(tracker.isReading(9));
    EXPECT_EQ(tracker.getConsumersRemaining(), 1U);
}

TEST_F(BufferTrackerTest, ConsumerDoneCrossesOffOnceAndLogsWhoIsStillReading) {
    tracker.startTracking(3, 0, registered({2, 5, 18}));

    EXPECT_TRUE(tracker.consumerDone(5));
    EXPECT_TRUE(log.contains("D: vidapp: BufferTracker.consumerDone(): consumer:5 done processing buffer#3."));
    EXPECT_EQ(lastLine(), "D: vidapp: BufferTracker.consumerDone(): still tracking buffer#3, remaining #consumers=2, "
                          "remainig consumersList:2, 18, ");

    EXPECT_FALSE(tracker.consumerDone(5));
    EXPECT_EQ(lastLine(), "D: vidapp: BufferTracker.consumerDone(): consumer:5 is already done for buffer#3");
    EXPECT_EQ(tracker.getConsumersRemaining(), 2U);
}

TEST_F(BufferTrackerTest, AConsumerOutsideTheSnapshotIsAlreadyDone) {
    tracker.startTracking(6, 0, registered({1}));

    EXPECT_FALSE(tracker.consumerDone(7));
    EXPECT_EQ(lastLine(), "D: vidapp: BufferTracker.consumerDone(): consumer:7 is already done for buffer#6");
}

TEST_F(BufferTrackerTest, TheLastConsumerFinishesTrackingExactlyOnce) {
    tracker.startTracking(8, 0, registered({2, 5}));
    ASSERT_TRUE(tracker.consumerDone(2));
    ASSERT_TRUE(tracker.consumerDone(5));

    EXPECT_EQ(lastLine(),
              "D: vidapp: BufferTracker.consumerDone(): Not more reading consumers. Finished Tracking buffer#8.");
    EXPECT_EQ(tracker.getConsumersRemaining(), 0U);

    EXPECT_FALSE(tracker.consumerDone(2));
    EXPECT_EQ(lastLine(),
              "D: vidapp: BufferTracker.consumerDone(): consumer:2. Buffer#8 is not being tracked anymore.");
    EXPECT_EQ(log.count("Not more reading consumers"), 1U);
}

TEST_F(BufferTrackerTest, AnOutOfRangeIdIsAcceptedWhileIdleAndThrowsWhileTracking) {
    EXPECT_FALSE(tracker.consumerDone(40));
    EXPECT_EQ(lastLine(),
              "D: vidapp: BufferTracker.consumerDone(): consumer:40. Buffer#0 is not being tracked anymore.");

    tracker.startTracking(2, 0, registered({0}));
    try {
        tracker.consumerDone(40);
        FAIL() << "consumerDone(40) while tracking did not throw";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "array::at: __n (which is 40) >= _Nm (which is 19)");
    }
    EXPECT_EQ(tracker.getConsumersRemaining(), 1U);
}

TEST_F(BufferTrackerTest, TrackingWithoutRegisteredConsumersLeavesTheTrackerIdle) {
    tracker.startTracking(4, 0, registered({}));

    EXPECT_EQ(lastLine(),
              "D: vidapp: BufferTracker.startTracking(): start tracking buffer#4, #consumers=0, consumersList:");
    EXPECT_EQ(tracker.getConsumersRemaining(), 0U);
    EXPECT_FALSE(tracker.consumerDone(0));
    EXPECT_TRUE(log.contains("consumer:0. Buffer#4 is not being tracked anymore."));
}

TEST_F(BufferTrackerTest, ANewStartOverwritesThePreviousSnapshot) {
    tracker.startTracking(1, 0, registered({2, 3}));
    ASSERT_TRUE(tracker.consumerDone(2));

    tracker.startTracking(5, 0, registered({3, 11}));

    EXPECT_EQ(tracker.getConsumersRemaining(), 2U);
    EXPECT_FALSE(tracker.isReading(2));
    EXPECT_TRUE(tracker.consumerDone(11));
    EXPECT_EQ(lastLine(), "D: vidapp: BufferTracker.consumerDone(): still tracking buffer#5, remaining #consumers=1, "
                          "remainig consumersList:3, ");
}

} // namespace
