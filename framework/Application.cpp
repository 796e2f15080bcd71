#include "framework/Application.h"
#include "log/ConsoleOutput.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <pthread.h>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "communication/DataValidity.h"
#include "communication/OVRAInterSystemMessages.h"
#include "communication/OutputIPC.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace {

constexpr std::uint32_t SIGWAIT_ERROR = 1003;
constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t DROPPED_MESSAGE_ERROR = 1203;
constexpr std::uint32_t TERMINATE_ERROR = 1204;

constexpr std::uint32_t READY_LENGTH_FIELD =
    PDU_LENGTH_FIELD_HEADER_BYTES + sizeof(OVRAInterSystemMessages::AppGUIDStatus_t);
constexpr std::size_t READY_NAME_CHARACTERS = 7;

std::uint64_t now_ms() {
    return ovraSystemTimestamp_us() / 1000;
}

// The other threads still run and use the process's objects, so their destructors must not run:
// quick_exit runs only the handlers registered for this case (the frame segment's removal).
[[noreturn]] void endAfterTerminate() {
    std::fflush(stdout);
    std::quick_exit(1);
}

void writeLine(const char* line) {
    consoleLine(line);
}

} // namespace

Application::Application(const std::string& applicationName, const std::string& inputChannelName,
                         std::uint16_t inputPort)
    : mApplicationName(applicationName), mInputChannelName(inputChannelName), mInputPort(inputPort),
      mCommonMessageHandler(inputChannelName, inputPort, *this), mTimer("TimerRun") {
    writeLine("inside the Application constructor");
    std::set_terminate(applicationTerminateHandler);
    writeLine("inside the Application constructor after set_terminate ");
}

Application::Application(const std::string& applicationName, const std::string& inputChannelName,
                         std::uint16_t inputPort, const std::string& outputChannelName, std::uint16_t outputPort)
    : mApplicationName(applicationName), mInputChannelName(inputChannelName), mInputPort(inputPort),
      mCommonMessageHandler(inputChannelName, inputPort, *this, outputChannelName, outputPort), mTimer("TimerRun") {
    writeLine("inside the Application constructor");
    std::set_terminate(applicationTerminateHandler);
    writeLine("inside the Application constructor after set_terminate ");
}

Application::~Application() {
    try {
        mCommonMessageHandler.stopCommonMsgHandler();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "~Application(): commonMsgHandler: %s", e.what());
    }
    try {
        mTimer.stopTimer();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "~Application(): timer: %s", e.what());
    }
}

int Application::main() {
    // The main thread keeps the process's name, by which operators find it (pgrep, pkill, top).
    sigset_t signals;
    try {
        initApplication();
        startApplication();
        initSignalsMask(signals, stopSignals());
    } catch (const OVRAException& e) {
        mStartupFailure = e.what();
        ovraLogImplementErrorPrintf(e.getCode(), "mainEntry(): OVRA exception [%s]", e.what());
        stopApplication();
        return 1;
    } catch (const std::exception& e) {
        mStartupFailure = e.what();
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "mainEntry(): STD exception:[%s]", e.what());
        stopApplication();
        return 1;
    }
    for (;;) {
        siginfo_t info{};
        const int signalNumber = sigwaitinfo(&signals, &info);
        if (signalNumber == -1) {
            const int error = errno;
            if (error != EINTR) {
                ovraLogImplementErrorPrintf(SIGWAIT_ERROR, "mainEntry(): sigwaitinfo() errno: %d (%s)", error,
                                            std::strerror(error));
            }
            continue;
        }
        ovraLogImplementPrintf("mainEntry(): caught signal: %d", LOG_LEVEL_INFO, signalNumber);
        return stopApplication();
    }
}

void Application::initApplication() {
    const std::uint64_t startTime_ms = now_ms();
    init();
    ovraLogImplementPrintf("init() OK. (time= %lu ms)", LOG_LEVEL_INFO, now_ms() - startTime_ms);
}

void Application::startApplication() {
    mCommonMessageHandler.startCommonMsgHandler();
    ovraLogImplementPrintf("commonMsgHandler started OK", LOG_LEVEL_INFO);
    sendReadyMessage();
    const std::uint64_t startTime_ms = now_ms();
    start();
    ovraLogImplementPrintf("start() OK (time= %lu ms)", LOG_LEVEL_INFO, now_ms() - startTime_ms);
}

