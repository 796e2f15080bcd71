#include "framework/Application.h"

#include <csignal>
#include <exception>
#include <thread>

#include "communication/OVRAInterSystemMessages.h"
#include "tests/framework/TestApplication.h"

namespace {

using namespace vidapp::test;
using App = OVRA::FeatureApplication<TestRecord_t>;

class ApplicationTest : public ::testing::Test {
protected:
    LogCapture log;
    TestPipe pipe{4, 1};
};

// The worker's sixth failed run stops the whole application with SIGINT, as an outside SIGINT
// would; five failed runs do not.
TEST_F(ApplicationTest, ReportsReadyServesAndStopsInOrderOnSigint) {
    VIDAPP_REQUIRE_SANDBOX();
    UdpReceiver launcher(OVRA::LAUNCHER_UDP_PORT);
    Child child([] { return runTestApplication(); });
    const Bytes ready = launcher.receive(DEADLINE).value_or(Bytes{});
    const std::uint64_t timestamp = toMessage(ready).timestamp;
    const OVRAInterSystemMessages::AppGUIDStatus_t status{"feature", 3}; // the name cut to 7 characters
    EXPECT_EQ(ready, stamped(testMessage(0, 0x8000002E, timestamp, 1), &status, sizeof(status))) << child.out();
    EXPECT_NE(timestamp, 0u);
    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    const OVRA::PDUMessage_t failing = testMessage(TestAlgorithm::THROW_VALUE);
    const OVRA::PDUMessage_t good = testMessage(5);
    for (const auto* message : {&failing, &failing, &failing, &failing, &failing, &good}) {
        sender.send(message, 28);
    }
    // One worker: the five failed runs are over once this one has run.
    ASSERT_TRUE(child.waitForOutput("TEST run value=5 thread=ApplicationRun-", DEADLINE)) << child.out();
    EXPECT_EQ(child.out().find("requesting shutdown"), std::string::npos);
    EXPECT_TRUE(child.running());
    sender.send(&failing, 28);
    const ChildResult result = child.wait(DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    std::vector<std::string> parts(6, "Error Code:      1301, Error Value:     77");
    parts.insert(parts.begin(),
                 {"inside the Application constructor\ninside the Application constructor after set_terminate \n",
                  "init() OK. (time= ", "commonMsgHandler started OK"});
    parts.insert(parts.end(),
                 {errorRecord(1206, "featureapp requesting shutdown due to exceptions"),
                  "mainEntry(): caught signal: 2", "commonMsgHandler stopped OK in ",
                  "stop(): stopping application thread(s) ...",
                  "featureAppThreadRun(): ApplicationRun-1 featureApp thread terminated OK.",
                  "stop(): app thread(s) terminated OK", "TEST stopFeatureApp", "stop(): feature app stopped OK",
                  "#Triggering Host Messages = [7]", "#Triggering Internal Messages = [0]",
                  "eatureAppRun() #runs= 1, #errors= 6, cadence= ", "stop(): OK", "stop() OK (time= ", "RESOURCES OK"});
    EXPECT_TRUE(inOrder(result.out, parts));
    // Messages may be served before start() has finished.
    EXPECT_TRUE(inOrder(result.out, {"commonMsgHandler started OK", "sent READY message ID: 0x8000002e to Launcher",
                                     "start() OK (time= ", "mainEntry(): caught signal: 2"}));
}

TEST_F(ApplicationTest, InitFailureStopsEverythingAndReturnsOneWithItsReason) {
    const std::tuple<std::exception_ptr, std::string, std::vector<std::string>> rows[] = {
        {std::make_exception_ptr(OVRAException(4242, "init refused")),
         "init refused",
         {errorRecord(4242, "mainEntry(): OVRA exception [init refused]"), "commonMsgHandler stopped OK in ",
          "eatureAppRun() #runs= 0, #errors= 0, cadence= 0.00 ms (shortest run= 0.00 ms, Longest run= 0.00 ms)",
          "stop(): OK", "stop() OK (time= "}},
        {std::make_exception_ptr(std::runtime_error("init broke")),
         "init broke",
         {errorRecord(1045, "mainEntry(): STD exception:[init broke]"), "stop() OK"}}};
    for (const auto& [failure, reason, parts] : rows) {
        SCOPED_TRACE(reason);
        log.clear();
        TestAlgorithm algorithm;
        algorithm.initFailure = failure;
        App application("featureapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1);
        EXPECT_EQ(application.main(), 1);
        EXPECT_EQ(application.getStartupFailure(), reason);
        EXPECT_TRUE(inOrder(log.dump(), parts));
        EXPECT_FALSE(log.contains("sent READY"));
    }
}

TEST_F(ApplicationTest, TerminateHandlerReportsWhatEndedTheProcess) {
    // 0: a std::exception escaped, 1: something else escaped, 2: no exception at all.
    for (const auto& [kind, branch] : {std::pair{0, "inside if\n"}, {1, "inside if\n"}, {2, "inside else\n"}}) {
        Child child([&, kind = kind] {
            EchoingLogCapture echo;
            TestAlgorithm algorithm;
            App application("featureapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1);
            kind == 2 ? std::terminate() : (void)0;
            try {
                kind == 0 ? throw std::runtime_error("escaped") : throw 42;
            } catch (...) {
                std::terminate();
            }
            return 0;
        });
        const ChildResult result = child.wait(DEADLINE);

        EXPECT_TRUE(sanitizerClean(result.err));
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        EXPECT_TRUE(
            inOrder(result.out, {"inside the applicationTerminateHandler() function\n",
                                 std::string("inside the applicationTerminateHandler() function ") + branch,
                                 errorRecord(1204, "terminate Handler:  (pid=" + std::to_string(child.pid()) + ") " +
                                                       (kind ? " unexpected exception!" : " exception:[escaped]"))}));
    }
}

// An algorithm whose own thread lets an exception escape on SIGUSR1.
class EscapingThreadAlgorithm : public TestAlgorithm {
public:
    void initialize() override {
        thread = std::thread([] {
            sigset_t usr1;
            OVRA::initSignalsMask(usr1, {SIGUSR1});
            int received = 0;
            sigwait(&usr1, &received);
            throw std::runtime_error("worker broke");
        });
    }
    std::thread thread; // still joinable when the process ends
};

// The process entry keeps its algorithm, whose thread is then still joinable, in static storage: an
// exception escaping that thread while the application runs is reported once and ends it with 1.
TEST_F(ApplicationTest, AnExceptionEscapingAThreadOfARunningApplicationIsReportedOnceWithStatusOne) {
    VIDAPP_REQUIRE_SANDBOX();
    UdpReceiver launcher(OVRA::LAUNCHER_UDP_PORT);
    Child child([] {
        sigset_t signals;
        OVRA::initSignalsMask(signals, {SIGINT, SIGTERM, SIGHUP, SIGUSR1});
        OVRA::blockThreadSignals(signals);
        static EchoingLogCapture echo;
        static EscapingThreadAlgorithm algorithm;
        static TestPipe staticPipe(4, 1);
        return App("featureapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, algorithm, staticPipe, 1).main();
    });
    ASSERT_TRUE(launcher.receive(DEADLINE).has_value()) << child.wait(DEADLINE).describe();
    child.signal(SIGUSR1);
    const ChildResult result = child.wait(DEADLINE);

    EXPECT_TRUE(sanitizerClean(result.err));
    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    const std::string record =
        errorRecord(1204, "terminate Handler:  (pid=" + std::to_string(child.pid()) + ")  exception:[worker broke]");
    EXPECT_EQ(result.out.find(record), result.out.rfind(record)) << result.out;
    EXPECT_NE(result.out.find(record), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("inside the applicationTerminateHandler() function\n"),
              result.out.rfind("inside the applicationTerminateHandler() function\n"));
}

TEST_F(ApplicationTest, DecodeLogsRejectedMessagesAndTheFeaturesExceptionsPerMessage) {
    TestAlgorithm algorithm;
    App application("featureapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1);
    OVRA::PDUMessage_t message = testMessage(5, TestPipe::REFUSED_ID);
    testing::internal::CaptureStdout();
    application.decodeMessagePayload(message);
    const std::string out = testing::internal::GetCapturedStdout();
    message.count = 8;
    application.decodeMessagePayload(message);
    application.decodeMessagePayload(testMessage(5));
    application.decodeMessagePayload(testMessage(5, TestPipe::THROWING_ID));
    application.decodeMessagePayload(testMessage(5, 0x80000033));

    EXPECT_THAT(out, testing::StartsWith("2\nvidapp: decodeMessagePayload(): decode message (ID: 0x0002, count: 7, "
                                         "Timestamp: 12345 us)\n"));
    EXPECT_EQ(log.countErrors(1203), 2u) << log.dump();
    EXPECT_EQ(log.count("vidapp: Dropped message ID: 0x0002, Count: 7. Inter-Arrival:[-1.00] ms."), 1u);
    // A rejected message still counts as an arrival.
    EXPECT_EQ(log.count("vidapp: Dropped message ID: 0x0002, Count: 8. Inter-Arrival:["), 1u);
    EXPECT_EQ(log.count("Inter-Arrival:[-"), 1u);
    EXPECT_EQ(log.count(errorRecord(4711, "decode() message ID: 0x0003 exception: test pipe refuses")), 1u);
    EXPECT_EQ(log.count(errorRecord(1045, "decode(): message ID: 0x80000033 exception: ")), 1u);
}

} // namespace
