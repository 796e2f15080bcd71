#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include "video_interface/CameraPipeline.h"
#include "video_interface/ImageFile.h"

namespace OVRA {

// Where the capture loop takes its frames from: the camera through a GStreamer pipeline, or, on a
// machine without the camera, the PGM images of a directory. Owned and used by the capture thread
// only.
class FrameSource {
public:
    enum class OpenState { OPENING, OPENED, FAILED };

    virtual ~FrameSource() = default;

    // Waits up to timeout for the source to open (a camera may take its time, or never answer).
    virtual OpenState waitOpened(std::chrono::milliseconds /*timeout*/) {
        return isOpened() ? OpenState::OPENED : OpenState::FAILED;
    }
    // Waits up to timeout until read() will not wait; false when the time ran out first.
    virtual bool waitFrame(std::chrono::milliseconds /*timeout*/) { return true; }
    virtual bool isOpened() const = 0;
    virtual std::uint32_t getWidth() const = 0;
    virtual std::uint32_t getHeight() const = 0;
    virtual std::uint32_t getFramesPerSecond() const = 0;
    // The next frame. false when the read failed; true with an empty frame when there is none. The
    // frame stays valid until the next read or until the source goes.
    virtual bool read(cv::Mat& frame) = 0;
};

// What the capture opens, normally taken from the environment once, when the proxy is built.
struct FrameSourceSettings {
    // The camera: 800 x 1200 NV12 at 4 frames per second, converted to BGR.
    static constexpr const char* DEFAULT_PIPELINE =
        "nvarguscamerasrc  ! video/x-raw(memory:NVMM), format=(string)NV12, width=(int)800, height=(int)1200, "
        "framerate=(fraction)4/1 !                         nvvidconv         ! video/x-raw,              "
        "format=(string)BGRx !                         videoconvert      ! video/x-raw,              "
        "format=(string)BGR  !                         appsink";
    static constexpr const char* PIPELINE_VARIABLE = "VIDAPP_CAMERA_PIPELINE";
    static constexpr const char* FRAME_DIRECTORY_VARIABLE = "VIDAPP_FRAME_DIR";

    std::string pipeline = DEFAULT_PIPELINE;
    // When not empty, frames come from the ".pgm" files of this directory instead of the pipeline.
    std::string frameDirectory;

    // VIDAPP_CAMERA_PIPELINE replaces the pipeline, VIDAPP_FRAME_DIR sets the directory (and then
    // wins over any pipeline).
    static FrameSourceSettings fromEnvironment();
};

// Opens the source the settings name. The result may be not opened; it is never null.
std::unique_ptr<FrameSource> openFrameSource(const FrameSourceSettings& settings);

// The camera. A GStreamer pipeline string (one that names elements with '!') is read through its
// application sink by a CameraPipeline, whose waits are all bounded; anything else (a device, a
// file) goes to cv::VideoCapture with any back end. The reason for a refused pipeline is logged at
// level 4.
class CameraFrameSource : public FrameSource {
public:
    explicit CameraFrameSource(const std::string& pipeline);
    ~CameraFrameSource() override;

    OpenState waitOpened(std::chrono::milliseconds timeout) override;
    bool waitFrame(std::chrono::milliseconds timeout) override;
    bool isOpened() const override;
    std::uint32_t getWidth() const override;
    std::uint32_t getHeight() const override;
    std::uint32_t getFramesPerSecond() const override;
    bool read(cv::Mat& frame) override;

    // True when GStreamer can build every element of the pipeline; reason gets GStreamer's words
    // otherwise.
    static bool pipelineElementsExist(const std::string& pipeline, std::string& reason);

private:
    std::unique_ptr<CameraPipeline> mPipeline; // a pipeline string
    cv::VideoCapture mCapture;                 // anything else
    bool mOpened = false;
};

// The ".pgm" files of a directory in name order, each read with ImageFile and delivered in the
// camera's layout: 3-channel BGR with the grey value in each channel. After the last file every
// read gives an empty frame. The directory is listed and the first image read when the source is
// built: a directory that cannot be listed, holds no ".pgm" file or whose first image is not a
// valid PGM leaves the source not opened. A later image that is not a valid PGM makes its read
// fail; so does a file that is not a regular file (a FIFO would hold the capture up) and one whose
// header claims more pixels than a frame slot holds in BGR. The frame rate is unknown: 0.
class ImageDirectoryFrameSource : public FrameSource {
public:
    explicit ImageDirectoryFrameSource(const std::string& directory);

    bool isOpened() const override { return mOpened; }
    std::uint32_t getWidth() const override { return mWidth; }
    std::uint32_t getHeight() const override { return mHeight; }
    std::uint32_t getFramesPerSecond() const override { return 0; }
    bool read(cv::Mat& frame) override;

private:
    std::vector<std::string> mFiles; // full paths, sorted by name
    std::size_t mNext = 0;           // the file the next read delivers
    std::unique_ptr<ImageFile> mCurrent;
    cv::Mat mBgr;              // the current image in BGR, reused from frame to frame
    bool mFirstLoaded = false; // mCurrent holds mFiles[0], not yet delivered
    bool mOpened = false;
    std::uint32_t mWidth = 0;
    std::uint32_t mHeight = 0;
};

} // namespace OVRA
