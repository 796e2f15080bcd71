#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <type_traits>

#include "communication/OVRACommunicationUtils.h"

namespace OVRA {

// The bookkeeping every input record begins with, kept by the channel: which message completed
// the record, and the time stamp and the low 16 bits of the count of the latest message of every
// ID. Host IDs index the external tables directly (0..30); internal IDs index the internal tables
// with bit 31 removed (0..50). A new record starts as a copy of the previous record's header.
struct InputAggregateHeader_t {
    std::uint32_t triggerMessageId;
    std::array<std::uint64_t, NUMBER_OF_HOST_MESSAGE_IDS> externalMessageTimestamps;
    std::array<std::uint64_t, NUMBER_OF_INTERNAL_MESSAGE_IDS> internalMessageTimestamps;
    std::array<std::uint16_t, NUMBER_OF_HOST_MESSAGE_IDS> externalMessageCounts;
    std::array<std::uint16_t, NUMBER_OF_INTERNAL_MESSAGE_IDS> internalMessageCounts;
};

// A record type a channel can fill: its first member is the common header, named header.
template <typename T>
concept InputAggregate = requires(T record) {
    { record.header } -> std::same_as<InputAggregateHeader_t&>;
}
&&std::is_standard_layout_v<T>&& std::is_trivially_copyable_v<T>;

} // namespace OVRA
