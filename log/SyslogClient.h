#pragma once

#include <cstdint>

// The process's connection to the system log, writing what syslog(3) writes
// ("<priority>Mmm dd hh:mm:ss identity[pid]: message" in one datagram to /dev/log) but never
// waiting: a logger that has stopped reading fills its queue, and a record that cannot be queued
// at once is dropped and counted instead of holding the thread that logs (the receive thread, the
// capture). The count is reported in the next record that gets through. A logger that went away
// is reconnected on the next record; with LOG_CONS a record that cannot be sent at all goes to
// /dev/console, as syslog(3) does. Any thread may call any function: one mutex guards the state.
namespace OVRA {

// As openlog(3): identity (kept, not copied), options (LOG_PID, LOG_CONS) and default facility.
void syslogOpen(const char* identity, int options, int facility);
// As closelog(3).
void syslogClose();
// Sends message with priority (the facility of syslogOpen is added when priority has none). True
// when the logger took it; false when it was dropped (counted) or could not be sent.
bool syslogSend(int priority, const char* message);
// Records dropped so far because the logger was not reading.
std::uint64_t syslogDroppedRecords();

} // namespace OVRA
