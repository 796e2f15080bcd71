#include "video_interface/BufferTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace {

class BufferTrackerTest : public ::testing::Test {
protected:
    // Tracks the buffer for the registered ids; `active` alone does not make a consumer waited for.
    void track(std::size_t buffer, std::initializer_list<std::size_t> registered, std::size_t active = 9) {
        BufferManager::ConsumerRegistry registry{};
        registry[active].active = true;
        for (const std::size_t id : registered) {
            registry[id].registered = true;
        }
        tracker.startTracking(buffer, 77, registry);
    }

    // The last log line without "", which it must start with.
    std::string lastLine() const {
        const std::string text = log.records().back().text;
        return text.starts_with("D: vidapp: BufferTracker.") ? text.substr(25) : text;
    }

    vidapp::test::LogCapture log;
    BufferTracker tracker;
};

TEST_F(BufferTrackerTest, ConsumersAreCrossedOffOnceUntilTheLastFinishesTrackingAndIdsAreBoundOnlyWhileTracking) {
    track(3, {2, 5, 18});
    EXPECT_EQ(lastLine(), "startTracking(): start tracking buffer#3, #consumers=3, consumersList:2, 5, 18, ");
    EXPECT_TRUE(tracker.consumerDone(5));
    EXPECT_TRUE(log.contains("D: vidapp: BufferTracker.consumerDone(): consumer:5 done processing buffer#3."));
    EXPECT_EQ(lastLine(),
              "consumerDone(): still tracking buffer#3, remaining #consumers=2, remainig consumersList:2, 18, ");
    EXPECT_FALSE(tracker.consumerDone(5));
    EXPECT_EQ(lastLine(), "consumerDone(): consumer:5 is already done for buffer#3");
    EXPECT_FALSE(tracker.consumerDone(9)) << "active but not registered: not waited for";

    track(5, {3, 11}); // overwrites the snapshot while 2 and 18 still read
    EXPECT_TRUE(tracker.consumerDone(11));
    EXPECT_EQ(lastLine(),
              "consumerDone(): still tracking buffer#5, remaining #consumers=1, remainig consumersList:3, ");
    EXPECT_TRUE(tracker.consumerDone(3));
    EXPECT_EQ(lastLine(), "consumerDone(): Not more reading consumers. Finished Tracking buffer#5.");
    EXPECT_EQ(log.count("Not more reading consumers"), 1U);

    EXPECT_FALSE(tracker.consumerDone(40)) << "an id out of range is accepted while idle";
    EXPECT_EQ(lastLine(), "consumerDone(): consumer:40. Buffer#5 is not being tracked anymore.");
    track(4, {});
    EXPECT_EQ(lastLine(), "startTracking(): start tracking buffer#4, #consumers=0, consumersList:");
    EXPECT_FALSE(tracker.consumerDone(0)) << "nobody registered: the tracker stays idle";
    track(2, {0});
    EXPECT_THAT([&] { tracker.consumerDone(40); }, testing::ThrowsMessage<std::out_of_range>(testing::StrEq(
                                                       "array::at: __n (which is 40) >= _Nm (which is 19)")));
    EXPECT_EQ(tracker.getConsumersRemaining(), 1U);
}

} // namespace
