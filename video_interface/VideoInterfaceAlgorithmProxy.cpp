#include "video_interface/VideoInterfaceAlgorithmProxy.h"
#include "log/ConsoleOutput.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <pthread.h>
#include <string>

#include "common/OVRAException.h"
#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace {

constexpr std::uint32_t INVALID_FRAME_PERIOD_ERROR = 416;
constexpr std::uint32_t INVALID_FRAME_RATE_ERROR = 419;
constexpr std::uint32_t STOP_ERROR = 420;
constexpr std::uint32_t INVALID_CONSUMER_ERROR = 421;
constexpr std::uint32_t SEND_ERROR = 1004;
constexpr std::uint32_t UNEXPECTED_TRIGGER_ERROR = 1006;
constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;

// The system allows 15 characters: "readSharedCommand" shows as its first 15.
constexpr const char* READ_SHARED_COMMAND_THREAD_NAME = "readSharedComma";

constexpr double DEFAULT_FRAMES_RATE_FPS = 15.0;
constexpr double CAMERA_SUPPORT_FRAMES_RATE_FPS = 30.0;

// Frame periods (ms) that mean a 15 or a 30 fps camera.
constexpr double FPS15_SHORTEST_PERIOD_MS = 1000.0 / 16.5;
constexpr double FPS15_LONGEST_PERIOD_MS = 1000.0 / 13.5;
constexpr double FPS30_SHORTEST_PERIOD_MS = 1000.0 / 33.0;
constexpr double FPS30_LONGEST_PERIOD_MS = 1000.0 / 27.0;

void printLine(const char* text) {
    consoleLine(text);
}

} // namespace

double VideoInterfaceAlgorithmProxy::mCameraFramesRate_ms = 0.0;
std::mutex VideoInterfaceAlgorithmProxy::mCameraFramesRateMutex;

VideoInterfaceAlgorithmProxy::VideoInterfaceAlgorithmProxy(const VideoInterfaceConfiguration_t& configuration)
    : VideoInterfaceAlgorithmProxy(configuration, FrameSourceSettings::fromEnvironment()) {}

VideoInterfaceAlgorithmProxy::VideoInterfaceAlgorithmProxy(const VideoInterfaceConfiguration_t& configuration,
                                                           const FrameSourceSettings& frameSourceSettings)
    : mConfiguration(configuration), mTimer("TimerRun"), mStatusTask(this), mSharedMemory(FRAME_SEGMENT_NAME, false),
      mFrameSourceSettings(frameSourceSettings), mImageReady(std::make_unique<ImageSupport::ImageReady_t>()) {}

VideoInterfaceAlgorithmProxy::~VideoInterfaceAlgorithmProxy() {
    try {
        stopThreads();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "~VideoInterfaceAlgorithmProxy(): %s", e.what());
    }
}

void VideoInterfaceAlgorithmProxy::initialize() {
    try {
        ovraLogImplementPrintf("VideoInterfaceAlgorithmProxy::initialize()", LOG_LEVEL_INFO);
        // A run that was killed leaves its objects behind: take them over.
        mSharedMemory.create(sizeof(ISPFrame_t), FRAME_SEGMENT_BUFFERS, true);
        mSlotWriter.forgetSlot(); // the segment may be an earlier run's leftover
        mReadSharedCommandThread = std::thread([this] {
            pthread_setname_np(pthread_self(), READ_SHARED_COMMAND_THREAD_NAME);
            readSharedCommand();
        });
        mRestartGlobalRecoveryTrials = mConfiguration.restartGlobalRecoveryTrials;
        ovraLogImplementPrintf("initialize(): mRestartGlobalRecoveryTrials= %u", LOG_LEVEL_DEBUG,
                               mRestartGlobalRecoveryTrials);
        ovraLogImplementPrintf("initialize(): mVideoInterfaceLogTimeInterval_ms= %u", LOG_LEVEL_DEBUG,
                               mConfiguration.videoInterfaceLogTimeInterval_ms);
        if (mConfiguration.videoInterfaceLogTimeInterval_ms != 0) {
            mTimer.scheduleFixedDelayPeriodic(&mStatusTask, mConfiguration.videoInterfaceLogTimeInterval_ms);
        }
        mTargetBuild.store(false);
        // The trailing blank belongs to the line.
        ovraLogImplementPrintf("initialize(): Linux build (Hostsim). ", LOG_LEVEL_DEBUG);
        ovraLogImplementPrintf(
            "VideoInterfaceAlgorithmProxy::initialize() VideoInterface.JSON Contrast enhancement turned [%s]",
            LOG_LEVEL_VERBOSE, mConfiguration.contrastEnhancement ? "On" : "Off");
        ovraLogImplementPrintf("initialize(): buffer manager init'd OK", LOG_LEVEL_DEBUG);
        ovraLogImplementPrintf("initialize(): success", LOG_LEVEL_DEBUG);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "initialize() exception: [%s]", e.what());
        throw;
    }
}

