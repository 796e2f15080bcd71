#pragma once

#include <cstdint>

namespace OVRA {

// int rather than 8 bits: the level is the last named parameter before the variable arguments of
// ovraLogImplementPrintf, and va_start needs a type that argument passing does not promote.
enum LogLevel_e : int {
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARNING = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_VERBOSE = 5,
    LOG_LEVEL_PROFILE = 6,
};

} // namespace OVRA
