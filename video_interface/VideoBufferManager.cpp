#include "video_interface/VideoBufferManager.h"
#include "log/ConsoleOutput.h"

#include <cstring>
#include <exception>
#include <iostream>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

VideoBufferManager::VideoBufferManager(ImageCapturer* capturer, BufferListener* listener)
    : BufferManager(listener), mSharedMemory(SEGMENT_NAME, false), mImageCapturer(capturer) {}

VideoBufferManager::~VideoBufferManager() {
    try {
        stop();
        ovraLogImplementPrintf("VideoBufferManager.stop(): stopped OK.", OVRA::LOG_LEVEL_DEBUG);
    } catch (const SharedMemoryException& e) {
        ovraLogImplementErrorPrintf(423, "%s", e.what());
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "%s", e.what());
    } catch (...) {
    }
}

void VideoBufferManager::setImageCapturer(ImageCapturer* capturer) {
    std::lock_guard<std::mutex> lock(mStartStopMutex);
    mImageCapturer = capturer;
}

void VideoBufferManager::init() {
    std::lock_guard<std::mutex> lock(mStartStopMutex);
    if (mInitialized) {
        ovraLogImplementPrintf("VideoBufferManager.init(): already initialized!", OVRA::LOG_LEVEL_DEBUG);
        return;
    }
    try {
        // Reuse what a crashed earlier run left, so that a restart needs no cleaning up.
        mSharedMemory.create(sizeof(ISPFrame_t), NUMBER_OF_SLOTS, true);
    } catch (const SharedMemoryException& e) {
        ovraLogImplementErrorPrintf(424, "VideoBufferManager.init(): shared memory exception: %s", e.what());
        throw BufferManagerException(424, "VideoBufferManager.init(): initialization error!");
    }
    mInitialized = true;
    ovraLogImplementPrintf("VideoBufferManager.init(): initialized OK.", OVRA::LOG_LEVEL_DEBUG);
}

void VideoBufferManager::start() {
    std::lock_guard<std::mutex> lock(mStartStopMutex);
    if (!mStopped) {
        return;
    }
    mStopped = false;
    try {
        if (mImageCapturer != nullptr) {
            mImageCapturer->startImageCapturing();
        }
    } catch (const ISPGraphException&) {
        throw BufferManagerException(425, "VideoBufferManager.start(): Error loading ISPGraph");
    }
    ovraLogImplementPrintf("VideoBufferManager.start(): STARTED.", OVRA::LOG_LEVEL_DEBUG);
}

void VideoBufferManager::stop() {
    std::lock_guard<std::mutex> lock(mStartStopMutex);
    if (mStopped) {
        return;
    }
    mStopped = true;
    try {
        if (mImageCapturer != nullptr) {
            mImageCapturer->stopImageCapturing();
        }
    } catch (const ISPGraphException&) {
        throw BufferManagerException(426, "VideoBufferManager.stop(): error unloading ISPGraph");
    }
    ovraLogImplementPrintf("VideoBufferManager.stop(): STOPPED.", OVRA::LOG_LEVEL_DEBUG);
}

ISPFrame_t* VideoBufferManager::getWriteBuffer() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    const std::size_t slot = mBufferLocations.at(mWritePosition);
    ISPFrame_t& staging = mStagingFrames.at(slot);
    ovraLogImplementPrintf("VideoBufferManager.getWriteBuffer(): allocating buffer#[%zu] for storing new frame",
                           OVRA::LOG_LEVEL_VERBOSE, slot);
    return &staging;
}

bool VideoBufferManager::receiveBufferContents() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    ++mFramesReceived;
    const std::size_t position = mWritePosition;
    const std::size_t slot = mBufferLocations.at(position);
    ovraLogImplementPrintf("VideoBufferManager.receiveBufferContents(): receive frame into buffer#[%zu]",
                           OVRA::LOG_LEVEL_VERBOSE, slot);
    try {
        ISPFrame_t* shared = getISPFrameInfo(slot);
        ovraLogImplementPrintf("store() getISPFrameInfo", OVRA::LOG_LEVEL_INFO);
        std::memcpy(shared, &mStagingFrames.at(slot), sizeof(ISPFrame_t));
        mFull.at(slot) = true;
        ovraLogImplementPrintf("store() setFull", OVRA::LOG_LEVEL_INFO);
        ovraLogImplementPrintf("store() success", OVRA::LOG_LEVEL_INFO);
    } catch (const std::exception& e) {
        OVRA::consoleLine("store() exception");
        ovraLogImplementErrorPrintf(423, "%s", e.what());
        throw BufferManagerException(423, e.what());
    }
    mWritePosition = position + 1 == NUMBER_OF_POSITIONS ? 0 : position + 1;
    notifyBufferListener();
    return true;
}

void VideoBufferManager::releaseBuffer(std::size_t index) {
    if (mFull.at(index).exchange(false)) {
        ovraLogImplementPrintf("VideoBufferManager.releaseBuffer(): push back buffer#[%zu]", OVRA::LOG_LEVEL_VERBOSE,
                               index);
    }
}

bool VideoBufferManager::isFullBuffer(std::size_t index) {
    return mFull.at(index);
}

void VideoBufferManager::invalidateBuffers() {
    if (mReadyBuffer != NO_BUFFER) {
        ovraLogImplementPrintf("invalidateBuffers(): Push back previous Sequence Number:[%u]. Buffer Index:[%zu].",
                               OVRA::LOG_LEVEL_VERBOSE, getBufferSequenceNumber(mReadyBuffer), mReadyBuffer);
        releaseBuffer(mReadyBuffer);
        mReadyBuffer = NO_BUFFER;
    }
    for (std::atomic<bool>& full : mFull) {
        full = false;
    }
    resetBufferLocations();
}

ISPFrame_t* VideoBufferManager::getISPFrameInfo(std::size_t index) {
    auto* frame = static_cast<ISPFrame_t*>(mSharedMemory.getAddress(index));
    ovraLogImplementPrintf("getISPFrameInfo()", OVRA::LOG_LEVEL_INFO);
    return frame;
}

std::uint64_t VideoBufferManager::getBufferReceivedTime_ms(std::size_t index) {
    return getISPFrameInfo(index)->timestamp;
}

std::uint32_t VideoBufferManager::getBufferSequenceNumber(std::size_t index) {
    return getISPFrameInfo(index)->sequenceNumber;
}

std::uint64_t VideoBufferManager::getNumberOfReceivedFrames() {
    std::lock_guard<std::mutex> lock(mRegistryMutex);
    return mFramesReceived;
}
