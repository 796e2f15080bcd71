#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "communication/OVRACommunicationUtils.h"
#include "video_interface/BufferListener.h"
#include "video_interface/ISPFrame.h"

// One possible video consumer, indexed by its source application identifier.
struct ConsumerRegisterInfo_t {
    bool registered = false;               // registered and not unregistered since
    std::uint64_t registrationTime_ms = 0; // set at registration and at unregistration
    bool active = false;                   // registered and its application was running then
};

// The consumer registry of the frame ring and the base of its buffer manager. It keeps who
// consumes frames, the last known status of every application, the ring positions, the camera
// frame period and the stopped flag, and after each stored frame either announces the frame to
// the BufferListener (some consumer is active) or pushes it straight back (idle mode). Each new
// frame pushes back the one announced before it, so at most one buffer is out at a time.
//
// Threads: the capture thread stores frames (through the derived manager), the message thread
// registers consumers and updates statuses, the status task reads counts. mRegistryMutex guards
// the registry, the status array, the positions and the counts; the frame period has its own
// mutex so that rate queries never wait for the registry.
class BufferManager {
public:
    static constexpr std::size_t NUMBER_OF_CONSUMERS = OVRA::MAX_SOURCE_APPS;
    static constexpr std::size_t NUMBER_OF_SLOTS = 10;
    // Only nine ring positions circulate over the ten slots: the location table decides.
    static constexpr std::size_t NUMBER_OF_POSITIONS = 9;
    // The ready buffer when none is announced.
    static constexpr std::size_t NO_BUFFER = 10;

    using ConsumerRegistry = std::array<ConsumerRegisterInfo_t, NUMBER_OF_CONSUMERS>;

    explicit BufferManager(BufferListener* listener = nullptr);
    BufferManager(const BufferManager&) = delete;
    BufferManager& operator=(const BufferManager&) = delete;

    // Announces the frame at the notify position or pushes it back, then advances the position.
    // The caller holds getRegistryMutex().
    virtual void notifyBufferListener();

    // The buffer state, kept by the derived manager.
    virtual bool isFullBuffer(std::size_t index) = 0;
    virtual void releaseBuffer(std::size_t index) = 0;
    virtual ~BufferManager();
    virtual std::uint64_t getBufferReceivedTime_ms(std::size_t index) = 0;
    virtual std::uint32_t getBufferSequenceNumber(std::size_t index) = 0;
    virtual void init() = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual ISPFrame_t* getWriteBuffer() = 0;
    virtual bool receiveBufferContents() = 0;
    // The caller holds getRegistryMutex().
    virtual void invalidateBuffers() = 0;

    // Ids 19 and above throw std::out_of_range. A consumer becomes active only when it registers
    // while its application status says running.
    void registerConsumer(std::uint32_t consumerId);
    void unregisterConsumer(std::uint32_t consumerId);
    void applicationsStatusUpdated(const OVRA::SystemApplicationStatus_t& status);

    std::uint32_t getNumberOfActiveConsumers();
    std::uint32_t getNumberOfRegisteredConsumers() const;
    // A copy of the registry, taken under the registry mutex.
    ConsumerRegistry getConsumerRegistry();
    // Frames announced to the listener so far.
    std::uint64_t getNumberOfAnnouncedFrames();

    // Write and notify positions to 0, locations to 0..8, no ready buffer. The caller holds
    // getRegistryMutex().
    void resetBufferLocations();

    void updateFramesRate(float period_ms);
    float getFramesRate_ms();
    // 1000 / period, or 0 while no period is known.
    float getFramesRate_fps();

    void setDynamicISPConfiguration(bool on);
    bool getDynamicISPConfiguration() const;

    // True when the hitch vision consumer (or else the hitch ball detector) is active and
    // registered.
    bool checkAutoHitchVisionOn();

    bool isBufferManagerStopped() const;

    // The listener is set before frames flow; it is called under the registry mutex.
    void setBufferListener(BufferListener* listener);

    std::mutex& getRegistryMutex() { return mRegistryMutex; }

protected:
    std::array<OVRA::ApplicationStatus_e, NUMBER_OF_CONSUMERS> mApplicationStatus{}; // mRegistryMutex

    std::mutex mFramesRateMutex;
    float mFramesRate_ms = 0.0F; // mFramesRateMutex

    std::array<std::size_t, NUMBER_OF_POSITIONS> mBufferLocations{}; // mRegistryMutex

    std::mutex mRegistryMutex;
    BufferListener* mBufferListener;                            // mRegistryMutex
    ConsumerRegistry mConsumers{};                              // mRegistryMutex
    std::uint32_t mNumberOfActiveConsumers = 0;                 // mRegistryMutex
    std::atomic<std::uint32_t> mNumberOfRegisteredConsumers{0}; // written under mRegistryMutex
    std::size_t mNotifyPosition = 0;                            // mRegistryMutex
    std::size_t mWritePosition = 0;                             // mRegistryMutex
    std::size_t mReadyBuffer = NO_BUFFER;                       // mRegistryMutex

    std::atomic<bool> mStopped{true};
    std::atomic<bool> mDynamicISPConfiguration{false};
    std::uint64_t mFramesAnnounced = 0; // mRegistryMutex
};
