#pragma once

#include <array>
#include <cstdint>
#include <sstream>
#include <string>

#include "communication/OVRACommunicationUtils.h"
#include "log/OVRALogImplementPrintf.h"

// Counts the messages that pass a channel, per message ID, with the running sum of the intervals
// between consecutive messages of each ID, so that a report can give every ID's count, rate (Hz)
// and mean period (ms). Host and internal messages are kept in two tables and reported apart.
//
// The owning channel calls track() from its write path. The tracker takes no lock: it must be
// written from one thread at a time, and a report taken while messages flow may mix old and new
// values of an entry.
class MessagesTracker {
public:
    struct TrackInfo {
        std::uint32_t messageId = 0;
        std::uint64_t count = 0;
        double totalIntervalUs = 0.0;
        std::uint64_t lastTimestampUs = 0; // 0 before the first message
    };

    using HostTable = std::array<TrackInfo, OVRA::NUMBER_OF_HOST_MESSAGE_IDS>;
    using InternalTable = std::array<TrackInfo, OVRA::NUMBER_OF_INTERNAL_MESSAGE_IDS>;
    // Microseconds, as ovraSystemTimestamp_us gives them.
    using Clock = std::uint64_t (*)();

    // clock is the time source of the intervals; the process time stamp unless a test gives its own.
    explicit MessagesTracker(Clock clock = ovraSystemTimestamp_us);

    // IDs 1..30 count as host messages; every other ID counts as internal by its low 31 bits, so 0
    // and 31 land in internal entries 0 and 31. An index above 50 throws std::out_of_range.
    void track(std::uint32_t messageId);

    // The name of the ID from the conversions of OVRACommunicationUtils ("(null)" for the host IDs
    // that have no name); their exceptions pass through.
    static std::string getMessageName(std::uint32_t messageId);

    // One line per tracked entry, in ID order: "<prefix>: <name>:<id>\t<count>\t<rate> Hz ( <mean> ms)".
    // The mean period divides the summed intervals by the count. Empty when nothing was tracked.
    std::string getTrackedHostMessagesStats(const std::string& prefix) const;
    std::string getTrackedInternalMessagesStats(const std::string& prefix) const;

    // Kept for the callers that list the entries when they stop; it writes nothing. The reports
    // above are how the counts are read.
    void logTrackedMessages(const std::string& prefix, const TrackInfo* first, const TrackInfo* last) const;

    const HostTable& getHostMessages() const { return hostMessages; }
    const InternalTable& getInternalMessages() const { return internalMessages; }
    std::uint64_t getHostMessagesTracked() const { return hostMessagesTracked; }
    std::uint64_t getInternalMessagesTracked() const { return internalMessagesTracked; }

private:
    static void append(std::ostringstream& stream, const std::string& prefix, const TrackInfo* first,
                       const TrackInfo* last);

    HostTable hostMessages;
    InternalTable internalMessages;
    std::uint64_t hostMessagesTracked = 0;
    std::uint64_t internalMessagesTracked = 0;
    Clock clock;
};
