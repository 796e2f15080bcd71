#include "log/OVRALogImplementString.h"
#include "log/ConsoleOutput.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "log/LogMessageClient.h"
#include "log/OVRALogImplementPrintf.h"

void ovraLogImplementString(const char* text, OVRA::LogLevel_e level) {
    const std::uint64_t timestamp = ovraSystemTimestamp_us();
    const std::string& prefix = OVRA::LOG_LEVEL_PREFIX.at(level);
    if (text == nullptr) {
        throw std::logic_error("ovraLogImplementString(): null text");
    }

    LogMessageClient* client = LogMessageClient::getInstance();
    if (client == nullptr) {
        std::fprintf(stderr,
                     "logMessage timestamp:\n %" PRIu64 "\nlogString:\n %s%s\n"
                     "ovraLogImplementString(): Null pointer, LogMessageClient is not instantiated\n",
                     timestamp, prefix.c_str(), text);
        return;
    }

    const std::size_t textLength = std::strlen(text);
    std::size_t length = prefix.size() + textLength + 1;
    if (length > OVRALogMessage_t::TEXT_SIZE) {
        // Deliberately without text: the record then carries only the code and the application.
        ovraLogImplementErrorPrintf(1029, "%s", "");
        length = OVRALogMessage_t::TEXT_SIZE;
    }

    OVRALogMessage_t record;
    std::memset(&record, 0, sizeof record);
    record.timestamp = timestamp;
    record.appVersion = client->getAppVersion();
    record.messageType = OVRALogMessage_t::TYPE_TEXT;
    record.length = static_cast<std::uint16_t>(length);
    record.logLevel = level;
    copyAppGUID(record, client->getAppGUID());
    const std::size_t prefixBytes = std::min(prefix.size(), length);
    std::memcpy(record.text, prefix.data(), prefixBytes);
    std::memcpy(record.text + prefixBytes, text, std::min(textLength, length - prefixBytes));
    record.text[sizeof record.text - 1] = '\0';
    if (length < sizeof record.text) {
        record.text[length - 1] = '\0';
    }

    OVRA::consoleLine(text);

    client->sendLogMessage(&record);
}
