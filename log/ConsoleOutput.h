#pragma once

#include <cstdint>
#include <cstdio>

// Lines for the console (standard output and standard error). Tools write as any program does: a
// slow reader makes them wait. A process that must never wait on its console (vidapp: the receive
// thread traces every message there, the capture every frame) calls setConsoleNeverWaits(true)
// once at start: from then on a line that cannot be written at once, because the reader is not
// keeping up or has gone, is dropped and counted, and the count is reported on the same stream
// with the next line that gets through, or by reportDroppedConsoleLines() at stop. Lines stay
// whole and in order; no line allocates. Any thread may call any function: one mutex serialises
// the writes of both streams.
namespace OVRA {

void setConsoleNeverWaits(bool neverWaits);

// text and a line feed on standard output.
void consoleLine(const char* text);
// The formatted text as it is (no line feed added), on standard output or standard error.
void consolePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void consoleErrorPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Writes the counts of dropped lines still unreported, where the streams take them now.
void reportDroppedConsoleLines();
// Lines dropped so far on standard output and on standard error.
std::uint64_t droppedConsoleLines();

} // namespace OVRA
