#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/ChannelBaseReaderWriter.h"
#include "framework/FeatureApplication.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/support/Expect.h"
#include "tests/support/Sandbox.h"
#include "tests/support/VidappProcess.h"

// A whole feature application of the tests' own, and the pieces the framework tests share.
namespace vidapp::test {

using Bytes = std::vector<std::uint8_t>;
constexpr std::chrono::seconds DEADLINE{20};

inline std::string errorRecord(std::uint32_t code, const std::string& text) {
    return "E:  Error Code:      " + std::to_string(code) + ", Error Message:      vidapp: " + text;
}

struct TestRecord_t {
    OVRA::InputAggregateHeader_t header;
    std::uint32_t value;
};

// Takes the first 4 payload bytes of a message as the record's value, but none of REFUSED_ID and
// throws OVRAException 4711 for THROWING_ID; TRIGGER_ID and SECOND_TRIGGER_ID complete the record.
class TestPipe : public OVRA::ChannelBaseReaderWriter<TestRecord_t> {
public:
    static constexpr std::uint32_t TRIGGER_ID = 1, REFUSED_ID = 2, THROWING_ID = 3, SECOND_TRIGGER_ID = 0x80000004;
    TestPipe(unsigned short depth, unsigned short consumers) : ChannelBaseReaderWriter(depth, consumers) {}

    bool isTrigger() override { return lastId == TRIGGER_ID || lastId == SECOND_TRIGGER_ID; }
    unsigned long writeToBuffer(const OVRA::PDUMessage_t& message) override {
        ++taken;
        if (message.messageId == REFUSED_ID || message.messageId == THROWING_ID) {
            return message.messageId == REFUSED_ID ? 0 : throw OVRAException(4711, "test pipe refuses");
        }
        std::memcpy(&currentRecord()->value, message.payload, sizeof(TestRecord_t::value));
        lastId = message.messageId;
        if (isTrigger()) {
            currentRecord()->header.triggerMessageId = lastId;
            setTriggered();
        }
        return message.length - 16;
    }
    int taken = 0; // calls, on the writing thread

private:
    std::uint32_t lastId = 0;
};

// Logs each run ("TEST run value=<v> thread=<name>") and its stop ("TEST stopFeatureApp"). A run on
// THROW_VALUE throws OVRAException 77, one on FAIL_VALUE returns 9; initialize() throws initFailure.
class TestAlgorithm : public OVRA::FeatureApplicationBase<TestRecord_t> {
public:
    static constexpr std::uint32_t THROW_VALUE = 0xDEAD, FAIL_VALUE = 0xFA11;

    void initialize() override {
        if (initFailure) {
            std::rethrow_exception(initFailure);
        }
    }
    std::uint32_t featureAppRun(const TestRecord_t& input, FeatureAppOutput&) override {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        ovraLogImplementPrintf("TEST run value=%u thread=%s", OVRA::LOG_LEVEL_INFO, input.value, name);
        return input.value == THROW_VALUE ? throw OVRAException(77, "algo refused") : input.value == FAIL_VALUE ? 9 : 0;
    }
    void stopFeatureApp() override { ovraLogImplementPrintf("TEST stopFeatureApp", OVRA::LOG_LEVEL_INFO); }

    std::exception_ptr initFailure;
};

// Echoes every log record on standard output as "[record] <text>", so that a parent process can
// follow error records, which never reach the console.
class EchoingLogCapture : public LogCapture {
public:
    void sendLogMessage(const OVRALogMessage_t* record) override {
        LogCapture::sendLogMessage(record);
        std::printf("[record] %s\n", record->text);
        std::fflush(stdout);
    }
};

// A message with a 4-byte payload, as a sender would stamp it but for the CRC.
inline OVRA::PDUMessage_t testMessage(std::uint32_t value, std::uint32_t id = TestPipe::TRIGGER_ID,
                                      std::uint64_t timestamp = 12345, std::uint16_t count = 7) {
    OVRA::PDUMessage_t message{};
    message.messageId = id;
    message.length = 20;
    message.count = count;
    message.timestamp = timestamp;
    std::memcpy(message.payload, &value, sizeof(value));
    return message;
}

// The datagram a sender must produce from header: the length for size payload bytes, the payload
// and the CRC over them.
inline Bytes stamped(OVRA::PDUMessage_t header, const void* payload, std::size_t size) {
    header.length = static_cast<std::uint32_t>(size + 16);
    std::memcpy(header.payload, payload, size);
    header.crc = DataValidity::computeMessageCRC(&header);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    return Bytes(bytes, bytes + size + 24);
}

// A child process's body: a whole test application ("featureapp", one worker) run through
// Application::main as the process entry does it, then "RESOURCES OK" printed when it lived less
// than a second and left as many threads and descriptors as it found.
inline int runTestApplication() {
    sigset_t signals;
    OVRA::initSignalsMask(signals, OVRA::stopSignals());
    OVRA::blockThreadSignals(signals);
    EchoingLogCapture log;
    std::thread([] {}).join(); // a sanitizer runtime may start a helper thread with the first thread
    const auto count = [](const char* directory) {
        return std::distance(std::filesystem::directory_iterator(directory), {});
    };
    const auto tasks = count("/proc/self/task"), fds = count("/proc/self/fd");
    const auto started = std::chrono::steady_clock::now();
    int status = -1;
    {
        TestPipe pipe(8, 1);
        TestAlgorithm algorithm;
        status = OVRA::FeatureApplication<TestRecord_t>("featureapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT,
                                                        algorithm, pipe, 1)
                     .main();
    }
    const bool quick = std::chrono::steady_clock::now() - started < std::chrono::seconds(1);
    const auto tasksAfter = count("/proc/self/task"), fdsAfter = count("/proc/self/fd");
    std::printf("RESOURCES %s tasks=%td/%td fds=%td/%td\n",
                quick && tasks == tasksAfter && fds == fdsAfter ? "OK" : "FAILED", tasks, tasksAfter, fds, fdsAfter);
    std::fflush(stdout);
    return status;
}

// A child ends with _exit, so a sanitizer report there changes no exit code: look for it instead.
inline ::testing::AssertionResult sanitizerClean(const std::string& err) {
    return err.find("Sanitizer") == std::string::npos ? ::testing::AssertionSuccess()
                                                      : ::testing::AssertionFailure() << err;
}

// True when every part occurs in text, each after the one before it.
inline ::testing::AssertionResult inOrder(const std::string& text, const std::vector<std::string>& parts) {
    std::size_t from = 0;
    for (const std::string& part : parts) {
        const std::size_t found = text.find(part, from);
        if (found == std::string::npos) {
            return ::testing::AssertionFailure() << "\"" << part << "\" missing or out of order in:\n" << text;
        }
        from = found + part.size();
    }
    return ::testing::AssertionSuccess();
}

} // namespace vidapp::test
