#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "framework/ChannelBaseReaderWriter.h"
#include "framework/FeatureApplication.h"
#include "framework/FeatureApplicationBase.h"
#include "tests/support/LogCapture.h"

// A whole feature application of the tests' own: a pipe that takes one message ID and triggers on
// it, and an algorithm whose behaviour the record's value selects. Shared by the lifecycle tests.
namespace vidapp::test {

struct TestRecord_t {
    OVRA::InputAggregateHeader_t header;
    std::uint32_t value;
};

// Takes TAKEN_ID with a 4-byte value and completes the record with it; THROWING_ID throws; any
// other message is not taken.
class TestPipe : public OVRA::ChannelBaseReaderWriter<TestRecord_t> {
public:
    static constexpr std::uint32_t TAKEN_ID = 1;
    static constexpr std::uint32_t THROWING_ID = 3;

    TestPipe(unsigned short depth, unsigned short consumers) : ChannelBaseReaderWriter(depth, consumers) {}

    bool isTrigger() override { return true; }
    unsigned long writeToBuffer(const OVRA::PDUMessage_t& message) override {
        if (message.messageId == THROWING_ID) {
            throw OVRAException(4711, "test pipe refuses");
        }
        TestRecord_t* record = currentRecord();
        if (message.messageId != TAKEN_ID || message.length != 20 || record == nullptr) {
            return 0;
        }
        std::memcpy(&record->value, message.payload, sizeof(record->value));
        if (isTrigger()) {
            record->header.triggerMessageId = message.messageId;
            setTriggered();
        }
        return sizeof(record->value);
    }
};

// Prints what it does on standard output, so a parent process can follow a child's application.
// Values: THROW_VALUE throws an OVRAException (77), FAIL_VALUE returns 9, others succeed.
class TestAlgorithm : public OVRA::FeatureApplicationBase<TestRecord_t> {
public:
    static constexpr std::uint32_t THROW_VALUE = 0xDEAD;
    static constexpr std::uint32_t FAIL_VALUE = 0xFA11;

    enum class InitFailure { NONE, OVRA, STANDARD };
    explicit TestAlgorithm(InitFailure failure = InitFailure::NONE) : initFailure(failure) {}

    void initialize() override {
        if (initFailure == InitFailure::OVRA) {
            throw OVRAException(4242, "init refused");
        }
        if (initFailure == InitFailure::STANDARD) {
            throw std::runtime_error("init broke");
        }
    }
    std::uint32_t featureAppRun(const TestRecord_t& input, FeatureAppOutput&) override {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        std::printf("TEST run value=%u thread=%s\n", input.value, name);
        std::fflush(stdout);
        {
            std::lock_guard<std::mutex> lock(mutex);
            values.push_back(input.value);
        }
        ran.notify_all();
        if (input.value == THROW_VALUE) {
            throw OVRAException(77, "algo refused");
        }
        return input.value == FAIL_VALUE ? 9 : 0;
    }
    void stopFeatureApp() override {
        std::printf("TEST stopFeatureApp\n");
        std::fflush(stdout);
    }

    bool waitForRuns(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        return ran.wait_for(lock, timeout, [&] { return values.size() >= count; });
    }

private:
    const InitFailure initFailure;
    std::mutex mutex;
    std::condition_variable ran;
    std::vector<std::uint32_t> values;
};

// Echoes every log record on standard output as "[record] <text>", so error records, which never
// reach the console, can be followed from a parent process.
class EchoingLogCapture : public LogCapture {
public:
    void sendLogMessage(const OVRALogMessage_t* record) override {
        LogCapture::sendLogMessage(record);
        std::printf("[record] %s\n", record->text);
        std::fflush(stdout);
    }
};

inline OVRA::PDUMessage_t takenMessage(std::uint32_t value, std::uint32_t id = TestPipe::TAKEN_ID) {
    OVRA::PDUMessage_t message{};
    message.messageId = id;
    message.length = 20;
    message.count = 7;
    message.timestamp = 12345;
    std::memcpy(message.payload, &value, sizeof(value));
    return message;
}

// As the process entry does it: SIGINT blocked before any other thread exists.
inline void blockSigint() {
    sigset_t signals;
    OVRA::initSignalsMask(signals, {SIGINT});
    OVRA::blockThreadSignals(signals);
}

inline std::size_t countEntries(const char* directory) {
    std::size_t entries = 0;
    if (DIR* listing = opendir(directory)) {
        while (readdir(listing) != nullptr) {
            ++entries;
        }
        closedir(listing);
    }
    return entries;
}

struct TestApplicationOptions {
    std::string name = "featureapp";
    TestAlgorithm::InitFailure initFailure = TestAlgorithm::InitFailure::NONE;
    bool sigintBeforeMain = false;
};

// The body of a child process that runs a whole test application through Application::main, as
// the process entry does, and then reports on standard output the threads and descriptors it had
// before and after, and how long it lived:
// "RESOURCES tasks=<before>/<after> fds=<before>/<after> elapsed_ms=<n>".
inline int runTestApplication(const TestApplicationOptions& options) {
    blockSigint();
    EchoingLogCapture log;
    // A sanitizer runtime may start a helper thread with the first thread: let it do so now.
    std::thread([] {}).join();
    const std::size_t tasksBefore = countEntries("/proc/self/task");
    const std::size_t fdsBefore = countEntries("/proc/self/fd");
    const auto started = std::chrono::steady_clock::now();
    int status = -1;
    {
        TestPipe pipe(8, 1);
        TestAlgorithm algorithm(options.initFailure);
        OVRA::FeatureApplication<TestRecord_t> application(options.name, OVRA::VIDAPP_CHANNEL_NAME,
                                                           OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1);
        if (options.sigintBeforeMain) {
            kill(getpid(), SIGINT);
        }
        status = application.main();
    }
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    std::printf("RESOURCES tasks=%zu/%zu fds=%zu/%zu elapsed_ms=%lld\n", tasksBefore, countEntries("/proc/self/task"),
                fdsBefore, countEntries("/proc/self/fd"), static_cast<long long>(elapsed.count()));
    std::fflush(stdout);
    return status;
}

// A child ends with _exit, so a sanitizer report there changes no exit code: look for it instead.
inline ::testing::AssertionResult sanitizerClean(const std::string& err) {
    if (err.find("Sanitizer") != std::string::npos) {
        return ::testing::AssertionFailure() << err;
    }
    return ::testing::AssertionSuccess();
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
