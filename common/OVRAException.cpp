#include "common/OVRAException.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

void formatInto(char (&buffer)[OVRAException::MESSAGE_SIZE], const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

void formatInto(char (&buffer)[OVRAException::MESSAGE_SIZE], const char* format, ...) noexcept {
    std::memset(buffer, 0, sizeof buffer);
    va_list args;
    va_start(args, format);
    // A formatting failure leaves an empty or cut message; building an exception never fails.
    (void)std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    buffer[sizeof buffer - 1] = '\0';
}

} // namespace

OVRAException::OVRAException(std::uint32_t errorCode, const char* text) noexcept : code(errorCode) {
    std::memset(message, 0, sizeof message);
    if (text != nullptr) {
        std::strncpy(message, text, sizeof message - 1);
    }
    message[sizeof message - 1] = '\0';
}

OVRAException::OVRAException(std::uint32_t errorCode) noexcept : code(errorCode) {
    std::memset(message, 0, sizeof message);
}

OVRAException::~OVRAException() = default;

const char* OVRAException::what() const noexcept { return message; }

OVRAExceptionText formatExceptionText(const char* format, ...) noexcept {
    OVRAExceptionText result;
    std::memset(result.text, 0, sizeof result.text);
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(result.text, sizeof result.text, format, args);
    va_end(args);
    result.text[sizeof result.text - 1] = '\0';
    return result;
}

ImageException::~ImageException() = default;
BufferManagerException::~BufferManagerException() = default;
ISPGraphException::~ISPGraphException() = default;
SharedMemoryException::~SharedMemoryException() = default;
FunctionBufferException::~FunctionBufferException() = default;
FunctionBufferTimeout::~FunctionBufferTimeout() = default;
CommunicationException::~CommunicationException() = default;
DataValidityException::~DataValidityException() = default;
SignalHandlingException::~SignalHandlingException() = default;
IniFileParserException::~IniFileParserException() = default;

namespace OVRA {

InvalidArgumentException::~InvalidArgumentException() = default;
InvalidSourceAppNameException::~InvalidSourceAppNameException() = default;
InvalidAppStatusException::~InvalidAppStatusException() = default;
TimerException::~TimerException() = default;

InvalidMessageIDException::InvalidMessageIDException(std::uint32_t errorCode, const char* text) noexcept
    : OVRAException(errorCode, text) {}

InvalidMessageIDException::InvalidMessageIDException(std::uint32_t errorCode, const char* text,
                                                     std::uint32_t messageId) noexcept
    : OVRAException(errorCode) {
    formatInto(message, "%s. Invalid messageId: 0x%x", text != nullptr ? text : "", messageId);
}

InvalidMessageIDException::InvalidMessageIDException(std::uint32_t errorCode,
                                                     const std::string& messageIdString) noexcept
    : OVRAException(errorCode) {
    formatInto(message, "Invalid messageIdString: %s", messageIdString.c_str());
}

InvalidMessageIDException::~InvalidMessageIDException() = default;

InvalidIPCChannelNameException::InvalidIPCChannelNameException(std::uint32_t errorCode, const char* text) noexcept
    : OVRAException(errorCode, text) {}

InvalidIPCChannelNameException::InvalidIPCChannelNameException(std::uint32_t errorCode,
                                                               std::uint32_t channelName) noexcept
    : OVRAException(errorCode) {
    formatInto(message, "Invalid IPCChannelName: %u", channelName);
}

InvalidIPCChannelNameException::~InvalidIPCChannelNameException() = default;

int getErrno() noexcept { return errno; }

void setErrno(int value) noexcept { errno = value; }

} // namespace OVRA
