#include "framework/FeatureApplication.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "tests/framework/TestApplication.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;
using namespace vidapp::test;

constexpr auto DEADLINE = 20s;

class NoOutput : public FeatureAppOutput {
public:
    void sendFeatureAppResults(unsigned int, const void*, unsigned long) override {}
    void sendFeatureAppResults(OVRA::PDUWriteOnly&) override {}
    void sendFeatureAppResults(OVRA::PDUReadWrite&) override {}
};

// A channel whose read or release fails as the test chooses.
class FailingChannel : public OVRA::ChannelReaderWriter<TestRecord_t> {
public:
    enum class Failure { NONE, OVRA, STANDARD, OTHER };

    bool isTrigger() override { return false; }
    unsigned long writeToBuffer(const OVRA::PDUMessage_t&) override { return 0; }
    TestRecord_t* read() override {
        fail(readFailure, "read");
        return &record;
    }
    void releaseReader() override { fail(releaseFailure, "release"); }
    std::uint64_t write(const OVRA::PDUMessage_t&) override { return 0; }
    void releaseWriter() override {}
    void closeWrite() override {}
    const MessagesTracker& getMessagesTracker() const override { return tracker; }

    Failure readFailure = Failure::NONE;
    Failure releaseFailure = Failure::NONE;

private:
    static void fail(Failure failure, const std::string& what) {
        switch (failure) {
        case Failure::OVRA:
            throw OVRAException(4321, (what + " refused").c_str());
        case Failure::STANDARD:
            throw std::runtime_error(what + " broke");
        case Failure::OTHER:
            throw 42;
        case Failure::NONE:
            break;
        }
    }

    TestRecord_t record{};
    MessagesTracker tracker;
};

class FeatureApplicationTest : public ::testing::Test {
protected:
    std::string error(std::uint32_t code, const std::string& text) {
        return "E:  Error Code:      " + std::to_string(code) + ", Error Message:      vidapp: " + text;
    }

    LogCapture log;
    TestPipe pipe{4, 1};
    TestAlgorithm algorithm;
    NoOutput output;
};

TEST_F(FeatureApplicationTest, ConstructorRefusesZeroThreadsAndHandsTheHubToTheAlgorithm) {
    try {
        OVRA::FeatureApplication<TestRecord_t> application("featureapp", "to_vidapp", 50427, algorithm, pipe, 0);
        FAIL() << "zero threads accepted";
    } catch (const OVRA::InvalidArgumentException& e) {
        EXPECT_EQ(e.getCode(), 1071u);
        EXPECT_STREQ(e.what(), "FeatureApplication() ctor: numAppThreads must be > 0");
    }

    OVRA::FeatureApplication<TestRecord_t> application("featureapp", "to_vidapp", 50427, algorithm, pipe, 1);
    EXPECT_NE(algorithm.getCommonMessageHandler(), nullptr);
}

TEST_F(FeatureApplicationTest, RunProcessesOneRecordAndKeepsItsStatistics) {
    algorithm.setChannel(&pipe);
    algorithm.setCommonMessageHandler(&output);

    ASSERT_EQ(pipe.write(takenMessage(5)), 4u);
    EXPECT_EQ(algorithm.run(), 0u);
    EXPECT_EQ(algorithm.getNumberOfRuns(), 1u);
    EXPECT_EQ(algorithm.getShortestRun_us(), algorithm.getLongestRun_us());
    EXPECT_EQ(algorithm.getTotalRunTime_us(), algorithm.getLongestRun_us());

    // A non-zero result is the algorithm's verdict, not an error of the run.
    ASSERT_EQ(pipe.write(takenMessage(TestAlgorithm::FAIL_VALUE)), 4u);
    EXPECT_EQ(algorithm.run(), 9u);
    ASSERT_EQ(pipe.write(takenMessage(TestAlgorithm::THROW_VALUE)), 4u);
    EXPECT_EQ(algorithm.run(), 77u);

    EXPECT_EQ(algorithm.getNumberOfRuns(), 2u);
    EXPECT_EQ(algorithm.getNumberOfErrors(), 1u);
    EXPECT_EQ(log.count(error(77, "FeatureAppBase.run(): algo run: algo refused")), 1u) << log.dump();
    EXPECT_EQ(pipe.getFunctionBuffer().getFreeSlots(), 4u);
}

TEST_F(FeatureApplicationTest, RunWithoutOutputLogs1064AndReleasesTheRecord) {
    algorithm.setChannel(&pipe);
    ASSERT_EQ(pipe.write(takenMessage(5)), 4u);

    EXPECT_EQ(algorithm.run(), 0u);

    EXPECT_EQ(log.count(error(1064, "FeatureAppBase.run(): mCommonMessageHandlerPtr is null")), 1u) << log.dump();
    EXPECT_FALSE(algorithm.waitForRuns(1, 0ms));
    EXPECT_EQ(pipe.getFunctionBuffer().getFreeSlots(), 4u);
}

