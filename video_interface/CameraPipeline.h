#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include <gst/gst.h>
#include <opencv2/core.hpp>

namespace OVRA {

// The camera's GStreamer pipeline, read through its application sink with every wait bounded, so
// that a camera that stalls, never delivers, or whose source blocks while it opens never holds up
// the capture that reads it: the capture keeps obeying its stop commands while it waits.
//
// The pipeline is built and set playing on a thread of its own ("cameraOpen"), since a source may
// block there (a device that does not answer). Frames are the sink's samples as they come, with
// back-pressure (one sample queued, none dropped); a frame wraps the sample's mapped buffer, rows
// at the buffer's stride, so its bytes are those cv::VideoCapture::read would copy out, without the
// copy. The sink takes 3-channel BGR or 8-bit grey.
//
// Used by one thread (the capture's). The destructor stops the pipeline; a pipeline whose open or
// stop does not return in time is left to a thread of its own, which releases it should it ever
// return, so that the destructor itself never waits long.
class CameraPipeline {
public:
    enum class OpenState { OPENING, OPEN, FAILED };

    explicit CameraPipeline(const std::string& description);
    ~CameraPipeline();

    CameraPipeline(const CameraPipeline&) = delete;
    CameraPipeline& operator=(const CameraPipeline&) = delete;

    // Waits up to timeout for the open to finish; reason gets GStreamer's words after a failure.
    OpenState waitOpen(std::chrono::milliseconds timeout, std::string& reason);
    // Waits up to timeout until read() has something to say: a frame, or the end of the stream (an
    // end of stream or a pipeline error). False when the time ran out first. Only once open.
    bool waitFrame(std::chrono::milliseconds timeout);
    // The frame waitFrame found, valid until the next read or until the pipeline goes; false (and an
    // empty frame) when the stream has ended or the frame's format is not one the sink takes.
    bool read(cv::Mat& frame);

    // Of the latest frame waitFrame found; 0 before the first.
    std::uint32_t getWidth() const { return mWidth; }
    std::uint32_t getHeight() const { return mHeight; }
    std::uint32_t getFramesPerSecond() const { return mFramesPerSecond; }

    // How long the destructor waits for a stop before it leaves the pipeline to its own thread.
    static constexpr std::chrono::milliseconds STOP_TIMEOUT{1000};

private:
    struct Shared;

    void releaseCurrent();
    // Reads width, height and rate from sample's caps; false when the format is not one we take.
    bool describe(GstSample* sample);

    std::shared_ptr<Shared> mShared;
    std::thread mOpener;
    GstSample* mPending = nullptr; // found by waitFrame, not yet read
    GstSample* mCurrent = nullptr; // the sample of the frame read last, mapped
    GstMapInfo mMap{};
    bool mMapped = false;
    bool mEnded = false;
    int mStride = 0;
    int mType = 0;
    std::uint32_t mWidth = 0;
    std::uint32_t mHeight = 0;
    std::uint32_t mFramesPerSecond = 0;
};

} // namespace OVRA