int Application::stopApplication() {
    mRunning.store(0, std::memory_order_release);
    try {
        const std::uint64_t startTime_ms = now_ms();
        mCommonMessageHandler.stopCommonMsgHandler();
        ovraLogImplementPrintf("commonMsgHandler stopped OK in %lu ms", LOG_LEVEL_INFO, now_ms() - startTime_ms);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "commonMsgHandler stop exception: [%s]", e.what());
    } catch (const std::exception& e) {
        // Names the hub differently from the line above; log readers search for both.
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "commsFrontEnd stop exception: [%s]", e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "commonMsgHandler stop: unexpected exception");
    }
    try {
        const std::uint64_t startTime_ms = now_ms();
        stop();
        ovraLogImplementPrintf("stop() OK (time= %lu ms)", LOG_LEVEL_INFO, now_ms() - startTime_ms);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "stop(): exception [%s]", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "stop(): exception [%s]", e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "stop(): unexpected exception");
    }
    try {
        mTimer.stopTimer();
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "stop(): timer: %s", e.what());
        return 1;
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "stop(): timer: %s", e.what());
        return 1;
    }
    return 0;
}

void Application::sendReadyMessage() {
    OutputIPC launcher(LAUNCHER_CHANNEL_NAME, LAUNCHER_UDP_PORT);
    PDUMessage_t message{};
    message.messageId = APP_GUID_STATUS;
    message.length = READY_LENGTH_FIELD;
    message.count = 1;
    message.version = 0;
    message.timestamp = ovraSystemTimestamp_us();
    OVRAInterSystemMessages::AppGUIDStatus_t ready{};
    mApplicationName.copy(ready.guid, READY_NAME_CHARACTERS);
    ready.status = RUNNING;
    std::memcpy(message.payload, &ready, sizeof(ready));
    message.crc = DataValidity::computeMessageCRC(&message);
    launcher.sendMessage(&message, static_cast<std::size_t>(message.length) + PDU_ID_AND_LENGTH_BYTES);
    launcher.stop();
    ovraLogImplementPrintf("sent READY message ID: 0x%04x to Launcher", LOG_LEVEL_INFO, message.messageId);
}

void Application::decodeMessagePayload(const PDUMessage_t& message) {
    // A trace of every message ID on the console, kept for the system's integration logs.
    consolePrintf("%u\n", message.messageId);
    const std::uint64_t now = ovraSystemTimestamp_us();
    try {
        ovraLogImplementPrintf("decodeMessagePayload(): decode message (ID: 0x%04x, count: %u, Timestamp: %lu us)",
                               LOG_LEVEL_VERBOSE, message.messageId, static_cast<unsigned>(message.count),
                               message.timestamp);
        if (receiveMessage(message)) {
            mConsecutiveDroppedMessages = 0;
        } else {
            ++mConsecutiveDroppedMessages;
            logDroppedMessage(message, now);
        }
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "decode() message ID: 0x%04x exception: %s", message.messageId,
                                    e.what());
    } catch (const std::exception& e) {
        // One colon more than the line above; both are searched for as they are.
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "decode(): message ID: 0x%04x exception: %s",
                                    message.messageId, e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "decode(): message ID: 0x%04x unexpected exception",
                                    message.messageId);
    }
    recordArrivalTime_us(message, now);
}

void Application::recordArrivalTime_us(const PDUMessage_t& message, std::uint64_t now_us) {
    mLastMessageId = message.messageId;
    mLastArrivalTime_us = now_us;
}

double Application::getInterArrivalTime_ms(std::uint64_t now_us) const {
    if (mLastArrivalTime_us == 0) {
        return -1.0;
    }
    return static_cast<double>(now_us - mLastArrivalTime_us) / 1000.0;
}

void Application::logDroppedMessage(const PDUMessage_t& message, std::uint64_t now_us) const {
    ovraLogImplementErrorPrintf(DROPPED_MESSAGE_ERROR,
                                "Dropped message ID: 0x%04x, Count: %u. Inter-Arrival:[%.2f] ms.", message.messageId,
                                static_cast<unsigned>(message.count), getInterArrivalTime_ms(now_us));
}

void Application::applicationTerminateHandler() {
    // A second terminate while the first is handled (another thread's, or one from the exit path)
    // must not log again or enter exit twice.
    static std::atomic<bool> entered{false};
    if (entered.exchange(true)) {
        std::_Exit(1);
    }
    writeLine("inside the applicationTerminateHandler() function");
    const std::string tag = " (pid=" + std::to_string(getpid()) + ") ";
    const std::exception_ptr current = std::current_exception();
    if (!current) {
        writeLine("inside the applicationTerminateHandler() function inside else");
        ovraLogImplementErrorPrintf(TERMINATE_ERROR, "terminate Handler: %s unexpected exception!", tag.c_str());
        endAfterTerminate();
    }
    writeLine("inside the applicationTerminateHandler() function inside if");
    try {
        std::rethrow_exception(current);
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(TERMINATE_ERROR, "terminate Handler: %s exception:[%s]", tag.c_str(), e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(TERMINATE_ERROR, "terminate Handler: %s unexpected exception!", tag.c_str());
    }
    endAfterTerminate();
}

} // namespace OVRA
