#pragma once

#include <cstdint>
#include <string>

#include "log/OVRALogMessage.h"

// Builds an error record ("E:  Error Code:      %u, ...") for the process's log client and sends
// it; without a client, or when the record cannot be built, writes the report to standard error.
void completeOVRALogError(std::uint32_t errorCode, std::uint16_t errorType, std::uint64_t errorValue,
                          const char* message);

// Fills an error record. errorType 1 carries message, 4 carries errorValue, any other is reported
// as unexpected. The text is cut to 127 characters; a cut text ends in "***". False when the text
// cannot be formatted.
bool fillOVRALogErrorLogMessage(OVRALogMessage_t& record, std::uint32_t errorCode, std::uint16_t errorType,
                                std::uint64_t errorValue, const char* message, const std::string& appGUID,
                                const OVRAAppVersion_t& appVersion);
