#pragma once

#include <cstdint>

namespace OVRA {

enum LogLevel_e : std::uint8_t {
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARNING = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_VERBOSE = 5,
    LOG_LEVEL_PROFILE = 6,
};

} // namespace OVRA
