#include "framework/Application.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "communication/DataValidity.h"
#include "communication/OVRAInterSystemMessages.h"
#include "tests/framework/TestApplication.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Udp.h"

namespace {

using namespace std::chrono_literals;
using namespace vidapp::test;

constexpr auto DEADLINE = 20s;

// An application whose feature accepts, rejects or throws as the test chooses; never started.
class DecodingApplication : public OVRA::Application {
public:
    enum class Behaviour { ACCEPT, REJECT, THROW_OVRA, THROW_STANDARD };

    DecodingApplication() : Application("testapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT) {}

    bool receiveMessage(const OVRA::PDUMessage_t&) override {
        switch (behaviour) {
        case Behaviour::THROW_OVRA:
            throw OVRAException(4711, "feature refused");
        case Behaviour::THROW_STANDARD:
            throw std::runtime_error("feature broke");
        default:
            return behaviour == Behaviour::ACCEPT;
        }
    }

    Behaviour behaviour = Behaviour::REJECT;
};

class ApplicationTest : public ::testing::Test {
protected:
    std::string record(std::uint32_t code, const std::string& text) {
        return "[record] E:  Error Code:      " + std::to_string(code) + ", Error Message:      vidapp: " + text;
    }

    LogCapture log;
};

TEST_F(ApplicationTest, ReportsReadyServesAndStopsInOrderOnSigint) {
    VIDAPP_REQUIRE_SANDBOX();
    UdpReceiver launcher(OVRA::LAUNCHER_UDP_PORT);
    Child child([] { return runTestApplication({}); });

    const auto ready = launcher.receive(DEADLINE);
    ASSERT_TRUE(ready) << child.out();
    ASSERT_EQ(ready->size(), 44u);
    OVRA::PDUMessage_t message{};
    std::memcpy(&message, ready->data(), ready->size());
    EXPECT_EQ(message.messageId, 0x8000002Eu);
    EXPECT_EQ(message.length, 36u);
    EXPECT_EQ(message.count, 1u);
    EXPECT_EQ(message.version, 0u);
    EXPECT_NE(message.timestamp, 0u);
    EXPECT_EQ(message.crc, DataValidity::computeMessageCRC(&message));
    OVRAInterSystemMessages::AppGUIDStatus_t status{};
    std::memcpy(&status, message.payload, sizeof(status));
    EXPECT_EQ(std::string(status.guid, sizeof(status.guid)), std::string("feature\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(status.status, 3u);

    UdpSender sender(OVRA::VIDAPP_UDP_PORT);
    const OVRA::PDUMessage_t taken = takenMessage(5);
    sender.send(&taken, 28);
    ASSERT_TRUE(child.waitForOutput("TEST run value=5 thread=ApplicationRun-", DEADLINE)) << child.out();
    child.signal(SIGINT);
    const ChildResult result = child.wait(DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    ASSERT_TRUE(result.exited) << result.describe();
    EXPECT_EQ(result.exitCode, 0) << result.describe();
    EXPECT_TRUE(
        inOrder(result.out,
                {"inside the Application constructor\ninside the Application constructor after "
                 "set_terminate \nmRunning value at the start of scope1\nmRunning value after "
                 "mFeatureApp  1\nmRunning value at the end of scope1\n",
                 "init() OK. (time= ", "commonMsgHandler started OK", "sent READY message ID: 0x8000002e to Launcher",
                 "start() OK (time= ", "mainEntry(): caught signal: 2", "commonMsgHandler stopped OK in ",
                 "stop(): stopping application thread(s) ...",
                 "featureAppThreadRun(): ApplicationRun-1 featureApp thread terminated OK.",
                 "stop(): app thread(s) terminated OK", "TEST stopFeatureApp", "stop(): feature app stopped OK",
                 "#Triggering Host Messages = [1]", "#Triggering Internal Messages = [0]",
                 "eatureAppRun() #runs= 1, #errors= 0, cadence= ", "stop(): OK", "stop() OK (time= ", "RESOURCES"}));

    // The message may be served before start() has finished.
    EXPECT_TRUE(inOrder(result.out, {"commonMsgHandler started OK", "\n1\n", "mainEntry(): caught signal: 2"}));

    // A whole life in under a second, without a thread or descriptor left behind.
    std::size_t tasks[2] = {};
    std::size_t fds[2] = {};
    long long elapsed_ms = -1;
    ASSERT_EQ(std::sscanf(result.out.c_str() + result.out.find("RESOURCES"),
                          "RESOURCES tasks=%zu/%zu fds=%zu/%zu elapsed_ms=%lld", &tasks[0], &tasks[1], &fds[0], &fds[1],
                          &elapsed_ms),
              5);
    EXPECT_EQ(tasks[0], tasks[1]);
    EXPECT_EQ(fds[0], fds[1]);
    EXPECT_LT(elapsed_ms, 1000);
}

TEST_F(ApplicationTest, PendingSigintEndsTheWaitAtOnce) {
    VIDAPP_REQUIRE_SANDBOX();
    TestApplicationOptions options;
    options.sigintBeforeMain = true;
    const ChildResult result = runInChild([&] { return runTestApplication(options); }, {}, DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_TRUE(inOrder(result.out, {"sent READY message", "mainEntry(): caught signal: 2", "stop(): OK"}));
}

TEST_F(ApplicationTest, InitFailureReturnsOneAfterStopping) {
    VIDAPP_REQUIRE_SANDBOX();
    TestApplicationOptions options;
    options.initFailure = TestAlgorithm::InitFailure::OVRA;
    ChildResult result = runInChild([&] { return runTestApplication(options); }, {}, DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    EXPECT_TRUE(inOrder(result.out, {record(4242, "mainEntry(): OVRA exception [init refused]"),
                                     "commonMsgHandler stopped OK in ", "stop(): OK", "stop() OK (time= "}));
    EXPECT_EQ(result.out.find("sent READY"), std::string::npos);

    options.initFailure = TestAlgorithm::InitFailure::STANDARD;
    result = runInChild([&] { return runTestApplication(options); }, {}, DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    EXPECT_TRUE(inOrder(result.out, {record(1045, "mainEntry(): STD exception:[init broke]"), "stop() OK (time= "}));
}

TEST_F(ApplicationTest, UnusablePortFailsTheStartAfterTheWorkersWereStarted) {
    VIDAPP_REQUIRE_SANDBOX();
    UdpReceiver squatter(OVRA::VIDAPP_UDP_PORT);
    const ChildResult result = runInChild([] { return runTestApplication({}); }, {}, DEADLINE);
    EXPECT_TRUE(sanitizerClean(result.err));

    EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
    EXPECT_NE(result.out.find("appThreadRun(): ApplicationRun-1 app thread started ... "), std::string::npos);
    EXPECT_TRUE(inOrder(result.out, {"init() OK. (time= ",
                                     "[record] E:  Error Code:      1000, Error Message:      vidapp: mainEntry(): "
                                     "OVRA exception [",
                                     "stop(): app thread(s) terminated OK",
                                     "eatureAppRun() #runs= 0, #errors= 0, cadence= 0.00 ms (shortest run= 0.00 ms, "
                                     "Longest run= 0.00 ms)",
                                     "stop() OK (time= "}));
}

TEST_F(ApplicationTest, StartupFailureKeepsItsReasonForTheProcessEntry) {
    VIDAPP_REQUIRE_SANDBOX();
    // The reason is printed by the child: "REASON [<text>] STATUS <n>".
    const auto run = [](TestAlgorithm::InitFailure failure) {
        return runInChild(
            [failure] {
                blockSigint();
                EchoingLogCapture capture;
                TestPipe pipe(8, 1);
                TestAlgorithm algorithm(failure);
                OVRA::FeatureApplication<TestRecord_t> application("featureapp", OVRA::VIDAPP_CHANNEL_NAME,
                                                                   OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1);
                if (failure == TestAlgorithm::InitFailure::NONE) {
                    kill(getpid(), SIGINT);
                }
                const int status = application.main();
                std::printf("REASON [%s] STATUS %d\n", application.getStartupFailure().c_str(), status);
                return 0;
            },
            {}, DEADLINE);
    };

    ChildResult result = run(TestAlgorithm::InitFailure::OVRA);
    EXPECT_NE(result.out.find("REASON [init refused] STATUS 1\n"), std::string::npos) << result.describe();
    result = run(TestAlgorithm::InitFailure::STANDARD);
    EXPECT_NE(result.out.find("REASON [init broke] STATUS 1\n"), std::string::npos) << result.describe();
    {
        UdpReceiver squatter(OVRA::VIDAPP_UDP_PORT);
        result = run(TestAlgorithm::InitFailure::NONE);
    }
    EXPECT_NE(result.out.find("REASON [InputIPC::setupUDP(): channel [to_vidapp], upd port:50427, bind() errno: 98 "
                              "(Address already in use)] STATUS 1\n"),
              std::string::npos)
        << result.describe();
    result = run(TestAlgorithm::InitFailure::NONE);
    EXPECT_NE(result.out.find("REASON [] STATUS 0\n"), std::string::npos) << result.describe();
}

TEST_F(ApplicationTest, TerminateHandlerReportsWhatEndedTheProcess) {
    struct Case {
        int kind; // 0: a std::exception, 1: something else, 2: no exception at all
        const char* branch;
        const char* report;
    };
    for (const Case& c : {Case{0, "inside if", " exception:[escaped]"}, Case{1, "inside if", " unexpected exception!"},
                          Case{2, "inside else", " unexpected exception!"}}) {
        Child child([kind = c.kind] {
            EchoingLogCapture echo;
            DecodingApplication application;
            if (kind == 2) {
                std::terminate();
            }
            try {
                if (kind == 0) {
                    throw std::runtime_error("escaped");
                }
                throw 42;
            } catch (...) {
                std::terminate();
            }
            return 0;
        });
        const ChildResult result = child.wait(DEADLINE);
        EXPECT_TRUE(sanitizerClean(result.err));

        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        EXPECT_TRUE(inOrder(
            result.out, {"inside the applicationTerminateHandler() function\n",
                         std::string("inside the applicationTerminateHandler() function ") + c.branch + "\n",
                         record(1204, "terminate Handler:  (pid=" + std::to_string(child.pid()) + ") " + c.report)}));
    }
}

TEST_F(ApplicationTest, RejectedMessagesAreLoggedWithTheTimeSinceThePreviousOne) {
    DecodingApplication application;
    OVRA::PDUMessage_t message = takenMessage(5, 2);

    testing::internal::CaptureStdout();
    application.decodeMessagePayload(message);
    const std::string out = testing::internal::GetCapturedStdout();
    message.count = 8;
    application.decodeMessagePayload(message);
    application.behaviour = DecodingApplication::Behaviour::ACCEPT;
    application.decodeMessagePayload(message);

    EXPECT_EQ(
        out.rfind("2\nvidapp: decodeMessagePayload(): decode message (ID: 0x0002, count: 7, Timestamp: 12345 us)\n", 0),
        0u)
        << out;
    EXPECT_EQ(log.countErrors(1203), 2u) << log.dump();
    EXPECT_EQ(log.count("vidapp: Dropped message ID: 0x0002, Count: 7. Inter-Arrival:[-1.00] ms."), 1u);
    EXPECT_EQ(log.count("vidapp: Dropped message ID: 0x0002, Count: 8. Inter-Arrival:["), 1u);
    EXPECT_EQ(log.count("Inter-Arrival:[-"), 1u);
    EXPECT_GE(application.getInterArrivalTime_ms(ovraSystemTimestamp_us()), 0.0);
}

TEST_F(ApplicationTest, ExceptionsOfTheFeatureAreLoggedPerMessage) {
    DecodingApplication application;
    const OVRA::PDUMessage_t message = takenMessage(5, 3);

    application.behaviour = DecodingApplication::Behaviour::THROW_OVRA;
    application.decodeMessagePayload(message);
    application.behaviour = DecodingApplication::Behaviour::THROW_STANDARD;
    application.decodeMessagePayload(message);

    EXPECT_EQ(log.count("Error Code:      4711, Error Message:      vidapp: decode() message ID: 0x0003 exception: "
                        "feature refused"),
              1u)
        << log.dump();
    EXPECT_EQ(log.count("Error Code:      1045, Error Message:      vidapp: decode(): message ID: 0x0003 exception: "
                        "feature broke"),
              1u);
    EXPECT_EQ(log.countErrors(1203), 0u);
}

} // namespace
