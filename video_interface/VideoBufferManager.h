#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "common/SharedMemory.h"
#include "video_interface/BufferManager.h"
#include "video_interface/BufferWriter.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/ImageCapturer.h"

// The frame ring shared with every video consumer: the segment "IMAGE_FRAME" of ten frame slots,
// of which the nine ring positions circulate over the slots named by the location table. The
// capture loop takes the staging frame of the current slot (getWriteBuffer), fills it and hands
// it back (receiveBufferContents); the manager copies it into the shared slot, marks the slot
// full, advances the write position and lets the registry announce the frame or push it back.
//
// Threads: the capture thread is the only caller of getWriteBuffer/receiveBufferContents and the
// only writer of staging frames and shared slots; start() runs the capture on its caller's thread
// and holds mStartStopMutex for as long as it runs, so stop() from another thread waits for the
// capture to return. Registry operations (any thread) share mRegistryMutex with the frame path.
// The full flags are atomics, so releaseBuffer and isFullBuffer take no lock.
//
// The object holds ten 3 MB staging frames: give it static or heap storage, never a stack.
// The capturer and the listener are set at construction or before init().
class VideoBufferManager : public BufferManager, public BufferWriter<ISPFrame_t> {
public:
    static constexpr const char* SEGMENT_NAME = "IMAGE_FRAME";

    explicit VideoBufferManager(ImageCapturer* capturer = nullptr, BufferListener* listener = nullptr);
    // Stops, then removes the segment.
    ~VideoBufferManager() override;

    // Creates the segment; a second call only logs. BufferManagerException 424 when the segment
    // cannot be created.
    void init() override;
    // Runs the capturer until it returns (BufferManagerException 425 when it cannot load its
    // graph). Returns at once when already running.
    void start() override;
    // BufferManagerException 426 when the capturer cannot unload its graph. Returns at once when
    // already stopped.
    void stop() override;

    // The staging frame of the slot at the write position.
    ISPFrame_t* getWriteBuffer() override;
    // Copies that staging frame into its shared slot, marks it full, advances the write position
    // and announces it. BufferManagerException 423 (slot left empty, position kept) when the
    // copy fails, for instance before init().
    bool receiveBufferContents() override;

    // Indexes 10 and above throw std::out_of_range.
    void releaseBuffer(std::size_t index) override;
    bool isFullBuffer(std::size_t index) override;
    // Pushes back the ready buffer, empties every slot and resets the ring. The caller holds
    // getRegistryMutex().
    void invalidateBuffers() override;

    // The slot header as it lies in shared memory; SharedMemoryException 1107 for an index
    // outside [0, 10), 1023 before init().
    std::uint64_t getBufferReceivedTime_ms(std::size_t index) override;
    std::uint32_t getBufferSequenceNumber(std::size_t index) override;

    void setImageCapturer(ImageCapturer* capturer);
    bool isInitialized() const { return mInitialized; }
    std::uint64_t getNumberOfReceivedFrames();

private:
    // Shared slot index, mapped.
    ISPFrame_t* getISPFrameInfo(std::size_t index);

    // Declared first so that it goes last.
    SharedMemory mSharedMemory;
    std::atomic<bool> mInitialized{false};
    std::mutex mStartStopMutex;
    ImageCapturer* mImageCapturer; // mStartStopMutex
    std::array<std::atomic<bool>, NUMBER_OF_SLOTS> mFull{};
    std::array<ISPFrame_t, NUMBER_OF_SLOTS> mStagingFrames{}; // the capture thread's
    std::uint64_t mFramesReceived = 0;                        // mRegistryMutex
};
