#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "common/Timer.h"
#include "communication/OVRACommunicationUtils.h"
#include "framework/CommonMessageHandler.h"
#include "framework/FeatureAppInput.h"

namespace OVRA {

// The lifecycle of an application process. main() runs on the process's main thread: it
// initialises the feature (init), starts the message hub, reports READY to the launcher, starts
// the feature (start), then waits for SIGINT and stops everything in order. SIGINT must already be
// blocked in the calling thread, before any other thread was created, so that only this wait
// takes it; workers that fail ask for the stop by sending SIGINT to the process.
//
// The message hub calls decodeMessagePayload on its receive thread; the arrival bookkeeping is
// touched by that thread only. The running flag is atomic so other threads may read it.
// The hub and the timer are owned here and released by the destructor, also when main() was
// never run or stopApplication() never reached. A derived class stops the hub in its own
// destructor, since the hub's thread calls receiveMessage.
class Application : public FeatureAppInput {
public:
    Application(const std::string& applicationName, const std::string& inputChannelName, std::uint16_t inputPort);
    // The message hub sends to outputPort at the address outputChannelName.
    Application(const std::string& applicationName, const std::string& inputChannelName, std::uint16_t inputPort,
                const std::string& outputChannelName, std::uint16_t outputPort);
    ~Application() override;

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // The whole life of the application; returns the exit status: stopApplication()'s result after
    // SIGINT, 1 after a failure of init or start (once stopApplication() has run).
    int main();
    // Why main() returned 1 after a failure of init or start: the text of what was thrown (also in
    // the error record, which only the system log receives). Empty otherwise. Main thread.
    const std::string& getStartupFailure() const { return mStartupFailure; }

    // Entry of every received message (receive thread). Logs and counts a message the feature
    // does not accept (error 1203); nothing escapes.
    void decodeMessagePayload(const PDUMessage_t& message) override;

    virtual void init() {}
    virtual void start() {}
    virtual void stop() {}
    // True when the feature took the message.
    virtual bool receiveMessage(const PDUMessage_t& message) = 0;
    // Sends APP_GUID_STATUS (RUNNING) with the first 7 characters of the name to the launcher.
    virtual void sendReadyMessage();

    static void applicationTerminateHandler();

    void initApplication();
    void startApplication();
    // Each step is isolated; 1 when the timer could not be stopped, else 0.
    int stopApplication();

    void recordArrivalTime_us(const PDUMessage_t& message, std::uint64_t now_us);
    // Milliseconds since the previous message, -1.0 before the first.
    double getInterArrivalTime_ms(std::uint64_t now_us) const;
    void logDroppedMessage(const PDUMessage_t& message, std::uint64_t now_us) const;

    const std::string& getApplicationName() const { return mApplicationName; }

protected:
    CommonMessageHandler& getCommonMessageHandler() { return mCommonMessageHandler; }
    Timer& getTimer() { return mTimer; }

private:
    const std::string mApplicationName;
    const std::string mInputChannelName;
    const std::uint16_t mInputPort;
    CommonMessageHandler mCommonMessageHandler;
    Timer mTimer;
    // Receive thread only.
    std::uint32_t mLastMessageId = 0;
    std::uint64_t mLastArrivalTime_us = 0; // 0: nothing arrived yet
    std::uint32_t mConsecutiveDroppedMessages = 0;
    std::atomic<std::uint8_t> mRunning{0};
    std::string mStartupFailure; // main thread
};

} // namespace OVRA
