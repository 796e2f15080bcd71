// The INI parser on arbitrary file contents. Only the parser's own exception may leave parse();
// the look-ups must never throw. After a complete parse, a plain line model of the file must
// agree with the parser: every "[header]" exists and every "name = value" line is found under its
// header with the trimmed value. After a failed parse the line number must lie within the file.
// Every getter then runs on every header and name of the input (parsed or not) and on some that
// never exist (the empty name under each header, the empty header); each result code must be one
// the getter documents, and a failed look-up leaves the caller's value alone.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/IniFileParser.h"
#include "common/OVRAException.h"
#include "fuzz/FuzzSupport.h"

namespace {

using vidapp::fuzz::fail;

using Model = std::map<std::string, std::map<std::string, std::string>>;

struct Candidates {
    std::vector<std::string> headers;
    std::vector<std::pair<std::string, std::string>> parameters; // header, name
};

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// The lines of a file that parsed completely: leading blanks go, ';' starts a comment, a line that
// starts with '[' is a header up to the first ']', any other non-empty line is "name=value".
// Also collects what each line names, so that the getters run on names the parser may never have
// reached.
Model modelOf(std::string_view text, Candidates& candidates) {
    Model model;
    std::string header;
    bool inHeader = false; // a parameter before any header has none
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        line = line.substr(0, line.find(';'));
        std::size_t first = 0;
        while (first < line.size() && isBlank(line[first])) {
            ++first;
        }
        line.remove_prefix(first);
        if (line.empty()) {
            continue;
        }
        if (line.front() == '[') {
            const std::size_t close = line.find(']');
            if (close == std::string_view::npos) {
                // Only a lone '[' ending the file parses so; it defines nothing.
                continue;
            }
            header = IniFileParser::stripLeadingTrailingSpaces(std::string(line.substr(1, close - 1)));
            inHeader = true;
            model[header];
            candidates.headers.push_back(header);
            continue;
        }
        const std::size_t equals = line.find('=');
        const std::string name = IniFileParser::stripLeadingTrailingSpaces(std::string(line.substr(0, equals)));
        candidates.parameters.emplace_back(header, name);
        const std::string value = equals == std::string_view::npos
                                      ? std::string()
                                      : IniFileParser::stripLeadingTrailingSpaces(std::string(line.substr(equals + 1)));
        // An empty value parses only on a last line without a line feed, and is dropped there.
        if (inHeader && !value.empty()) {
            model[header][name] = value;
        }
    }
    return model;
}

bool sameFloat(float a, float b) {
    return (std::isnan(a) && std::isnan(b)) || a == b;
}

