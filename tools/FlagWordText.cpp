#include "tools/FlagWordText.h"

#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"

namespace vidapp::tools {

namespace {

bool allSet(std::uint64_t word, std::uint64_t bits) {
    return (word & bits) == bits;
}

std::string namedLine(const char* title, const std::vector<std::string>& names) {
    std::string line = title;
    line.resize(13, ' ');
    if (names.empty()) {
        line += " -";
    }
    for (const std::string& name : names) {
        line += " " + name;
    }
    return line + "\n";
}

} // namespace

const std::vector<NamedBits>& logLevels() {
    static const std::vector<NamedBits> list = {
        {"error", D_LOG_LEVEL_ERROR}, {"warning", D_LOG_LEVEL_WARNING}, {"info", D_LOG_LEVEL_INFO},
        {"debug", D_LOG_LEVEL_DEBUG}, {"verbose", D_LOG_LEVEL_VERBOSE}, {"profile", D_LOG_LEVEL_PROFILE},
    };
    return list;
}

// Commands that share bit 63 with the profile level show up whenever both of their bits are set.
const std::vector<NamedBits>& flagCommands() {
    static const std::vector<NamedBits> list = {
        {"profiler-start", D_PROFILER_START},       {"profiler-stop", D_PROFILER_STOP},
        {"profiler-transfer", D_PROFILER_TRANSFER}, {"hitch-ball-start", D_HITCH_BALL_START},
        {"hitch-ball-stop", D_HITCH_BALL_STOP},     {"delete-all-files", D_DELETE_ALL_FILES},
        {"live-stream-start", D_LIVE_STREAM_START}, {"live-stream-stop", D_LIVE_STREAM_STOP},
        {"calibration-start", D_CALIBRATION_START}, {"calibration-stop", D_CALIBRATION_STOP},
        {"recording-start", D_RECORDING_START},     {"recording-stop", D_RECORDING_STOP},
    };
    return list;
}

std::uint64_t vidappBit() {
    return OVRA::APP_DEBUG_VALUE.at("vidapp");
}

bool isLiveStreamStartPending(std::uint64_t word) {
    return allSet(word, D_LIVE_STREAM_START);
}

DecodedFlagWord decodeFlagWord(std::uint64_t word) {
    DecodedFlagWord decoded;
    for (const NamedBits& level : logLevels()) {
        if (allSet(word, level.bits)) {
            decoded.levels.emplace_back(level.name);
        }
    }
    std::uint64_t applicationBits = 0;
    for (const auto& [name, bits] : OVRA::APP_DEBUG_VALUE) {
        applicationBits |= bits;
        if (allSet(word, bits)) {
            decoded.applications.push_back(name);
        }
    }
    for (const NamedBits& command : flagCommands()) {
        if (allSet(word, command.bits)) {
            decoded.commands.emplace_back(command.name);
        }
    }
    for (const char* letters : {"abcdefghijklmnopqrstuvwxyz", "ABCDEFGHIJKLMNOPQRSTUVWXYZ"}) {
        for (const char* c = letters; *c != '\0'; ++c) {
            if ((word & debugBitsForCharacter(*c) & ~applicationBits) != 0) {
                decoded.otherBits.emplace_back(1, *c);
            }
        }
    }
    decoded.liveStreamStartPending = isLiveStreamStartPending(word);
    decoded.hitchBallStopPending = allSet(word, D_HITCH_BALL_STOP);
    const NamedBits profiler[] = {
        {"start", D_PROFILER_START}, {"stop", D_PROFILER_STOP}, {"transfer", D_PROFILER_TRANSFER}};
    for (const NamedBits& command : profiler) {
        if (allSet(word, command.bits)) {
            decoded.profiler.emplace_back(command.name);
        }
    }
    return decoded;
}

std::string describeFlagWord(std::uint64_t word) {
    const DecodedFlagWord decoded = decodeFlagWord(word);
    std::string text = namedLine("Levels:", decoded.levels) + namedLine("Applications:", decoded.applications) +
                       namedLine("Commands:", decoded.commands);
    if (decoded.liveStreamStartPending) {
        text += "Pending:      live-stream start: vidapp starts the camera within a second\n";
    }
    return text + namedLine("Other bits:", decoded.otherBits);
}

} // namespace vidapp::tools
