#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

// Base of every exception the framework and the video application raise. It carries a numeric
// error code chosen by the raising site and an already formatted message in a fixed buffer, so
// building one never allocates and never throws. Subclasses add nothing but their type (and the
// INI parser's line number), so catch sites can tell the subsystem apart.
class OVRAException : public std::exception {
public:
    static constexpr std::size_t MESSAGE_SIZE = 1024;

    // Copies at most 1023 characters of message; a longer one is cut silently.
    OVRAException(std::uint32_t code, const char* message) noexcept;
    OVRAException(const OVRAException&) noexcept = default;
    OVRAException& operator=(const OVRAException&) noexcept = default;
    ~OVRAException() override;

    const char* what() const noexcept override;
    std::uint32_t getCode() const noexcept { return code; }

protected:
    // For subclasses that format their own message: an empty, zero-filled message.
    explicit OVRAException(std::uint32_t code) noexcept;

    char message[MESSAGE_SIZE];
    std::uint32_t code;
};

// A printf-style message formatted into an exception-sized buffer; throw sites use it to build
// the text first and pass .text to any exception of the family.
struct OVRAExceptionText {
    char text[OVRAException::MESSAGE_SIZE];
};
OVRAExceptionText formatExceptionText(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

#define OVRA_DECLARE_EXCEPTION(Name)                                                                                   \
    class Name : public OVRAException {                                                                                \
    public:                                                                                                            \
        using OVRAException::OVRAException;                                                                            \
        ~Name() override;                                                                                              \
    }

OVRA_DECLARE_EXCEPTION(ImageException);
OVRA_DECLARE_EXCEPTION(BufferManagerException);
OVRA_DECLARE_EXCEPTION(ISPGraphException);
OVRA_DECLARE_EXCEPTION(SharedMemoryException);
OVRA_DECLARE_EXCEPTION(FunctionBufferException);
OVRA_DECLARE_EXCEPTION(FunctionBufferTimeout);
OVRA_DECLARE_EXCEPTION(CommunicationException);
OVRA_DECLARE_EXCEPTION(DataValidityException);
OVRA_DECLARE_EXCEPTION(SignalHandlingException);

// Syntax and open failures of the INI parser; lineNumber is 0 when the file could not be opened.
class IniFileParserException : public OVRAException {
public:
    using OVRAException::OVRAException;
    ~IniFileParserException() override;

    std::uint32_t lineNumber = 0;
};

namespace OVRA {

OVRA_DECLARE_EXCEPTION(InvalidArgumentException);
OVRA_DECLARE_EXCEPTION(InvalidSourceAppNameException);
OVRA_DECLARE_EXCEPTION(InvalidAppStatusException);
OVRA_DECLARE_EXCEPTION(TimerException);

class InvalidMessageIDException : public OVRAException {
public:
    // The message as given.
    InvalidMessageIDException(std::uint32_t code, const char* message) noexcept;
    // "%s. Invalid messageId: 0x%x"
    InvalidMessageIDException(std::uint32_t code, const char* text, std::uint32_t messageId) noexcept;
    // "Invalid messageIdString: %s"
    InvalidMessageIDException(std::uint32_t code, const std::string& messageIdString) noexcept;
    ~InvalidMessageIDException() override;
};

class InvalidIPCChannelNameException : public OVRAException {
public:
    // The message as given.
    InvalidIPCChannelNameException(std::uint32_t code, const char* message) noexcept;
    // "Invalid IPCChannelName: %u"
    InvalidIPCChannelNameException(std::uint32_t code, std::uint32_t channelName) noexcept;
    ~InvalidIPCChannelNameException() override;
};

// The calling thread's errno; callers keep it across a logging call that may change it.
int getErrno() noexcept;
void setErrno(int value) noexcept;

} // namespace OVRA

#undef OVRA_DECLARE_EXCEPTION
