#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "log/LogMessageClient.h"

namespace vidapp::test {

// Stands in for the process's log client during a test: points the flag word at a word private
// to the test (so the machine's word is never touched), switches this process's logging on at
// every level, and keeps every record that reaches the client. Restores both on destruction.
class LogCapture : public LogMessageClient {
public:
    struct Record {
        std::uint8_t level;
        std::uint16_t messageType;
        std::uint16_t length;
        std::string text; // with its level prefix, as the system log receives it
    };

    // The word starts with the application bit and every level bit set.
    LogCapture();
    explicit LogCapture(std::uint64_t initialWord);
    ~LogCapture() override;

    void sendLogMessage(const OVRALogMessage_t* record) override;

    std::vector<Record> records() const;
    // Records whose text contains part.
    std::size_t count(const std::string& part) const;
    bool contains(const std::string& part) const { return count(part) > 0; }
    // Waits until a record containing part has arrived.
    bool waitFor(const std::string& part, std::chrono::milliseconds timeout) const;
    // Error records ("E:  Error Code:      <code>, ...") with that code.
    std::size_t countErrors(std::uint32_t code) const;
    void clear();

    std::uint64_t& word() { return privateWord; }
    // Every record's text, one a line, for failure messages.
    std::string dump() const;

private:
    std::uint64_t privateWord;
    std::uint64_t* savedWord;
    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<Record> captured;
};

// Application bit of "vidapp" and the six level bits.
std::uint64_t allLoggingOn();

} // namespace vidapp::test
