#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>

#include "common/MappingFaultGuard.h"
#include "common/OVRAException.h"
#include "log/ConsoleOutput.h"
#include "log/OVRALogImplementPrintf.h"
#include "video_interface/VideoInterfaceAlgorithmProxy.h"

namespace OVRA {

namespace {

constexpr std::uint32_t CAPTURE_ERROR = 416;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t FRAME_SLOT = 0;

constexpr std::chrono::milliseconds FRAME_WAIT_STEP{100};
constexpr std::chrono::seconds SILENCE_WARNING_AFTER{5};

// A camera silent for more than five seconds is worth one warning, and one more when it speaks
// again; no frame is invented in between.
class SilenceWatch {
public:
    void check() {
        if (!mWarned && std::chrono::steady_clock::now() - mLastFrame > SILENCE_WARNING_AFTER) {
            ovraLogImplementPrintf("startImageCapturing(): no frame from the camera for %lld s", LOG_LEVEL_WARNING,
                                   static_cast<long long>(SILENCE_WARNING_AFTER.count()));
            mWarned = true;
        }
    }
    void frameArrived() {
        const auto now = std::chrono::steady_clock::now();
        if (mWarned) {
            ovraLogImplementPrintf("startImageCapturing(): frames from the camera again after %.1f s",
                                   LOG_LEVEL_WARNING, std::chrono::duration<double>(now - mLastFrame).count());
            mWarned = false;
        }
        mLastFrame = now;
    }

private:
    std::chrono::steady_clock::time_point mLastFrame = std::chrono::steady_clock::now();
    bool mWarned = false;
};

void printLine(const char* text) {
    consoleLine(text);
}

} // namespace

void VideoInterfaceAlgorithmProxy::startImageCapturing() {
    ovraLogImplementPrintf("startImageCapturing() function", LOG_LEVEL_INFO);
    const std::unique_ptr<FrameSource> source = openFrameSource(getFrameSourceSettings());
    // Real cameras stall, take their time to open, or never answer: every wait for one is cut into
    // short steps between which the stop and the hitch-ball stop are obeyed.
    SilenceWatch silence;
    FrameSource::OpenState opened = FrameSource::OpenState::OPENING;
    while ((opened = source->waitOpened(FRAME_WAIT_STEP)) == FrameSource::OpenState::OPENING) {
        if (captureMustEnd()) {
            mCameraRunning.store(false);
            return;
        }
        silence.check();
    }
    if (opened == FrameSource::OpenState::FAILED) {
        printLine("Failed to open camera.");
        ovraLogImplementErrorPrintf(CAPTURE_ERROR, "Failed to open camera.");
        mCameraRunning.store(false);
        return;
    }
    // True once read() will not wait; false when the capture must end first.
    const auto waitForFrame = [&] {
        while (!source->waitFrame(FRAME_WAIT_STEP)) {
            if (captureMustEnd()) {
                return false;
            }
            silence.check();
        }
        silence.frameArrived();
        return true;
    };
    // The camera tells its frame size with its first frame.
    if (!waitForFrame()) {
        mCameraRunning.store(false);
        return;
    }
    const std::uint32_t width = source->getWidth();
    const std::uint32_t height = source->getHeight();
    consolePrintf(" Frame size : %u x %u, %llu Pixels %u FPS\n", width, height,
                  static_cast<unsigned long long>(width) * height, source->getFramesPerSecond());

    std::uint32_t sequenceNumber = 0;
    cv::Mat frame;
    while (mCameraRunning.load() && !isShutdownRequested()) {
        ovraLogImplementPrintf("mCaptureFrame", LOG_LEVEL_INFO);
        if (!waitForFrame()) {
            mCameraRunning.store(false);
            break;
        }
        if (!source->read(frame)) {
            printLine("Capture read error");
            ovraLogImplementErrorPrintf(CAPTURE_ERROR, "startImageCapturing(): Capture read error:");
            mCameraRunning.store(false);
            break;
        }
        if (frame.empty()) {
            printLine("Could not read the image file.");
            ovraLogImplementErrorPrintf(CAPTURE_ERROR, "startImageCapturing(): Could not read the image file:");
            mCameraRunning.store(false);
            break;
        }
        const std::uint64_t timestamp_us = ovraSystemTimestamp_us();
        if (!storeFrame(frame, timestamp_us, sequenceNumber)) {
            mCameraRunning.store(false);
            break;
        }

        OVRAInterSystemMessages::VideoInterfaceResults_t frameIndexData{};
        frameIndexData.bufferIndex = FRAME_SLOT;
        frameIndexData.imageWidth = static_cast<std::uint32_t>(frame.cols);
        frameIndexData.imageHeight = static_cast<std::uint32_t>(frame.rows);
        frameIndexData.sequenceNumber = sequenceNumber;
        frameIndexData.timestamp = timestamp_us;
        sendResults(frameIndexData);

        sequenceNumber = nextSequenceNumber(sequenceNumber);
        updateCameraStopStatus();
        if (waitForShutdown(CAPTURE_PACE)) {
            break;
        }
    }
}

bool VideoInterfaceAlgorithmProxy::captureMustEnd() {
    if (isShutdownRequested()) {
        return true;
    }
    updateCameraStopStatus();
    return !mCameraRunning.load();
}

bool VideoInterfaceAlgorithmProxy::storeFrame(const cv::Mat& frame, std::uint64_t timestamp_us,
                                              std::uint32_t sequenceNumber) {
    const std::size_t imageBytes = frame.total() * frame.elemSize();
    if (imageBytes > ISPFrame_t::PIXELS_SIZE) {
        printLine("Image too large for the frame slot.");
        ovraLogImplementErrorPrintf(CAPTURE_ERROR,
                                    "startImageCapturing(): Image too large for the frame slot: %d x %d x %zu bytes "
                                    "(at most %zu bytes)",
                                    frame.cols, frame.rows, frame.elemSize(), ISPFrame_t::PIXELS_SIZE);
        return false;
    }
    ovraLogImplementPrintf("getISPFrameInfo()", LOG_LEVEL_INFO);
    auto* slot = static_cast<ISPFrame_t*>(mSharedMemory.getAddress(FRAME_SLOT));
    ovraLogImplementPrintf("store() getISPFrameInfo", LOG_LEVEL_INFO);

    // Another process may shrink the object under the store: that must end the capture, not the process.
    const MappingFaultGuard guard(slot, sizeof(ISPFrame_t));
    mSlotWriter.write(frame, *slot, timestamp_us, sequenceNumber);
    if (guard.faulted()) {
        printLine("Frame slot cut short.");
        ovraLogImplementErrorPrintf(CAPTURE_ERROR,
                                    "startImageCapturing(): slot 0 of IMAGE_FRAME was cut short by another process");
        return false;
    }
    ovraLogImplementPrintf("store() setFull", LOG_LEVEL_INFO);
    ovraLogImplementPrintf("store() success", LOG_LEVEL_INFO);
    return true;
}

void VideoInterfaceAlgorithmProxy::sendResults(const OVRAInterSystemMessages::VideoInterfaceResults_t& results) {
    // A failed send costs this frame's announcement, never the capture.
    try {
        FeatureAppOutput* output = getCommonMessageHandler();
        if (output == nullptr) {
            throw std::logic_error("no message handler");
        }
        output->sendFeatureAppResults(VIDEO_INTERFACE_RESULTS, &results, sizeof(results));
        ovraLogImplementPrintf("sendFeatureAppResults(MessageIds_e::VIDEO_INTERFACE_RESULTS, &frameIndexData, "
                               "sizeof(OVRAInterSystemMessages::VideoInterfaceResults_t))",
                               LOG_LEVEL_INFO);
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "startImageCapturing(): send exception:[%s]", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "startImageCapturing(): send exception:[%s]", e.what());
    }
}

} // namespace OVRA
