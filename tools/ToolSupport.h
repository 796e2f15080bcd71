#pragma once

// Small pieces the developer tools share: their exit statuses and the parsing of option values.
// Header-only, since every tools/<name>.cpp is an executable of its own.

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "log/DynamicDebug.h"

namespace vidapp::tools {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

// The library code a tool uses logs through the system-wide debug flag word, whose bits belong to
// the processes; unattached, every log call prints a complaint. A tool points the log at a word
// of its own with everything off: it stays quiet, and the machine's word is never created or read.
inline void useOwnDebugWord() {
    static std::uint64_t ownWord = 0;
    shm_dlog_detail = &ownWord;
}

// A decimal number in [minimum, maximum], nothing else around it; nothing when the text is not one.
inline std::optional<std::uint64_t> parseUnsigned(const std::string& text, std::uint64_t minimum,
                                                  std::uint64_t maximum) {
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return std::nullopt; // strtoull would take a sign or blanks
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (*end != '\0' || errno == ERANGE || value < minimum || value > maximum) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(value);
}

// A finite decimal number above 0 (fractions allowed); nothing otherwise.
inline std::optional<double> parsePositive(const std::string& text) {
    if (text.empty() || text[0] == ' ' || text[0] == '\t') {
        return std::nullopt;
    }
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(value) || value <= 0.0) {
        return std::nullopt;
    }
    return value;
}

// Splits "--name=value" into name and value; an argument without '=' is all name.
struct OptionText {
    std::string name;
    std::optional<std::string> value;
};

inline OptionText splitOption(const std::string& argument) {
    const std::size_t equals = argument.find('=');
    if (argument.rfind("--", 0) != 0 || equals == std::string::npos) {
        return {argument, std::nullopt};
    }
    return {argument.substr(0, equals), argument.substr(equals + 1)};
}

// Reads the value of the option just split from argv[i] when it takes one: the text after '=', or
// the next argument (i then moves past it). False, with error set, when a value is missing, or
// given to an option that takes none.
inline bool readOptionValue(const OptionText& option, bool takesValue, int argc, char** argv, int& i,
                            std::string& value, std::string& error) {
    if (!takesValue) {
        if (option.value) {
            error = option.name + " takes no value";
            return false;
        }
        return true;
    }
    if (option.value) {
        value = *option.value;
    } else if (i + 1 < argc) {
        value = argv[++i];
    } else {
        error = option.name + " needs a value";
        return false;
    }
    return true;
}

// "<tool>: <reason>" and the usage text on standard error; returns the usage status.
inline int usageError(const char* tool, const std::string& reason, const char* usage) {
    std::fprintf(stderr, "%s: %s\n%s", tool, reason.c_str(), usage);
    return EXIT_USAGE;
}

// The start every tool shares: its own debug word, the options parsed, help answered. Returns the
// exit status when the tool is done already (a usage error or the help), nothing when it goes on.
template <typename Options>
std::optional<int> startTool(const char* tool, const char* usage, int argc, char** argv, Options& options,
                             bool (*parse)(int, char**, Options&, std::string&), void (*printHelp)()) {
    useOwnDebugWord();
    std::string error;
    if (!parse(argc, argv, options, error)) {
        return usageError(tool, error, usage);
    }
    if (options.help) {
        printHelp();
        return EXIT_OK;
    }
    return std::nullopt;
}

} // namespace vidapp::tools
