#pragma once

#include "log/LogLevel.h"

// Emits one finished text: the console line (standard output, without the level prefix) and a
// log record with the prefix, handed to the process's LogMessageClient. Without a client the
// text goes to standard error instead. Throws std::logic_error for a null text and
// std::out_of_range for a level outside 1..6.
void ovraLogImplementString(const char* text, OVRA::LogLevel_e level);
