#include "video_interface/BufferManager.h"

#include <chrono>
#include <exception>
#include <numeric>

#include "log/OVRALogImplementPrintf.h"

namespace {

// Milliseconds of the system clock divided by the process clock divisor; 0 for a divisor of 0.
std::uint64_t registrationTime_ms() {
    const std::uint64_t divisor = getClockDivisor();
    if (divisor == 0) {
        return 0;
    }
    const auto now_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    return static_cast<std::uint64_t>(now_ns) / 1000 / divisor / 1000;
}

// Several identifiers have no name; print what the C library prints for a null string.
const char* consumerName(std::uint32_t consumerId) {
    const char* name = OVRA::getSourceAppNameString(static_cast<OVRA::SourceAppNames_e>(consumerId));
    return name != nullptr ? name : "(null)";
}

} // namespace

BufferManager::BufferManager(BufferListener* listener) : mBufferListener(listener) {
    std::iota(mBufferLocations.begin(), mBufferLocations.end(), std::size_t{0});
}

BufferManager::~BufferManager() = default;

void BufferManager::setBufferListener(BufferListener* listener) {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    mBufferListener = listener;
}

void BufferManager::registerConsumer(std::uint32_t consumerId) {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    ConsumerRegisterInfo_t& consumer = mConsumers.at(consumerId);
    if (consumer.registered) {
        ovraLogImplementPrintf(
            "++registerConsumer(): Consumer Id:[%u] (%s) is already registered!. #Registered consumers=[%u]",
            OVRA::LOG_LEVEL_DEBUG, consumerId, consumerName(consumerId), mNumberOfRegisteredConsumers.load());
    } else {
        consumer.registered = true;
        consumer.registrationTime_ms = registrationTime_ms();
        consumer.active = false;
        ++mNumberOfRegisteredConsumers;
        ovraLogImplementPrintf("++registerConsumer(): registering consumer Id:[%u] (%s). #Registered consumers=[%u]",
                               OVRA::LOG_LEVEL_DEBUG, consumerId, consumerName(consumerId),
                               mNumberOfRegisteredConsumers.load());
    }
    if (!consumer.active && mApplicationStatus[consumerId] == OVRA::RUNNING) {
        consumer.active = true;
        ++mNumberOfActiveConsumers;
        ovraLogImplementPrintf("++registerConsumer(): #Active consumers=[%u]", OVRA::LOG_LEVEL_DEBUG,
                               mNumberOfActiveConsumers);
    }
}

void BufferManager::unregisterConsumer(std::uint32_t consumerId) {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    ConsumerRegisterInfo_t& consumer = mConsumers.at(consumerId);
    if (consumer.registered) {
        if (consumer.active) {
            --mNumberOfActiveConsumers;
        }
        consumer.registered = false;
        consumer.registrationTime_ms = registrationTime_ms();
        consumer.active = false;
        --mNumberOfRegisteredConsumers;
        ovraLogImplementPrintf("--unregisterConsumer(): Unregistering consumer Id:[%u] (%s). #registered consumers= %u",
                               OVRA::LOG_LEVEL_DEBUG, consumerId, consumerName(consumerId),
                               mNumberOfRegisteredConsumers.load());
    } else {
        ovraLogImplementPrintf(
            "--unregisterConsumer(): Consumer Id:[%u] (%s) is already un-registered!. #registered consumers=[%u]",
            OVRA::LOG_LEVEL_DEBUG, consumerId, consumerName(consumerId), mNumberOfRegisteredConsumers.load());
    }
    // Buffers already out are not pushed back here: the next frame takes the idle path.
    ovraLogImplementPrintf("--unregisterConsumer(): #Active consumers=[%u]", OVRA::LOG_LEVEL_DEBUG,
                           mNumberOfActiveConsumers);
}

