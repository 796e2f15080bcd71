#include "communication/MessagesTracker.h"

#include <iomanip>

MessagesTracker::MessagesTracker(Clock clockSource) : clock(clockSource) {
    for (std::uint32_t id = 0; id < hostMessages.size(); ++id) {
        hostMessages[id].messageId = id;
    }
    for (std::uint32_t index = 0; index < internalMessages.size(); ++index) {
        internalMessages[index].messageId = OVRA::INTERNAL_MESSAGE_FLAG + index;
    }
}

void MessagesTracker::track(std::uint32_t messageId) {
    const bool host = messageId >= OVRA::FIRST_HOST_MESSAGE_ID && messageId <= OVRA::LAST_HOST_MESSAGE_ID;
    TrackInfo& entry = host ? hostMessages[messageId] : internalMessages.at(messageId & ~OVRA::INTERNAL_MESSAGE_FLAG);
    ++entry.count;
    const std::uint64_t now = clock();
    // A time stamp of 0 (clock divisor 0) is never taken as a previous message.
    if (entry.lastTimestampUs != 0) {
        entry.totalIntervalUs += static_cast<double>(now - entry.lastTimestampUs);
    }
    entry.lastTimestampUs = now;
    if (host) {
        ++hostMessagesTracked;
    } else {
        ++internalMessagesTracked;
    }
}

std::string MessagesTracker::getMessageName(std::uint32_t messageId) {
    const char* name = messageId == 0 || messageId > OVRA::LAST_HOST_MESSAGE_ID
                           ? OVRA::getInternalMessageIdString(static_cast<OVRA::InternalMessageIds_e>(messageId))
                           : OVRA::getMessageIdString(static_cast<OVRA::MessageIds_e>(messageId));
    return name != nullptr ? name : "(null)";
}

std::string MessagesTracker::getTrackedHostMessagesStats(const std::string& prefix) const {
    std::ostringstream stream;
    append(stream, prefix, hostMessages.data(), hostMessages.data() + hostMessages.size());
    return stream.str();
}

std::string MessagesTracker::getTrackedInternalMessagesStats(const std::string& prefix) const {
    std::ostringstream stream;
    append(stream, prefix, internalMessages.data(), internalMessages.data() + internalMessages.size());
    return stream.str();
}

void MessagesTracker::logTrackedMessages(const std::string& /*prefix*/, const TrackInfo* /*first*/,
                                         const TrackInfo* /*last*/) const {}

void MessagesTracker::append(std::ostringstream& stream, const std::string& prefix, const TrackInfo* first,
                             const TrackInfo* last) {
    stream << std::fixed << std::setprecision(2);
    for (const TrackInfo* entry = first; entry != last; ++entry) {
        if (entry->count == 0) {
            continue;
        }
        // Divided by the count, not by the number of intervals: other processes report it so.
        const double meanPeriodMs = entry->totalIntervalUs / (static_cast<double>(entry->count) * 1000.0);
        const double rateHz = meanPeriodMs > 0.0 ? 1000.0 / meanPeriodMs : 0.0;
        stream << prefix << ": " << getMessageName(entry->messageId) << ":" << entry->messageId << "\t" << entry->count
               << "\t" << rateHz << " Hz ( " << meanPeriodMs << " ms)\n";
    }
}