std::uint32_t VideoInterfaceAlgorithmProxy::featureAppRun(const VideoInterfaceInputAggregate_t& input,
                                                          FeatureAppOutput& /*output*/) {
    if (!mRegisterAgainSent.exchange(true)) {
        sendRegisterAgainMessage();
    }
    const std::uint32_t triggerMessageId = input.header.triggerMessageId;
    ovraLogImplementPrintf("featureAppRun(): triggering message ID:[0x%x]", LOG_LEVEL_VERBOSE, triggerMessageId);
    switch (triggerMessageId) {
    case SYSTEM_APPLICATION_STATUS:
    case VIDEO_CONSUMER_REGISTER:
    case RECEIVED_IMAGE_DATA:
        return 0;
    default:
        ovraLogImplementErrorPrintf(UNEXPECTED_TRIGGER_ERROR, "Unexpected trigger message ID:[0x%x]", triggerMessageId);
        return UNEXPECTED_TRIGGER_ERROR;
    }
}

void VideoInterfaceAlgorithmProxy::sendRegisterAgainMessage() {
    const OVRAInterSystemMessages::VideoInterfaceRegisterAgain_t registerAgain{};
    try {
        FeatureAppOutput* output = getCommonMessageHandler();
        if (output == nullptr) {
            throw std::logic_error("no message handler");
        }
        output->sendFeatureAppResults(VIDEO_INTERFACE_REGISTER_AGAIN, &registerAgain, sizeof(registerAgain));
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(SEND_ERROR, "sendRegisterAgainMessage() exception:[%s]", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "sendRegisterAgainMessage() exception:[%s]", e.what());
    }
}

void VideoInterfaceAlgorithmProxy::bufferReady(std::size_t bufferIndex) {
    ImageSupport::ImageReady_t& imageReady = *mImageReady;
    try {
        std::memset(&imageReady, 0, sizeof(imageReady));
        BufferManager* bufferManager = mBufferManager.load();
        if (bufferManager != nullptr) {
            imageReady.sequenceNumber = bufferManager->getBufferSequenceNumber(bufferIndex);
            imageReady.receivedTime_ms = bufferManager->getBufferReceivedTime_ms(bufferIndex);
        }
        imageReady.bufferIndex = static_cast<std::uint32_t>(bufferIndex);
        imageReady.cameraFramesRate_fps = estimateFramesRate_fps();
        imageReady.targetBuild = mTargetBuild.load() ? 1 : 0;
        FeatureAppOutput* output = getCommonMessageHandler();
        if (output == nullptr) {
            throw std::logic_error("no message handler");
        }
        output->sendFeatureAppResults(IMAGE_FRAME_READY, &imageReady, sizeof(imageReady));
        ovraLogImplementPrintf(
            "VideoInterfaceAlgorithmProxy.bufferReady(): sending consumers ImageReady#%u message for buffer#%zu",
            LOG_LEVEL_VERBOSE, imageReady.sequenceNumber, bufferIndex);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(SEND_ERROR, "bufferReady() exception:[%s]", e.what());
    } catch (const std::exception& e) {
        // The hub refuses payloads above 64000 bytes with std::invalid_argument; the capture goes on.
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "bufferReady() exception:[%s]", e.what());
    }
}

