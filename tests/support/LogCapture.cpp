#include "tests/support/LogCapture.h"

#include <sstream>

#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"

namespace vidapp::test {

std::uint64_t allLoggingOn() {
    return OVRA::APP_DEBUG_VALUE.at(OVRA::APP_NAME) | D_LOG_LEVEL_ERROR | D_LOG_LEVEL_WARNING | D_LOG_LEVEL_INFO |
           D_LOG_LEVEL_DEBUG | D_LOG_LEVEL_VERBOSE | D_LOG_LEVEL_PROFILE;
}

LogCapture::LogCapture() : LogCapture(allLoggingOn()) {}

LogCapture::LogCapture(std::uint64_t initialWord)
    : LogMessageClient(OVRA::APP_NAME, OVRAAppVersion_t{101, 101, 1, 101101}), privateWord(initialWord),
      savedWord(shm_dlog_detail) {
    shm_dlog_detail = &privateWord;
}

LogCapture::~LogCapture() { shm_dlog_detail = savedWord; }

void LogCapture::sendLogMessage(const OVRALogMessage_t* record) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        captured.push_back(Record{record->logLevel, record->messageType, record->length, std::string(record->text)});
    }
    arrived.notify_all();
}

std::vector<LogCapture::Record> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(mutex);
    return captured;
}

std::size_t LogCapture::count(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mutex);
    std::size_t n = 0;
    for (const auto& record : captured) {
        n += record.text.find(part) != std::string::npos ? 1 : 0;
    }
    return n;
}

bool LogCapture::waitFor(const std::string& part, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return arrived.wait_for(lock, timeout, [&] {
        for (const auto& record : captured) {
            if (record.text.find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    });
}

std::size_t LogCapture::countErrors(std::uint32_t code) const {
    return count("Error Code:      " + std::to_string(code) + ",");
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::ostringstream out;
    for (const auto& record : captured) {
        out << record.text << '\n';
    }
    return out.str();
}

} // namespace vidapp::test