void BufferManager::applicationsStatusUpdated(const OVRA::SystemApplicationStatus_t& status) {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    mApplicationStatus = status.applicationStatus;
    // The consumer list stays empty: readers of this line expect the braces.
    ovraLogImplementPrintf("applicationsStatusUpdated(): #Registered consumers=[%u], #Active consumers=[%u]. %s",
                           OVRA::LOG_LEVEL_DEBUG, mNumberOfRegisteredConsumers.load(), mNumberOfActiveConsumers, " {}");
}

std::uint32_t BufferManager::getNumberOfActiveConsumers() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    return mNumberOfActiveConsumers;
}

std::uint32_t BufferManager::getNumberOfRegisteredConsumers() const {
    return mNumberOfRegisteredConsumers.load();
}

BufferManager::ConsumerRegistry BufferManager::getConsumerRegistry() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    return mConsumers;
}

std::uint64_t BufferManager::getNumberOfAnnouncedFrames() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    return mFramesAnnounced;
}

void BufferManager::notifyBufferListener() {
    const std::size_t position = mNotifyPosition;
    const std::size_t slot = mBufferLocations.at(position);

    if (mReadyBuffer != NO_BUFFER) {
        ovraLogImplementPrintf("notifyBufferListener(): Push back previous Sequence Number:[%u]. Buffer Index:[%zu].",
                               OVRA::LOG_LEVEL_VERBOSE, getBufferSequenceNumber(mReadyBuffer), mReadyBuffer);
        releaseBuffer(mReadyBuffer);
    }

    if (mNumberOfActiveConsumers != 0) {
        mReadyBuffer = slot;
        ovraLogImplementPrintf("notifyBufferListener(): READY frame Sequence Number:[%u], buffer index:[%zu].",
                               OVRA::LOG_LEVEL_VERBOSE, getBufferSequenceNumber(slot), slot);
        try {
            if (mBufferListener != nullptr) {
                mBufferListener->bufferReady(slot);
                ++mFramesAnnounced;
            }
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(416, "%s", e.what());
        }
    } else {
        mReadyBuffer = NO_BUFFER;
        ovraLogImplementPrintf("notifyBufferListener(): Idle mode. Push back sequence number:[%u], buffer index:[%zu]",
                               OVRA::LOG_LEVEL_VERBOSE, getBufferSequenceNumber(slot), slot);
        releaseBuffer(slot);
    }

    mNotifyPosition = position + 1 == NUMBER_OF_POSITIONS ? 0 : position + 1;
}

void BufferManager::resetBufferLocations() {
    mNotifyPosition = 0;
    mWritePosition = 0;
    std::iota(mBufferLocations.begin(), mBufferLocations.end(), std::size_t{0});
    mReadyBuffer = NO_BUFFER;
}

void BufferManager::updateFramesRate(float period_ms) {
    std::lock_guard<std::mutex> lock(mFramesRateMutex);
    mFramesRate_ms = period_ms;
}

float BufferManager::getFramesRate_ms() {
    std::lock_guard<std::mutex> lock(mFramesRateMutex);
    return mFramesRate_ms;
}

float BufferManager::getFramesRate_fps() {
    std::lock_guard<std::mutex> lock(mFramesRateMutex);
    return mFramesRate_ms == 0.0F ? 0.0F : 1000.0F / mFramesRate_ms;
}

void BufferManager::setDynamicISPConfiguration(bool on) {
    mDynamicISPConfiguration = on;
}

bool BufferManager::getDynamicISPConfiguration() const {
    return mDynamicISPConfiguration;
}

bool BufferManager::checkAutoHitchVisionOn() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    const ConsumerRegisterInfo_t& vision = mConsumers[OVRA::SRC_AHIVIS];
    if (vision.active && vision.registered) {
        return true;
    }
    const ConsumerRegisterInfo_t& ballDetector = mConsumers[OVRA::SRC_HBALLD];
    return ballDetector.active && ballDetector.registered;
}

bool BufferManager::isBufferManagerStopped() const {
    const bool stopped = mStopped;
    ovraLogImplementPrintf("BufferManager mStopped: [%s]", OVRA::LOG_LEVEL_DEBUG, stopped ? "True" : "False");
    return stopped;
}