void checkGetters(const IniFileParser& parser, const std::string& header, const std::string& name,
                  const std::string* expected) {
    const bool present = parser.containsParameter(header, name);
    if (expected != nullptr && !present) {
        fail("parameter [%s] %s of a complete parse is missing", header.c_str(), name.c_str());
    }
    if (present && !parser.containsHeader(header)) {
        fail("parameter [%s] %s exists without its header", header.c_str(), name.c_str());
    }

    std::string text = "unchanged";
    const int stringResult = parser.getString(header, name, text);
    if (stringResult != (present ? 0 : -1) || (!present && text != "unchanged")) {
        fail("getString(std::string) gave %d for a %s parameter", stringResult, present ? "present" : "missing");
    }
    if (expected != nullptr && text != *expected) {
        fail("[%s] %s holds \"%s\", the file says \"%s\"", header.c_str(), name.c_str(), text.c_str(),
             expected->c_str());
    }

    // The C form copies up to the first NUL and needs room for it.
    for (const std::size_t size : {std::size_t{1}, std::size_t{8}, std::size_t{128}}) {
        char buffer[128];
        std::memset(buffer, 'x', sizeof buffer);
        const int result = parser.getString(header, name, buffer, size);
        const bool fits = present && std::strlen(text.c_str()) < size;
        if (result != (fits ? 0 : -1)) {
            fail("getString(buffer, %zu) gave %d", size, result);
        }
        if (fits && std::strcmp(buffer, text.c_str()) != 0) {
            fail("getString(buffer, %zu) copied \"%s\"", size, buffer);
        }
    }
    if (parser.getString(header, name, nullptr, 16) != -1) {
        fail("getString into a null buffer succeeded");
    }

    std::int32_t integer = 12345;
    const int integerResult = parser.getInteger32(header, name, integer);
    if (integerResult < -4 || integerResult > 0 || (integerResult == -1) == present ||
        (integerResult != 0 && integer != 12345)) {
        fail("getInteger32 gave %d (value %d)", integerResult, integer);
    }

    double real = 0.5;
    const int realResult = parser.getFloat64(header, name, real);
    if (realResult < -3 || realResult > 0 || (realResult == -1) == present || (realResult != 0 && real != 0.5)) {
        fail("getFloat64 gave %d", realResult);
    }

    float single = 0.25F;
    const int singleResult = parser.getFloat32(header, name, single);
    if (singleResult < -3 || singleResult > 0 || (singleResult == -1) == present ||
        (singleResult != 0 && single != 0.25F)) {
        fail("getFloat32 gave %d", singleResult);
    }
    float radians = 0.25F;
    const int radiansResult = parser.getFloat32DegreesToRadians(header, name, radians);
    if (radiansResult != singleResult || (radiansResult == 0 && !sameFloat(radians, single * 0.017453292F)) ||
        (radiansResult != 0 && radians != 0.25F)) {
        fail("getFloat32DegreesToRadians gave %d, getFloat32 %d", radiansResult, singleResult);
    }

    bool flag = true;
    const int flagResult = parser.getBoolean(header, name, flag);
    const bool word = text == "true" || text == "yes" || text == "on" || text == "1" || text == "false" ||
                      text == "no" || text == "off" || text == "0";
    if (flagResult != (!present ? -1 : (word ? 0 : -2)) || (flagResult != 0 && !flag)) {
        fail("getBoolean gave %d for \"%s\"", flagResult, text.c_str());
    }

    std::pair<float, float> vector{0.5F, 0.25F};
    const int vectorResult = parser.getVector2f(header, name, vector);
    if (vectorResult < -4 || vectorResult > 0 || (!present && vectorResult != -1) ||
        (vectorResult != 0 && (vector.first != 0.5F || vector.second != 0.25F))) {
        fail("getVector2f gave %d", vectorResult);
    }
    if (present && vectorResult == -1 && text.find(',') != std::string::npos) {
        fail("getVector2f called \"%s\" missing", text.c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = vidapp::fuzz::setUp();
    (void)ready;

    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream input(text);
    IniFileParser parser;
    bool complete = true;
    try {
        parser.parse(input);
    } catch (const IniFileParserException& e) {
        complete = false;
        const auto lines = static_cast<std::uint32_t>(std::count(text.begin(), text.end(), '\n')) + 1;
        if (e.getCode() != 413 || e.lineNumber < 1 || e.lineNumber > lines) {
            fail("parse failed with code %u on line %u of %u: %s", e.getCode(), e.lineNumber, lines, e.what());
        }
    }

    Candidates candidates;
    const Model model = modelOf(text, candidates);
    for (const std::string& header : candidates.headers) {
        if (complete && !parser.containsHeader(header)) {
            fail("header [%s] of a complete parse is missing", header.c_str());
        }
        checkGetters(parser, header, "", nullptr);
    }
    for (const auto& [header, name] : candidates.parameters) {
        const std::string* expected = nullptr;
        if (complete) {
            const auto section = model.find(header);
            if (section != model.end() && section->second.count(name) != 0) {
                expected = &section->second.at(name);
            }
        }
        checkGetters(parser, header, name, expected);
    }
    checkGetters(parser, "", "", nullptr);
    checkGetters(parser, "Protocol", "T1D_VER", nullptr);
    if (parser.containsHeader("")) {
        fail("the empty header exists");
    }
    return 0;
}
