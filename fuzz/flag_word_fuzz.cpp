// The flag word's command syntax on arbitrary command strings. The bytes up to the first NUL are
// one command, applied by setDebugBits to a word of this target (never the machine's segment),
// starting from several words. A reference model written from the character tables gives the
// expected word, and the general rules are checked on their own as well: "+" never clears a bit,
// "-" never sets one, "0..." leaves 0, any other first character changes nothing.

#include <array>
#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "log/DynamicDebug.h"

namespace {

using vidapp::fuzz::fail;

constexpr std::uint64_t bit(unsigned n) {
    return std::uint64_t{1} << n;
}
constexpr std::uint64_t COMMAND_BIT = bit(63);

// The setting table, one character at a time; 0 outside it.
std::uint64_t referenceBits(char c) {
    if (c >= 'a' && c <= 'z') {
        return bit(static_cast<unsigned>(c - 'a'));
    }
    if (c >= 'A' && c <= 'Z') {
        return bit(26U + static_cast<unsigned>(c - 'A'));
    }
    if (c >= '1' && c <= '6') {
        return bit(58U + static_cast<unsigned>(c - '1'));
    }
    switch (c) {
    case '#':
        return bit(52);
    case '$':
        return bit(53);
    case '%':
        return bit(54);
    case '&':
        return bit(55);
    case '\'':
        return bit(56);
    case '(':
        return bit(57);
    case ')':
        return COMMAND_BIT | bit(0);
    case '*':
        return COMMAND_BIT | bit(1);
    case '+':
        return COMMAND_BIT | bit(2);
    case ',':
        return COMMAND_BIT | bit(3);
    case '-':
        return COMMAND_BIT | bit(4);
    case '.':
        return COMMAND_BIT | bit(5);
    default:
        return 0;
    }
}

std::uint64_t expectedWord(const std::string& command, std::uint64_t word) {
    if (command.empty()) {
        return word;
    }
    switch (command[0]) {
    case '0':
        return 0;
    case '+':
        for (std::size_t i = 1; i < command.size(); ++i) {
            word |= referenceBits(command[i]);
        }
        return word;
    case '-':
        for (std::size_t i = 1; i < command.size(); ++i) {
            word &= ~referenceBits(command[i]);
        }
        return word;
    default:
        return word;
    }
}

// The unit's own table must be the documented one for every character.
bool checkTables() {
    for (int c = -128; c < 128; ++c) {
        const auto character = static_cast<char>(c);
        if (debugBitsForCharacter(character) != referenceBits(character)) {
            fail("character %d selects 0x%lx, the table says 0x%lx", c,
                 static_cast<unsigned long>(debugBitsForCharacter(character)),
                 static_cast<unsigned long>(referenceBits(character)));
        }
    }
    return true;
}

constexpr std::array<std::uint64_t, 4> START_WORDS = {0, ~std::uint64_t{0}, 0x5555555555555555ULL,
                                                      D_LOG_LEVEL_ERROR | D_LIVE_STREAM_START};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = vidapp::fuzz::setUp() && checkTables();
    (void)ready;

    // The command as a C string: up to the first NUL.
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string command = bytes.substr(0, bytes.find('\0'));

    std::uint64_t& word = vidapp::fuzz::privateFlagWord();
    for (const std::uint64_t start : START_WORDS) {
        word = start;
        setDebugBits(command.c_str());
        const std::uint64_t after = word;
        const std::uint64_t expected = expectedWord(command, start);
        if (after != expected) {
            fail("\"%s\" on 0x%lx gave 0x%lx, expected 0x%lx", command.c_str(), static_cast<unsigned long>(start),
                 static_cast<unsigned long>(after), static_cast<unsigned long>(expected));
        }
        const char first = command.empty() ? '\0' : command[0];
        if ((first == '+' && (after & start) != start) || (first == '-' && (after & ~start) != 0) ||
            (first == '0' && after != 0) || (first != '+' && first != '-' && first != '0' && after != start)) {
            fail("\"%s\" on 0x%lx broke the rule of its first character: 0x%lx", command.c_str(),
                 static_cast<unsigned long>(start), static_cast<unsigned long>(after));
        }
        if (checkDebugOn(after) != 1 || checkDebugOn(0) != 1 || (after != ~std::uint64_t{0} && checkDebugOn(~after))) {
            fail("checkDebugOn disagrees with the word 0x%lx", static_cast<unsigned long>(after));
        }
    }

    // The two halves apply whatever the first character is.
    word = 0;
    setDebugBitsOn(command.c_str());
    const std::uint64_t set = word;
    word = ~std::uint64_t{0};
    setDebugBitsOff(command.c_str());
    if (command.size() >= 2 && word != ~set) {
        fail("\"%s\": setDebugBitsOff cleared 0x%lx, setDebugBitsOn set 0x%lx", command.c_str(),
             static_cast<unsigned long>(~word), static_cast<unsigned long>(set));
    }
    if (command.size() < 2 && (set != 0 || word != ~std::uint64_t{0})) {
        fail("\"%s\" is too short to change the word", command.c_str());
    }
    return 0;
}
