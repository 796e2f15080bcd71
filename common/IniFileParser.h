#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <map>
#include <string>
#include <utility>

// Reads a small INI file once into memory and answers typed look-ups by header and parameter
// name. The parse is a single pass, character by character, with strict rules: every syntax
// error stops it with IniFileParserException 413 carrying the line number. Files live in the
// fixed configuration directory "/NFS/"; callers give only the file name. Look-ups return result
// codes (0 success, negative reasons) and never throw. Not thread-safe: parse once, then read.
class IniFileParser {
public:
    static constexpr const char* CONFIGURATION_DIRECTORY = "/NFS/";
    static constexpr std::size_t MAX_TOKEN_LENGTH = 127;

    // Parses "/NFS/" + fileName. Throws IniFileParserException 1009 (line 0) when it cannot be
    // opened, 413 with the line number on a syntax error; what was parsed before stays.
    void parseFile(const std::string& fileName);
    // The same state machine over any stream (the file, or a test's or fuzzer's bytes).
    void parse(std::istream& input);

    int getString(const std::string& header, const std::string& name, char* buffer, std::size_t size) const;
    int getString(const std::string& header, const std::string& name, std::string& value) const;
    int getInteger32(const std::string& header, const std::string& name, std::int32_t& value) const;
    int getFloat64(const std::string& header, const std::string& name, double& value) const;
    int getFloat32(const std::string& header, const std::string& name, float& value) const;
    int getFloat32DegreesToRadians(const std::string& header, const std::string& name, float& value) const;
    int getBoolean(const std::string& header, const std::string& name, bool& value) const;
    int getVector2f(const std::string& header, const std::string& name, std::pair<float, float>& value) const;

    bool containsHeader(const std::string& header) const;
    bool containsParameter(const std::string& header, const std::string& name) const;

    // Adds an empty header; an existing one is kept, so a header that occurs twice merges.
    void insertHeader(const std::string& header);
    // Throws 413 "header not found: %s" or "header: %s: duplicated parameter name: %s".
    void insertParameter(const std::string& header, const std::string& name, const std::string& value,
                         int lineNumber);

    // Trims blank, carriage return, tab and line feed from both ends.
    static std::string stripLeadingTrailingSpaces(const std::string& text);

private:
    // The value text, or null when the header or parameter is missing.
    const std::string* find(const std::string& header, const std::string& name) const;

    std::map<std::string, std::map<std::string, std::string>> content;
};
