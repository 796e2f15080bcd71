#include "framework/FeatureApplication.h"

#include <exception>

#include "tests/framework/TestApplication.h"

namespace {

using namespace vidapp::test;
using App = OVRA::FeatureApplication<TestRecord_t>;

// A channel whose read or release throws what the test sets.
class FailingChannel : public TestPipe {
public:
    FailingChannel() : TestPipe(1, 1) {}
    TestRecord_t* read() override {
        readFailure ? std::rethrow_exception(readFailure) : (void)0;
        return &record;
    }
    void releaseReader() override { releaseFailure ? std::rethrow_exception(releaseFailure) : (void)0; }

    std::exception_ptr readFailure, releaseFailure;
    TestRecord_t record{};
};

class FeatureApplicationTest : public ::testing::Test {
protected:
    LogCapture log;
    TestPipe pipe{4, 1};
    TestAlgorithm algorithm;
};

TEST_F(FeatureApplicationTest, ConstructorRefusesZeroThreadsAndRunKeepsItsStatistics) {
    expectFailure<OVRA::InvalidArgumentException>([&] { App("featureapp", "to_vidapp", 50427, algorithm, pipe, 0); },
                                                  1071, "FeatureApplication() ctor: numAppThreads must be > 0");
    const App application("featureapp", "to_vidapp", 50427, algorithm, pipe, 1); // hands pipe and hub over
    ASSERT_EQ(pipe.write(testMessage(5)), 4u);
    EXPECT_EQ(algorithm.run(), 0u);
    EXPECT_EQ(algorithm.getShortestRun_us(), algorithm.getLongestRun_us());
    EXPECT_EQ(algorithm.getTotalRunTime_us(), algorithm.getLongestRun_us());
    // A non-zero result is the algorithm's verdict, not an error of the run.
    ASSERT_EQ(pipe.write(testMessage(TestAlgorithm::FAIL_VALUE)), 4u);
    EXPECT_EQ(algorithm.run(), 9u);
    ASSERT_EQ(pipe.write(testMessage(TestAlgorithm::THROW_VALUE)), 4u);
    EXPECT_EQ(algorithm.run(), 77u);
    algorithm.setCommonMessageHandler(nullptr);
    ASSERT_EQ(pipe.write(testMessage(5)), 4u);
    EXPECT_EQ(algorithm.run(), 0u);
    EXPECT_EQ(algorithm.getNumberOfRuns(), 2u);
    EXPECT_EQ(algorithm.getNumberOfErrors(), 1u);
    EXPECT_EQ(log.count(errorRecord(77, "FeatureAppBase.run(): algo run: algo refused")), 1u) << log.dump();
    EXPECT_EQ(log.count(errorRecord(1064, "FeatureAppBase.run(): mCommonMessageHandlerPtr is null")), 1u);
    EXPECT_EQ(pipe.getFunctionBuffer().getFreeSlots(), 4u);
}

TEST_F(FeatureApplicationTest, ChannelFailuresAreLoggedAndCountedAsErrors) {
    struct Row {
        std::exception_ptr read, release;
        std::uint32_t result;
        const char* logged;
    };
    const auto ovra = [](const char* text) { return std::make_exception_ptr(OVRAException(4321, text)); };
    const auto standard = [](const char* text) { return std::make_exception_ptr(std::runtime_error(text)); };
    FailingChannel channel;
    const App application("featureapp", "to_vidapp", 50427, algorithm, channel, 1);
    for (const Row& row :
         {Row{nullptr, ovra("refused"), 4321, "FeatureAppBase.run(): release: refused"},
          Row{nullptr, standard("broke"), 1020, " FeatureAppBase.run(): release: broke"},
          Row{ovra("refused"), nullptr, 4321, "FeatureAppBase.run(): pipe exception: refused"},
          Row{standard("broke"), nullptr, 1045, "FeatureAppBase.run(): pipe exception: broke"},
          Row{std::make_exception_ptr(42), nullptr, 1023, "FeatureAppBase.run(): unexpected pipe exception!"}}) {
        SCOPED_TRACE(row.logged);
        channel.readFailure = row.read;
        channel.releaseFailure = row.release;
        EXPECT_EQ(algorithm.run(), row.result);
        EXPECT_EQ(log.count(errorRecord(row.result, row.logged)), 1u) << log.dump();
    }
    EXPECT_EQ(algorithm.getNumberOfErrors(), 5u);
    EXPECT_EQ(algorithm.getNumberOfRuns(), 2u);
}

// The running flag starts true, and stop() clears it before it wakes the workers: otherwise a
// woken worker would wait for a record again and the join would never end.
TEST_F(FeatureApplicationTest, WorkersServeWhatReceiveMessageTakesAndStopInOrder) {
    TestPipe sharedPipe(4, 2);
    testing::internal::CaptureStdout();
    {
        App application("featureapp", "to_vidapp", 50427, algorithm, sharedPipe, 2);
        application.init();
        EXPECT_TRUE(application.receiveMessage(testMessage(5)));
        EXPECT_FALSE(application.receiveMessage(testMessage(6, TestPipe::REFUSED_ID)));
        ASSERT_TRUE(log.waitFor("TEST run value=5 thread=ApplicationRun-", DEADLINE)) << log.dump();
        application.stop();
    }
    EXPECT_TRUE(inOrder(testing::internal::GetCapturedStdout(),
                        {"mRunning value at the start of scope1\nmRunning value after mFeatureApp  1\n"
                         "mRunning value at the end of scope1\n",
                         "inside featureAppThreadRun() \nmRunning value 1\n"}));
    for (const std::string worker : {"ApplicationRun-1", "ApplicationRun-2"}) {
        EXPECT_EQ(log.count("appThreadRun(): " + worker + " app thread started ... "), 1u) << log.dump();
        EXPECT_TRUE(inOrder(log.dump(), {"stop(): stopping application thread(s) ...",
                                         "featureAppThreadRun(): " + worker + " featureApp thread terminated OK.",
                                         "stop(): app thread(s) terminated OK", "#Triggering Host Messages = [1]",
                                         "eatureAppRun() #runs= 1, #errors= 0, cadence= ", "stop(): OK"}));
    }
}

} // namespace
