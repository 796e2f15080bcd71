#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "log/DynamicDebug.h"
#include "tests/log/SyslogSink.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Udp.h"

// The real vidapp process in a test's sandbox: the pieces the whole-process tests share.
namespace vidapp::test {

constexpr const char* VIDAPP_PATH = VIDAPP_BIN_DIR "/vidapp";
constexpr const char* VIDAPP_DLOG_PATH = VIDAPP_BIN_DIR "/vidapp-dlog";

// vidapp's application bit (the letter L) with the error, info and debug levels.
constexpr std::uint64_t VIDAPP_LOGGING = 0x2000000000ULL | D_LOG_LEVEL_ERROR | D_LOG_LEVEL_INFO | D_LOG_LEVEL_DEBUG;

// The system's flag word, attached by the test in its own IPC namespace and removed when the object
// goes. Used from the test's thread.
class FlagWord {
public:
    FlagWord();
    ~FlagWord();
    FlagWord(const FlagWord&) = delete;
    FlagWord& operator=(const FlagWord&) = delete;

    bool attached() const;
    void set(std::uint64_t bits);
    std::uint64_t value() const;

private:
    int id = -1;
    std::uint64_t* word = nullptr;
};

// Names of the "IMAGE_FRAME" objects in /dev/shm.
std::vector<std::string> frameObjects();

// The datagram's bytes as a PDU record (zero past the datagram).
OVRA::PDUMessage_t toMessage(const std::vector<std::uint8_t>& bytes);

// A host or internal message as the router would send it: count, time stamp and CRC, version 0.
std::vector<std::uint8_t> routerMessage(std::uint32_t id, std::uint16_t count,
                                        const std::vector<std::uint8_t>& payload);

// Polls ready every 20 ms until it holds or timeout has passed.
bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds timeout);

// True once every thread of the process is stopped (SIGSTOP has taken effect).
bool waitUntilStopped(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Fixture of the whole-process tests: a private flag word, the router's and the launcher's ports
// held by the test, a working directory of vidapp's own, and vidapp itself. vidapp gets SIGINT in
// TearDown if a test left it running.
class VidappProcess : public ::testing::Test {
protected:
    static constexpr std::chrono::seconds MESSAGE_TIMEOUT{10};

    void SetUp() override;
    void TearDown() override;

    // Starts vidapp in the working directory with its camera variables cleared, then set from
    // environment; does not wait for anything.
    void launchVidapp(const std::vector<std::string>& environment = {});
    // launchVidapp, then waits for the READY report (kept in readyReport).
    void startVidapp(const std::vector<std::string>& environment = {});
    // SIGINT, and the orderly end that must follow within two seconds: status 0, no frame object left.
    void stopVidapp();
    // Runs act in a child with a system log of its own, a fresh /dev/shm and a flag word of its own
    // (given to act), and returns what reached the log; act starts vidapp as the tests do.
    SyslogCapture withOwnSystemLog(const std::function<void(FlagWord&)>& act);

    LogCapture log; // keeps the test process's own records off the flag word
    FlagWord flags;
    UdpReceiver launcher{OVRA::LAUNCHER_UDP_PORT};
    UdpReceiver router{OVRA::ROUTER_UDP_PORT};
    DataValidity verifier; // built before any ProtocolVersion.ini exists: version 0
    std::string workingDirectory;
    std::string frameDirectory; // empty directory inside workingDirectory for PGM frames
    std::unique_ptr<Child> vidapp;
    std::vector<std::uint8_t> readyReport;
};

} // namespace vidapp::test
