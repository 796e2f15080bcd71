#include "video_interface/BufferTracker.h"

#include <cstdio>

#include "log/OVRALogImplementPrintf.h"

namespace {

// A log line built piece by piece in a fixed buffer; the longest possible line (19 identifiers)
// stays far below its size.
class LineBuilder {
public:
    LineBuilder& text(const char* part) {
        append("%s", part);
        return *this;
    }
    LineBuilder& number(std::size_t value) {
        append("%lu", static_cast<unsigned long>(value));
        return *this;
    }
    const char* c_str() const { return mLine; }

private:
    template <typename T> void append(const char* format, T value) {
        if (mLength < sizeof(mLine)) {
            const int written = std::snprintf(mLine + mLength, sizeof(mLine) - mLength, format, value);
            mLength += written > 0 ? static_cast<std::size_t>(written) : 0;
        }
    }

    char mLine[1024] = {};
    std::size_t mLength = 0;
};

// Ends a line with the identifiers still reading and logs it.
template <typename Reading> void logWithReaders(LineBuilder& line, const Reading& reading) {
    for (std::size_t id = 0; id < reading.size(); ++id) {
        if (reading[id]) {
            line.number(id).text(", ");
        }
    }
    ovraLogImplementPrintf("%s", OVRA::LOG_LEVEL_DEBUG, line.c_str());
}

} // namespace

void BufferTracker::startTracking(std::size_t bufferIndex, std::size_t /*unused*/,
                                  const BufferManager::ConsumerRegistry& registry) {
    mBufferIndex = bufferIndex;
    mConsumersRemaining = 0;
    for (std::size_t id = 0; id < mReading.size(); ++id) {
        mReading[id] = registry[id].registered;
        mConsumersRemaining += mReading[id] ? 1 : 0;
    }
    startTrackingDebug(bufferIndex);
}

bool BufferTracker::consumerDone(std::size_t consumerId) {
    // Checked before the bound, so any id is accepted while nothing is tracked.
    if (mConsumersRemaining == 0) {
        ovraLogImplementPrintf("BufferTracker.consumerDone(): consumer:%zu. Buffer#%zu is not being tracked anymore.",
                               OVRA::LOG_LEVEL_DEBUG, consumerId, mBufferIndex);
        return false;
    }
    bool& reading = mReading.at(consumerId);
    if (!reading) {
        ovraLogImplementPrintf("BufferTracker.consumerDone(): consumer:%zu is already done for buffer#%zu",
                               OVRA::LOG_LEVEL_DEBUG, consumerId, mBufferIndex);
        return false;
    }
    reading = false;
    ovraLogImplementPrintf("BufferTracker.consumerDone(): consumer:%zu done processing buffer#%zu.",
                           OVRA::LOG_LEVEL_DEBUG, consumerId, mBufferIndex);
    --mConsumersRemaining;
    if (mConsumersRemaining == 0) {
        ovraLogImplementPrintf(
            "BufferTracker.consumerDone(): Not more reading consumers. Finished Tracking buffer#%zu.",
            OVRA::LOG_LEVEL_DEBUG, mBufferIndex);
    } else {
        consumerDoneDebug();
    }
    return true;
}

void BufferTracker::startTrackingDebug(std::size_t bufferIndex) {
    LineBuilder line;
    line.text("BufferTracker.startTracking(): start tracking buffer#")
        .number(bufferIndex)
        .text(", #consumers=")
        .number(mConsumersRemaining)
        .text(", consumersList:");
    logWithReaders(line, mReading);
}

void BufferTracker::consumerDoneDebug() {
    LineBuilder line;
    // "remainig" is spelled as the log readers know it.
    line.text("BufferTracker.consumerDone(): still tracking buffer#")
        .number(mBufferIndex)
        .text(", remaining #consumers=")
        .number(mConsumersRemaining)
        .text(", remainig consumersList:");
    logWithReaders(line, mReading);
}