TEST_F(FeatureApplicationTest, ChannelFailuresAreLoggedAndCountedAsErrors) {
    using Failure = FailingChannel::Failure;
    FailingChannel channel;
    algorithm.setChannel(&channel);
    algorithm.setCommonMessageHandler(&output);

    channel.releaseFailure = Failure::OVRA;
    EXPECT_EQ(algorithm.run(), 4321u);
    channel.releaseFailure = Failure::STANDARD;
    EXPECT_EQ(algorithm.run(), 1020u);
    channel.readFailure = Failure::OVRA;
    EXPECT_EQ(algorithm.run(), 4321u);
    channel.readFailure = Failure::STANDARD;
    EXPECT_EQ(algorithm.run(), 1045u);
    channel.readFailure = Failure::OTHER;
    EXPECT_EQ(algorithm.run(), 1023u);

    EXPECT_EQ(log.count(error(4321, "FeatureAppBase.run(): release: release refused")), 1u) << log.dump();
    EXPECT_EQ(log.count(error(1020, " FeatureAppBase.run(): release: release broke")), 1u);
    EXPECT_EQ(log.count(error(4321, "FeatureAppBase.run(): pipe exception: read refused")), 1u);
    EXPECT_EQ(log.count(error(1045, "FeatureAppBase.run(): pipe exception: read broke")), 1u);
    EXPECT_EQ(log.count(error(1023, "FeatureAppBase.run(): unexpected pipe exception!")), 1u);
    EXPECT_EQ(algorithm.getNumberOfErrors(), 5u);
    EXPECT_EQ(algorithm.getNumberOfRuns(), 2u);
}

TEST_F(FeatureApplicationTest, WorkersServeWhatReceiveMessageTakesAndStopInOrder) {
    TestPipe sharedPipe(4, 2);
    OVRA::FeatureApplication<TestRecord_t> application("featureapp", "to_vidapp", 50427, algorithm, sharedPipe, 2);
    application.init();

    EXPECT_TRUE(application.receiveMessage(takenMessage(5)));
    EXPECT_FALSE(application.receiveMessage(takenMessage(6, 2)));
    ASSERT_TRUE(algorithm.waitForRuns(1, DEADLINE));
    application.stop();

    for (const char* worker : {"ApplicationRun-1", "ApplicationRun-2"}) {
        EXPECT_EQ(log.count(std::string("appThreadRun(): ") + worker + " app thread started ... "), 1u) << log.dump();
        EXPECT_EQ(log.count(std::string("featureAppThreadRun(): ") + worker + " featureApp thread terminated OK."), 1u);
    }
    std::string lines;
    for (const auto& record : log.records()) {
        lines += record.text + "\n";
    }
    EXPECT_TRUE(inOrder(lines, {"stop(): stopping application thread(s) ...", "stop(): app thread(s) terminated OK",
                                "stop(): feature app stopped OK", "#Triggering Host Messages = [1]",
                                "#Triggering Internal Messages = [0]",
                                "eatureAppRun() #runs= 1, #errors= 0, cadence= ", "stop(): OK"}));
}

TEST_F(FeatureApplicationTest, SixthFailedRunStopsTheApplicationAndFiveDoNot) {
    VIDAPP_REQUIRE_SANDBOX();
    Child child([] { return runTestApplication({}); });
    ASSERT_TRUE(child.waitForOutput("sent READY message", DEADLINE)) << child.out();
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    const OVRA::PDUMessage_t failing = takenMessage(TestAlgorithm::THROW_VALUE);
    const OVRA::PDUMessage_t good = takenMessage(5);

    for (int run = 0; run < 5; ++run) {
        sender.send(&failing, 28);
    }
    sender.send(&good, 28);
    ASSERT_TRUE(child.waitForOutput("TEST run value=5", DEADLINE)) << child.out();
    EXPECT_EQ(child.out().find("requesting shutdown"), std::string::npos);
    EXPECT_TRUE(child.running());
    sender.send(&failing, 28);
    const ChildResult result = child.wait(DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    std::size_t failedRuns = 0;
    for (std::size_t at = result.out.find("Error Code:      1301, Error Value:     77"); at != std::string::npos;
         at = result.out.find("Error Code:      1301, Error Value:     77", at + 1)) {
        ++failedRuns;
    }
    EXPECT_EQ(failedRuns, 6u);
    EXPECT_TRUE(
        inOrder(result.out, {"Error Code:      1206, Error Message:      vidapp: featureapp requesting "
                             "shutdown due to exceptions",
                             "mainEntry(): caught signal: 2", "eatureAppRun() #runs= 1, #errors= 6, ", "stop(): OK"}));
}

} // namespace