float VideoInterfaceAlgorithmProxy::estimateFramesRate_fps() {
    BufferManager* bufferManager = mBufferManager.load();
    const double period_ms = bufferManager != nullptr ? static_cast<double>(bufferManager->getFramesRate_ms()) : 0.0;
    float estimate = mEstimatedFramesRate_fps.load();
    if (period_ms >= FPS15_SHORTEST_PERIOD_MS && period_ms <= FPS15_LONGEST_PERIOD_MS) {
        estimate = 15.0F;
    } else if (period_ms >= FPS30_SHORTEST_PERIOD_MS && period_ms <= FPS30_LONGEST_PERIOD_MS) {
        estimate = 30.0F;
    }
    mEstimatedFramesRate_fps.store(estimate);
    ovraLogImplementPrintf("estimateFramesRate(): [%.2f] ms --> [%.1f] fps", LOG_LEVEL_VERBOSE, period_ms,
                           static_cast<double>(estimate));
    return estimate;
}

void VideoInterfaceAlgorithmProxy::recordCameraFramesRate_fps(double framesRate_fps) {
    std::lock_guard<std::mutex> lock(mCameraFramesRateMutex);
    if (framesRate_fps == mCameraFramesRate_fps) {
        return;
    }
    if (framesRate_fps <= 0.0) {
        ovraLogImplementErrorPrintf(
            INVALID_FRAME_RATE_ERROR,
            "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera Frame Rate: %E", framesRate_fps);
        mCameraFramesRate_fps = DEFAULT_FRAMES_RATE_FPS;
    } else {
        mCameraFramesRate_fps = framesRate_fps;
    }
    mCameraFramesRate_ms = 1000.0 / mCameraFramesRate_fps;
    ovraLogImplementPrintf("BufferManager.recordCameraFramesRate(): Frame Rate to %E fps (%E ms)", LOG_LEVEL_VERBOSE,
                           mCameraFramesRate_fps, mCameraFramesRate_ms);
}

double VideoInterfaceAlgorithmProxy::getCameraFramesRate_fps() const {
    std::lock_guard<std::mutex> lock(mCameraFramesRateMutex);
    return mCameraFramesRate_fps;
}

double VideoInterfaceAlgorithmProxy::getCameraFramesRate_ms() {
    std::lock_guard<std::mutex> lock(mCameraFramesRateMutex);
    return mCameraFramesRate_ms;
}

void VideoInterfaceAlgorithmProxy::processReceivedMessage(
    const OVRAInterSystemMessages::VideoConsumerRegister_t& message) {
    // Every registration is refused in this build: consumers stay unregistered and the ring idle.
    ovraLogImplementErrorPrintf(INVALID_CONSUMER_ERROR,
                                "process VideoConsumerRegister_t(): invalid video consumerId:[%u]",
                                static_cast<unsigned>(message.consumerId));
}

void VideoInterfaceAlgorithmProxy::processReceivedMessage(const OVRAInterSystemMessages::CameraSupport_t& message) {
    ovraLogImplementPrintf("Camera Support Data message received", LOG_LEVEL_VERBOSE);
    recordCameraFramesRate_fps(CAMERA_SUPPORT_FRAMES_RATE_FPS);
    if (mTargetBuild.load()) {
        ovraLogImplementPrintf("process Camera Support message: rvcCameraOnStatus:[%u]", LOG_LEVEL_VERBOSE,
                               static_cast<unsigned>(message.rvcCameraOnStatus));
    }
}

void VideoInterfaceAlgorithmProxy::processReceivedMessage(const SystemApplicationStatus_t& message) {
    BufferManager* bufferManager = mBufferManager.load();
    if (bufferManager == nullptr) {
        return;
    }
    bufferManager->applicationsStatusUpdated(message);
    if (mTargetBuild.load()) {
        mNumberOfRegisteredConsumers.store(bufferManager->getNumberOfRegisteredConsumers());
    }
}

void VideoInterfaceAlgorithmProxy::processReceivedMessage(const std::vector<std::uint8_t>& /*message*/) {}

