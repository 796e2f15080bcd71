#include "common/IniFileParser.h"
#include "common/SystemCall.h"
#include "log/ConsoleOutput.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "common/OVRAException.h"

namespace {

constexpr std::uint32_t SYNTAX_ERROR = 413;
constexpr std::uint32_t OPEN_ERROR = 1009;
constexpr std::size_t SHORT_MESSAGE_SIZE = 128;
constexpr std::size_t TOKEN_LIMIT = IniFileParser::MAX_TOKEN_LENGTH + 1;

enum class State { LINE_START, IN_HEADER, HEADER_DONE, IN_NAME, IN_VALUE };

[[noreturn]] void throwSyntaxError(const char* message, int lineNumber) {
    IniFileParserException error(SYNTAX_ERROR, message);
    error.lineNumber = static_cast<std::uint32_t>(lineNumber);
    throw error;
}

bool isTrimmed(char c) {
    return c == ' ' || c == '\r' || c == '\t' || c == '\n';
}

// Whether a strto* conversion consumed a non-empty text entirely.
bool consumedAll(const std::string& text, const char* end) {
    return end != text.c_str() && *end == '\0';
}

} // namespace

std::string IniFileParser::stripLeadingTrailingSpaces(const std::string& text) {
    std::size_t first = 0;
    while (first < text.size() && isTrimmed(text[first])) {
        ++first;
    }
    std::size_t last = text.size();
    while (last > first && isTrimmed(text[last - 1])) {
        --last;
    }
    return text.substr(first, last - first);
}

