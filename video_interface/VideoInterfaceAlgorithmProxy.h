#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/SharedMemory.h"
#include "common/Timer.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "framework/FeatureApplicationBase.h"
#include "video_interface/BufferListener.h"
#include "video_interface/BufferManager.h"
#include "video_interface/FrameSlotWriter.h"
#include "video_interface/FrameSource.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/ImageCapturer.h"
#include "video_interface/ImageReady.h"
#include "video_interface/Undistorter.h"
#include "video_interface/VideoInterfaceInputAggregate.h"
#include "video_interface/VideoInterfaceMessageListener.h"
#include "video_interface/VideoInterfaceTask.h"

namespace OVRA {

// Image signal processor settings of one camera; kept for a build that configures the processor.
struct ISPSettings_t {
    std::uint32_t exposureTime_us = 0;
    std::uint32_t analogGain = 0;
    std::uint32_t whiteBalanceMode = 0;
};

// The video application's configuration, with its built-in defaults (this build reads no file).
// Only the restart trials, the log interval and the contrast enhancement are used.
struct VideoInterfaceConfiguration_t {
    std::uint32_t restartGlobalRecoveryTrials = 5;
    std::uint32_t numberOfCameras = 1;
    std::uint32_t activeCameraId = 1;
    std::uint32_t cameraStartDelay_ms = 0;
    std::uint32_t cameraOpenTimeout_ms = 100;
    std::uint32_t cameraOpenRetries = 3;
    std::uint32_t ispGraphId = 1;
    std::uint32_t ispGraphLoadTimeout_ms = 100;
    std::uint32_t ispGraphLoadRetries = 3;
    std::uint32_t framesPerSecondDivider = 1;
    std::uint32_t framesPerConsumer = 1;
    std::uint32_t minimumConsumers = 1;
    std::uint32_t imageDumpInterval = 0;
    // 0: no periodic status report.
    std::uint32_t videoInterfaceLogTimeInterval_ms = 5000;
    bool contrastEnhancement = true;
    bool autoExposure = true;
    bool dynamicISPConfiguration = false;
    std::map<std::uint32_t, ISPSettings_t> frontCameraISPSettings;
    std::map<std::uint32_t, ISPSettings_t> rearCameraISPSettings;
};

// The algorithm object of the video application.
//
// It creates the frame segment "IMAGE_FRAME" (ten 3,072,024-byte slots, reusing what an earlier
// run left), runs the periodic status report on its own timer ("TimerRun"), and owns the thread
// "readSharedCommand" that polls the debug flag word once a second: on the live-stream start
// command that thread runs the capture loop (startImageCapturing), which writes every undistorted
// frame into slot 0 and announces it with VIDEO_INTERFACE_RESULTS, until the hitch-ball stop
// command, the end of the frames, or the application's stop. It handles the messages the video pipe
// passes on (camera support data, application status, consumer registration), keeps the camera
// frame rate, and as the BufferListener of a frame ring sends the ImageReady message of each frame.
//
// Threads: initialize and stopFeatureApp run on the main thread; featureAppRun on the worker;
// processReceivedMessage on the message hub's receive thread; bufferReady on the capture thread
// (under the buffer manager's registry mutex); logVideoInterfaceStatus on the timer thread;
// startImageCapturing on readSharedCommand. The camera rate and period are guarded by the static
// mCameraFramesRateMutex; mControlMutex guards the stop request and the frame source settings;
// the flags, counters and the buffer manager pointer are atomics; the capture state (slot bookkeeping,
// undistorter, ImageReady buffer) belongs to the capture thread alone.
//
// stopFeatureApp ends readSharedCommand (its one-second poll and the capture's 95 ms pace are
// interruptible; a running capture ends after its current frame) and stops the timer; it is
// idempotent, and the destructor does the same for an object that was never stopped. The segment
// is removed when the object goes.
class VideoInterfaceAlgorithmProxy : public FeatureApplicationBase<VideoInterfaceInputAggregate_t>,
                                     public BufferListener,
                                     public ImageCapturer,
                                     public VideoInterfaceMessageListener {
public:
    static constexpr const char* FRAME_SEGMENT_NAME = "IMAGE_FRAME";
    static constexpr std::uint64_t FRAME_SEGMENT_BUFFERS = 10;
    static constexpr std::chrono::milliseconds COMMAND_POLL_PERIOD{1000};
    static constexpr std::chrono::milliseconds CAPTURE_PACE{95};
    // The states of the video interface, 0 to 5, by name for the status report. No state changes
    // in this build.
    static constexpr std::array<const char*, 6> STATUS_NAMES = {
        "Idle No Consumers", "Stopped Camera Off", "Active", "Recovering", "Fault", "Unknown"};

    // Frame source settings from the environment (VIDAPP_CAMERA_PIPELINE, VIDAPP_FRAME_DIR).
    explicit VideoInterfaceAlgorithmProxy(const VideoInterfaceConfiguration_t& configuration = {});
    VideoInterfaceAlgorithmProxy(const VideoInterfaceConfiguration_t& configuration,
                                 const FrameSourceSettings& frameSourceSettings);
    ~VideoInterfaceAlgorithmProxy() override;

    // Creates the segment, starts readSharedCommand and schedules the status report. Call once: a
    // second call while the thread runs ends the process. Rethrows what fails (logged first).
    void initialize() override;
    // Sends VIDEO_INTERFACE_REGISTER_AGAIN on the first call; 0 for the three expected triggers,
    // 1006 (logged) for any other.
    std::uint32_t featureAppRun(const VideoInterfaceInputAggregate_t& input, FeatureAppOutput& output) override;
    // Stops readSharedCommand (and a capture it runs) and the timer. Idempotent.
    void stopFeatureApp() override;

    // Sends IMAGE_FRAME_READY for slot bufferIndex of the buffer manager. A failed send is logged
    // (1004, or 1045 for a standard exception such as the hub's refusal of a payload this large)
    // and goes no further.
    void bufferReady(std::size_t bufferIndex) override;

    void processReceivedMessage(const OVRAInterSystemMessages::CameraSupport_t& message) override;
    void processReceivedMessage(const SystemApplicationStatus_t& message) override;
    void processReceivedMessage(const OVRAInterSystemMessages::VideoConsumerRegister_t& message) override;
    void processReceivedMessage(const std::vector<std::uint8_t>& message);

    void sendRegisterAgainMessage();
    // Ends a running capture (after its current frame) when the hitch-ball stop command is set.
    void updateCameraStopStatus();
    // 15 or 30 fps from the buffer manager's frame period, else the previous estimate (30 at first).
    float estimateFramesRate_fps();
    // A rate of 0 or less is logged (419) and taken as 15 fps.
    void recordCameraFramesRate_fps(double framesRate_fps);
    bool isValidConditionToStartVisionPipeline() const { return false; }
    // Body of readSharedCommand; returns once a stop was requested.
    void readSharedCommand();
    // The capture loop; returns when camera running is cleared, the frames end or a stop was
    // requested. Runs on the calling thread.
    void startImageCapturing() override;
    // Not owned; null (as the process builds it) means no frame ring.
    void setBufferManager(BufferManager* bufferManager) { mBufferManager.store(bufferManager); }
    // The periodic status report (timer thread). Virtual so that a report can be replaced; a class
    // that replaces it calls stopFeatureApp() in its own destructor, before the timer could call it
    // on a half-destroyed object.
    virtual void logVideoInterfaceStatus();

    // Removes the names of the frame segment this object created, for a process that ends without
    // its destructors; never throws (a failure is logged).
    void removeFrameSegment() noexcept;

    // Takes effect at the next capture start.
    void setFrameSourceSettings(const FrameSourceSettings& settings);
    FrameSourceSettings getFrameSourceSettings() const;

    // The number after sequenceNumber; 0xFFFFFFFF is never used.
    static std::uint32_t nextSequenceNumber(std::uint32_t sequenceNumber);

    bool isCameraRunning() const { return mCameraRunning.load(); }
    bool isTargetBuild() const { return mTargetBuild.load(); }
    std::uint32_t getRestartGlobalRecoveryTrials() const { return mRestartGlobalRecoveryTrials; }
    double getCameraFramesRate_fps() const;
    static double getCameraFramesRate_ms();
    Timer& getTimer() { return mTimer; }
    const VideoInterfaceTask& getStatusTask() const { return mStatusTask; }

private:
    // Ends readSharedCommand (and a capture it runs) and the timer.
    void stopThreads();
    // Waits up to timeout; true when a stop was requested (at once or during the wait).
    bool waitForShutdown(std::chrono::milliseconds timeout);
    bool isShutdownRequested();
    // True when a stop was requested or the hitch-ball stop ended the capture (checked here).
    bool captureMustEnd();
    void sendResults(const OVRAInterSystemMessages::VideoInterfaceResults_t& results);
    // Undistorts frame into slot 0 and writes its header; false (logged) when it does not fit.
    bool storeFrame(const cv::Mat& frame, std::uint64_t timestamp_us, std::uint32_t sequenceNumber);

    static double mCameraFramesRate_ms; // mCameraFramesRateMutex
    static std::mutex mCameraFramesRateMutex;

    std::atomic<bool> mRegisterAgainSent{false};
    std::atomic<bool> mTargetBuild{true};
    std::uint32_t mRestartGlobalRecoveryTrials = 0; // main thread
    double mCameraFramesRate_fps = 0.0;             // mCameraFramesRateMutex
    VideoInterfaceConfiguration_t mConfiguration;   // main thread
    Timer mTimer;
    VideoInterfaceTask mStatusTask;
    std::atomic<std::uint32_t> mNumberOfRegisteredConsumers{0};
    std::atomic<bool> mCameraRunning{false};
    std::thread mReadSharedCommandThread;
    std::atomic<float> mEstimatedFramesRate_fps{30.0F};
    std::atomic<BufferManager*> mBufferManager{nullptr};
    SharedMemory mSharedMemory;

    mutable std::mutex mControlMutex;
    std::condition_variable mControlCondition;
    bool mShutdownRequested = false;          // mControlMutex
    FrameSourceSettings mFrameSourceSettings; // mControlMutex

    // Capture thread only (set up by initialize before the thread starts).
    Undistorter mUndistorter;
    FrameSlotWriter mSlotWriter{mUndistorter}; // slot 0's writer
    std::unique_ptr<ImageSupport::ImageReady_t> mImageReady;
};

} // namespace OVRA
