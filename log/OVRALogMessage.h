#pragma once

#include <cstdint>
#include <cstring>
#include <string>

// Application version carried by every log record, printed as major.minor.patch-build.
struct OVRAAppVersion_t {
    std::uint32_t major;
    std::uint32_t minor;
    std::uint32_t patch;
    std::uint32_t build;
};

// One log line or error report on its way to the system log. Zero-filled before it is filled in.
struct OVRALogMessage_t {
    static constexpr std::uint16_t TYPE_ERROR_MESSAGE = 1;
    static constexpr std::uint16_t TYPE_TEXT = 2;
    static constexpr std::uint16_t TYPE_ERROR_VALUE = 4;
    static constexpr std::uint32_t TEXT_SIZE = 1024;
    static constexpr std::uint32_t GUID_SIZE = 8;

    std::uint64_t timestamp;       // microseconds, ovraSystemTimestamp_us()
    OVRAAppVersion_t appVersion;
    std::uint16_t messageType;     // TYPE_TEXT, TYPE_ERROR_MESSAGE or TYPE_ERROR_VALUE
    std::uint16_t length;          // bytes of text in use, terminating NUL included
    std::uint8_t logLevel;         // OVRA::LogLevel_e
    char appGUID[GUID_SIZE];       // NUL-padded, not terminated when 8 long
    char text[TEXT_SIZE];          // NUL-terminated
};

// The first 8 characters of an application identifier, NUL-padded and not terminated when 8 long.
inline void copyAppGUID(OVRALogMessage_t& record, const std::string& guid) {
    std::memset(record.appGUID, 0, sizeof record.appGUID);
    std::memcpy(record.appGUID, guid.data(), guid.size() < sizeof record.appGUID ? guid.size() : sizeof record.appGUID);
}