void VideoInterfaceAlgorithmProxy::updateCameraStopStatus() {
    (void)refreshDLogInterface();
    if (checkDebugOn(D_HITCH_BALL_STOP) != 0 && mCameraRunning.load()) {
        ovraLogImplementPrintf("updateCameraStopStatus(): D_HITCH_BALL_STOP", LOG_LEVEL_INFO);
        resetHitchBallStop();
        mCameraRunning.store(false);
    }
}

void VideoInterfaceAlgorithmProxy::readSharedCommand() {
    printLine("readSharedCommand() function");
    ovraLogImplementPrintf("readSharedCommand() function:", LOG_LEVEL_INFO);
    while (!waitForShutdown(COMMAND_POLL_PERIOD)) {
        // The word is read straight from shared memory; refreshing follows an operator who
        // removed and recreated it.
        (void)refreshDLogInterface();
        if (checkDebugOn(D_LIVE_STREAM_START) == 0 || mCameraRunning.load()) {
            continue;
        }
        printLine("readSharedCommand(): D_LIVE_STREAM_START");
        ovraLogImplementPrintf("readSharedCommand(): D_LIVE_STREAM_START", LOG_LEVEL_INFO);
        mCameraRunning.store(true);
        resetLiveStreamStart();
        // This thread's boundary: a failed capture is logged and the next command waited for.
        try {
            startImageCapturing();
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "readSharedCommand(): capture exception: [%s]", e.what());
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "readSharedCommand(): capture exception: [%s]",
                                        e.what());
        } catch (...) {
            ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "readSharedCommand(): capture unexpected exception");
        }
        mCameraRunning.store(false);
    }
}

void VideoInterfaceAlgorithmProxy::stopFeatureApp() {
    try {
        stopThreads();
        // Two blanks, as log readers know the line.
        ovraLogImplementPrintf("stopFeatureApp():  STOPPED.", LOG_LEVEL_DEBUG);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "stopFeatureApp() exception: [%s]", e.what());
        throw;
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STOP_ERROR, "stopFeatureApp() exception: [%s]", e.what());
        throw;
    }
}

void VideoInterfaceAlgorithmProxy::stopThreads() {
    {
        std::lock_guard<std::mutex> lock(mControlMutex);
        mShutdownRequested = true;
    }
    mControlCondition.notify_all();
    if (mReadSharedCommandThread.joinable()) {
        mReadSharedCommandThread.join();
    }
    mTimer.stopTimer();
}

bool VideoInterfaceAlgorithmProxy::waitForShutdown(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mControlMutex);
    return mControlCondition.wait_for(lock, timeout, [this] { return mShutdownRequested; });
}

bool VideoInterfaceAlgorithmProxy::isShutdownRequested() {
    std::lock_guard<std::mutex> lock(mControlMutex);
    return mShutdownRequested;
}

void VideoInterfaceAlgorithmProxy::removeFrameSegment() noexcept {
    try {
        mSharedMemory.destroy();
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "removeFrameSegment(): %s", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "removeFrameSegment(): %s", e.what());
    }
}

void VideoInterfaceAlgorithmProxy::setFrameSourceSettings(const FrameSourceSettings& settings) {
    std::lock_guard<std::mutex> lock(mControlMutex);
    mFrameSourceSettings = settings;
}

FrameSourceSettings VideoInterfaceAlgorithmProxy::getFrameSourceSettings() const {
    std::lock_guard<std::mutex> lock(mControlMutex);
    return mFrameSourceSettings;
}

void VideoInterfaceAlgorithmProxy::logVideoInterfaceStatus() {
    const double period_ms = getCameraFramesRate_ms();
    if (period_ms <= 0.0) {
        ovraLogImplementErrorPrintf(
            INVALID_FRAME_PERIOD_ERROR,
            "VideoInterfaceAlgorithmProxy.recordCameraFramesRate(): Invalid Camera Frame Rate: %2f", period_ms);
    }
}

std::uint32_t VideoInterfaceAlgorithmProxy::nextSequenceNumber(std::uint32_t sequenceNumber) {
    return sequenceNumber >= 0xFFFFFFFEU ? 0U : sequenceNumber + 1U;
}

} // namespace OVRA