void IniFileParser::parseFile(const std::string& fileName) {
    const std::string path = std::string(CONFIGURATION_DIRECTORY) + fileName;
    // Only a regular file is an INI file: a directory or a FIFO (whose open would wait for a writer)
    // fails as a missing file does.
    std::string text;
    const int fd = OVRA::retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
    struct stat status {};
    bool readable = fd >= 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    char chunk[4096];
    for (ssize_t n = 1; readable && n > 0;) {
        n = OVRA::retryOnEintr([&] { return ::read(fd, chunk, sizeof chunk); });
        readable = n >= 0;
        text.append(chunk, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    if (fd >= 0) {
        ::close(fd);
    }
    if (!readable) {
        char message[SHORT_MESSAGE_SIZE];
        (void)std::snprintf(message, sizeof message, "Failed to open ini File: %s", path.c_str());
        throw IniFileParserException(OPEN_ERROR, message);
    }
    std::istringstream input(text);
    parse(input);
}

void IniFileParser::parse(std::istream& input) {
    State state = State::LINE_START;
    std::size_t tokenLength = 0;
    int lineNumber = 1;
    std::string token;
    std::string name;
    std::string currentHeader;

    auto storeValue = [&]() {
        const std::string value = stripLeadingTrailingSpaces(token);
        if (value.empty()) {
            throwSyntaxError("Empty parameter value after '=' ", lineNumber);
        }
        insertParameter(currentHeader, name, value, lineNumber);
    };

    for (int next = input.get(); next != std::char_traits<char>::eof(); next = input.get()) {
        const char c = static_cast<char>(next);
        if (tokenLength >= TOKEN_LIMIT) {
            throwSyntaxError("Maximum size of header, name or value exceeded", lineNumber);
        }
        switch (c) {
        case '\n':
            if (state == State::IN_VALUE) {
                storeValue();
            } else if (state == State::IN_NAME) {
                throwSyntaxError("Invalid line: missing '=' and value", lineNumber);
            } else if (state == State::IN_HEADER) {
                throwSyntaxError("']' not found for header", lineNumber);
            }
            ++lineNumber;
            state = State::LINE_START;
            tokenLength = 0;
            token.clear();
            break;
        case ';':
            // A comment in every state: the rest of the line goes, its line feed ends it normally.
            for (next = input.get(); next != std::char_traits<char>::eof() && next != '\n'; next = input.get()) {
            }
            if (next == '\n') {
                input.unget();
            }
            break;
        case '=':
            if (state != State::IN_NAME) {
                throwSyntaxError("'=' is valid only between property name and value", lineNumber);
            }
            name = stripLeadingTrailingSpaces(token);
            if (name.empty()) {
                throwSyntaxError("Empty parameter name before '=' ", lineNumber);
            }
            state = State::IN_VALUE;
            tokenLength = 0;
            token.clear();
            break;
        case '[':
            if (state == State::LINE_START) {
                state = State::IN_HEADER;
            } else if (state == State::IN_NAME || state == State::IN_VALUE) {
                token += c;
                ++tokenLength;
            } else {
                throwSyntaxError("'[' is an invalid in header string or in header line except in the beginning",
                                 lineNumber);
            }
            break;
        case ']':
            if (state == State::IN_HEADER) {
                const std::string header = stripLeadingTrailingSpaces(token);
                if (header.empty()) {
                    throwSyntaxError("Empty header name:[]", lineNumber);
                }
                insertHeader(header);
                currentHeader = header;
                state = State::HEADER_DONE;
                tokenLength = 0;
                token.clear();
            } else if (state == State::LINE_START) {
                state = State::IN_NAME;
                token = c;
                tokenLength = 1;
            } else if (state == State::HEADER_DONE) {
                throwSyntaxError("Found ']' on header line after header string is complete", lineNumber);
            } else {
                token += c;
                ++tokenLength;
            }
            break;
        default:
            if (state == State::LINE_START) {
                if (c == ' ' || c == '\t' || c == '\r') {
                    break;
                }
                state = State::IN_NAME;
                token = c;
                tokenLength = 1;
            } else {
                token += c;
                ++tokenLength;
            }
            break;
        }
    }

    // A last line without a line feed: a pending value is stored as on a line feed, but a name with
    // '=' and nothing after it has nothing pending and is dropped, as every process's parser does.
    if (state == State::IN_VALUE && !token.empty()) {
        storeValue();
    } else if (!token.empty() && state != State::LINE_START) {
        char message[SHORT_MESSAGE_SIZE];
        (void)std::snprintf(message, sizeof message, "Misplaced string:'%s' at end of file", token.c_str());
        throwSyntaxError(message, lineNumber);
    }
}

void IniFileParser::insertHeader(const std::string& header) {
    content.try_emplace(header);
}

void IniFileParser::insertParameter(const std::string& header, const std::string& name, const std::string& value,
                                    int lineNumber) {
    auto section = content.find(header);
    if (section == content.end()) {
        throwSyntaxError(formatExceptionText("header not found: %s", header.c_str()).text, lineNumber);
    }
    if (!section->second.try_emplace(name, value).second) {
        throwSyntaxError(
            formatExceptionText("header: %s: duplicated parameter name: %s", header.c_str(), name.c_str()).text,
            lineNumber);
    }
}

bool IniFileParser::containsHeader(const std::string& header) const {
    return content.count(header) != 0;
}

bool IniFileParser::containsParameter(const std::string& header, const std::string& name) const {
    return find(header, name) != nullptr;
}

const std::string* IniFileParser::find(const std::string& header, const std::string& name) const {
    const auto section = content.find(header);
    if (section == content.end()) {
        return nullptr;
    }
    const auto parameter = section->second.find(name);
    return parameter == section->second.end() ? nullptr : &parameter->second;
}

int IniFileParser::getString(const std::string& header, const std::string& name, char* buffer, std::size_t size) const {
    const std::string* text = find(header, name);
    if (text == nullptr || buffer == nullptr || size == 0) {
        return -1;
    }
    const int written = std::snprintf(buffer, size, "%s", text->c_str());
    if (written < 0 || static_cast<std::size_t>(written) >= size) {
        return -1;
    }
    return 0;
}

int IniFileParser::getString(const std::string& header, const std::string& name, std::string& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    value = *text;
    return 0;
}

int IniFileParser::getInteger32(const std::string& header, const std::string& name, std::int32_t& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    errno = 0;
    char* end = nullptr;
    const long result = std::strtol(text->c_str(), &end, 0);
    if (end == text->c_str()) {
        return -4;
    }
    if (errno == ERANGE) {
        return -2;
    }
    if (*end != '\0') {
        return -4;
    }
    if (result < std::numeric_limits<std::int32_t>::min() || result > std::numeric_limits<std::int32_t>::max()) {
        OVRA::consolePrintf("Value not representable by int32_t\n");
        return -3;
    }
    value = static_cast<std::int32_t>(result);
    return 0;
}

int IniFileParser::getFloat64(const std::string& header, const std::string& name, double& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    errno = 0;
    char* end = nullptr;
    const double result = std::strtod(text->c_str(), &end);
    if (errno == ERANGE) {
        OVRA::consolePrintf("Result too large\n");
        return -2;
    }
    if (!consumedAll(*text, end)) {
        return -3;
    }
    value = result;
    return 0;
}

int IniFileParser::getFloat32(const std::string& header, const std::string& name, float& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    errno = 0;
    char* end = nullptr;
    const float result = std::strtof(text->c_str(), &end);
    if (errno == ERANGE) {
        return -2;
    }
    if (!consumedAll(*text, end)) {
        return -3;
    }
    value = result;
    return 0;
}

int IniFileParser::getFloat32DegreesToRadians(const std::string& header, const std::string& name, float& value) const {
    const int result = getFloat32(header, name, value);
    if (result == 0) {
        value *= 0.017453292F;
    }
    return result;
}

int IniFileParser::getBoolean(const std::string& header, const std::string& name, bool& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    if (*text == "true" || *text == "yes" || *text == "on" || *text == "1") {
        value = true;
        return 0;
    }
    if (*text == "false" || *text == "no" || *text == "off" || *text == "0") {
        value = false;
        return 0;
    }
    return -2;
}

int IniFileParser::getVector2f(const std::string& header, const std::string& name,
                               std::pair<float, float>& value) const {
    const std::string* text = find(header, name);
    if (text == nullptr) {
        return -1;
    }
    if (text->empty()) {
        return -2;
    }
    const std::size_t comma = text->find(',');
    if (comma == std::string::npos) {
        return -1;
    }
    const std::string firstText = text->substr(0, comma);
    const std::string secondText = text->substr(comma + 1);

    errno = 0;
    char* end = nullptr;
    const float first = std::strtof(firstText.c_str(), &end);
    if (errno != 0 || !consumedAll(firstText, end)) {
        return -3;
    }
    errno = 0;
    const float second = std::strtof(secondText.c_str(), &end);
    if (errno != 0 || !consumedAll(secondText, end)) {
        return -4;
    }
    value = {first, second};
    return 0;
}
