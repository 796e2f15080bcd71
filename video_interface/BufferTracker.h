#pragma once

#include <array>
#include <cstddef>

#include "video_interface/BufferManager.h"

// Follows one frame buffer from the moment it is handed to the consumers until the last of them
// has said it is done with it. Tracking takes a snapshot of the registered consumers (registered,
// not only active: a registered consumer whose application is not running is still waited for)
// and crosses them off one by one. No lock and no message: the owner serialises the calls (under
// its registry mutex) and reads the result.
class BufferTracker {
public:
    // Starts tracking bufferIndex over the consumers registered now; the previous snapshot is
    // overwritten. The second argument is accepted and not used.
    void startTracking(std::size_t bufferIndex, std::size_t unused, const BufferManager::ConsumerRegistry& registry);
    // True when this call crossed consumerId off. While nothing is tracked any id is accepted
    // (false); while tracking, an id of 19 or more throws std::out_of_range.
    bool consumerDone(std::size_t consumerId);

    // The log lines of the two operations above.
    void startTrackingDebug(std::size_t bufferIndex);
    void consumerDoneDebug();

    // 0 when no buffer is being tracked.
    std::size_t getConsumersRemaining() const { return mConsumersRemaining; }
    std::size_t getTrackedBufferIndex() const { return mBufferIndex; }
    bool isReading(std::size_t consumerId) const { return mReading.at(consumerId); }

private:
    std::size_t mConsumersRemaining = 0;
    std::size_t mBufferIndex = 0;
    std::array<bool, BufferManager::NUMBER_OF_CONSUMERS> mReading{};
};
