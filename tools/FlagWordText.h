#pragma once

// The debug flag word in words, for the tools that show it (vidapp-dlog, vidapp-view).

#include <cstdint>
#include <string>
#include <vector>

namespace vidapp::tools {

struct NamedBits {
    const char* name;
    std::uint64_t bits;
};

// The log levels error..profile; level n (1..6) is switched with the command character '0' + n.
const std::vector<NamedBits>& logLevels();
// The one-shot commands, in the order of their bits.
const std::vector<NamedBits>& flagCommands();

// vidapp's application bit (the letter L).
std::uint64_t vidappBit();

// The live-stream start command is the profile level (bit 63) together with the launcher's letter
// a (bit 0): commands that set those two for their own sake start the camera all the same.
bool isLiveStreamStartPending(std::uint64_t word);

struct DecodedFlagWord {
    std::vector<std::string> levels;       // level bits set
    std::vector<std::string> applications; // applications whose bit is set, by short name
    std::vector<std::string> commands;     // commands whose bits are all set
    std::vector<std::string> otherBits;    // letters of bits 0..51 that belong to no application
    bool liveStreamStartPending = false;
    bool hitchBallStopPending = false;
    std::vector<std::string> profiler; // pending profiler commands: start, stop, transfer
};

DecodedFlagWord decodeFlagWord(std::uint64_t word);

// The lines "vidapp-dlog show" prints after the hex word: levels, applications, commands, the
// pending live-stream start, the other bits.
std::string describeFlagWord(std::uint64_t word);

} // namespace vidapp::tools
