#include "log/LogError.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "log/LogMessageClient.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr int ERROR_TEXT_SIZE = 128;

void reportUnloggedError(const char* reason, std::uint32_t errorCode, std::uint16_t errorType,
                         std::uint64_t errorValue, const char* message) {
    std::fprintf(stderr,
                 "%s\nError number%u could not be logged\nerrorType: %u\nlogLevel: LOG_LEVEL_ERROR\n"
                 "errorValue: %" PRIu64 "\nerrorMessage: %s\n",
                 reason, errorCode, static_cast<unsigned>(errorType), errorValue, message != nullptr ? message : "");
}

} // namespace

bool fillOVRALogErrorLogMessage(OVRALogMessage_t& record, std::uint32_t errorCode, std::uint16_t errorType,
                                std::uint64_t errorValue, const char* message, const std::string& appGUID,
                                const OVRAAppVersion_t& appVersion) {
    record.messageType = errorType;
    record.length = 3;
    copyAppGUID(record, appGUID);
    record.appVersion = appVersion;
    record.logLevel = OVRA::LOG_LEVEL_ERROR;
    record.timestamp = ovraSystemTimestamp_us();

    const char* prefix = OVRA::LOG_LEVEL_PREFIX.at(OVRA::LOG_LEVEL_ERROR).c_str();
    int result = 0;
    switch (errorType) {
    case OVRALogMessage_t::TYPE_ERROR_VALUE:
        result = std::snprintf(record.text, ERROR_TEXT_SIZE, "%s Error Code:      %u, Error Value:     %" PRIu64,
                               prefix, errorCode, errorValue);
        break;
    case OVRALogMessage_t::TYPE_ERROR_MESSAGE:
        result = std::snprintf(record.text, ERROR_TEXT_SIZE, "%s Error Code:      %u, Error Message:      %s", prefix,
                               errorCode, message != nullptr ? message : "");
        break;
    default:
        result = std::snprintf(record.text, ERROR_TEXT_SIZE, "%s Error Code:      %u, Unexpected Error Type:      %u",
                               prefix, errorCode, static_cast<unsigned>(errorType));
        break;
    }
    if (result < 0) {
        std::fprintf(stderr, "LogError: fillOVRALogErrorLogMessage(), snprintf failed\n");
        return false;
    }
    // A text of exactly 128 characters loses its last one without the marker; longer ones show it.
    if (result > ERROR_TEXT_SIZE) {
        std::memcpy(record.text + 124, "***", 3);
    }
    record.length = static_cast<std::uint16_t>(result + 1 < ERROR_TEXT_SIZE ? result + 1 : ERROR_TEXT_SIZE);
    return true;
}

void completeOVRALogError(std::uint32_t errorCode, std::uint16_t errorType, std::uint64_t errorValue,
                          const char* message) {
    LogMessageClient* client = LogMessageClient::getInstance();
    if (client == nullptr) {
        reportUnloggedError("Log message client app not found", errorCode, errorType, errorValue, message);
        return;
    }
    OVRALogMessage_t record;
    std::memset(&record, 0, sizeof record);
    if (!fillOVRALogErrorLogMessage(record, errorCode, errorType, errorValue, message, client->getAppGUID(),
                                    client->getAppVersion())) {
        reportUnloggedError("error filling log message buffer", errorCode, errorType, errorValue, message);
        return;
    }
    client->sendLogMessage(&record);
}
