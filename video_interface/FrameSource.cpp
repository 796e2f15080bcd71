#include "video_interface/FrameSource.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <gst/gst.h>

#include "log/OVRALogImplementPrintf.h"
#include "video_interface/ISPFrame.h"

#include <opencv2/imgproc.hpp>

namespace OVRA {

namespace {

constexpr const char* PGM_EXTENSION = ".pgm";
// Every image fits a frame slot once it is BGR; a FIFO would hold the capture up in its open.
const ImageFile::Limits IMAGE_LIMITS{true, ISPFrame_t::PIXELS_SIZE / 3};

std::uint32_t toUnsigned(double value) {
    return value > 0.0 ? static_cast<std::uint32_t>(value) : 0U;
}

} // namespace

FrameSourceSettings FrameSourceSettings::fromEnvironment() {
    FrameSourceSettings settings;
    if (const char* pipeline = std::getenv(PIPELINE_VARIABLE); pipeline != nullptr) {
        settings.pipeline = pipeline;
    }
    if (const char* directory = std::getenv(FRAME_DIRECTORY_VARIABLE); directory != nullptr) {
        settings.frameDirectory = directory;
    }
    return settings;
}

std::unique_ptr<FrameSource> openFrameSource(const FrameSourceSettings& settings) {
    if (!settings.frameDirectory.empty()) {
        return std::make_unique<ImageDirectoryFrameSource>(settings.frameDirectory);
    }
    return std::make_unique<CameraFrameSource>(settings.pipeline);
}

bool CameraFrameSource::pipelineElementsExist(const std::string& pipeline, std::string& reason) {
    static std::once_flag initialized;
    std::call_once(initialized, [] { gst_init(nullptr, nullptr); });
    GError* error = nullptr;
    GstElement* built = gst_parse_launch_full(pipeline.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (error != nullptr) {
        reason = error->message != nullptr ? error->message : "";
        g_error_free(error);
    }
    if (built == nullptr) {
        return false;
    }
    gst_object_unref(built);
    return true;
}

CameraFrameSource::CameraFrameSource(const std::string& pipeline) {
    if (pipeline.find('!') != std::string::npos) {
        mPipeline = std::make_unique<CameraPipeline>(pipeline);
        return;
    }
    mCapture.open(pipeline, cv::CAP_ANY);
    mOpened = mCapture.isOpened();
}

CameraFrameSource::~CameraFrameSource() {
    try {
        mCapture.release();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(1045, "CameraFrameSource: release: %s", e.what());
    }
}

FrameSource::OpenState CameraFrameSource::waitOpened(std::chrono::milliseconds timeout) {
    if (!mPipeline) {
        return mOpened ? OpenState::OPENED : OpenState::FAILED;
    }
    std::string reason;
    switch (mPipeline->waitOpen(timeout, reason)) {
    case CameraPipeline::OpenState::OPENING:
        return OpenState::OPENING;
    case CameraPipeline::OpenState::OPEN:
        mOpened = true;
        return OpenState::OPENED;
    case CameraPipeline::OpenState::FAILED:
        break;
    }
    ovraLogImplementPrintf("CameraFrameSource: pipeline refused: %s", LOG_LEVEL_DEBUG, reason.c_str());
    return OpenState::FAILED;
}

bool CameraFrameSource::waitFrame(std::chrono::milliseconds timeout) {
    return !mPipeline || mPipeline->waitFrame(timeout);
}

bool CameraFrameSource::isOpened() const {
    return mOpened;
}

std::uint32_t CameraFrameSource::getWidth() const {
    return mPipeline ? mPipeline->getWidth() : toUnsigned(mCapture.get(cv::CAP_PROP_FRAME_WIDTH));
}

std::uint32_t CameraFrameSource::getHeight() const {
    return mPipeline ? mPipeline->getHeight() : toUnsigned(mCapture.get(cv::CAP_PROP_FRAME_HEIGHT));
}

std::uint32_t CameraFrameSource::getFramesPerSecond() const {
    return mPipeline ? mPipeline->getFramesPerSecond() : toUnsigned(mCapture.get(cv::CAP_PROP_FPS));
}

bool CameraFrameSource::read(cv::Mat& frame) {
    return mPipeline ? mPipeline->read(frame) : mCapture.read(frame);
}

ImageDirectoryFrameSource::ImageDirectoryFrameSource(const std::string& directory) {
    std::error_code error;
    std::filesystem::directory_iterator entries(directory, error);
    if (error) {
        ovraLogImplementPrintf("ImageDirectoryFrameSource: cannot list [%s]: %s", LOG_LEVEL_DEBUG, directory.c_str(),
                               error.message().c_str());
        return;
    }
    for (const std::filesystem::directory_entry& entry : entries) {
        if (entry.path().extension() == PGM_EXTENSION && !entry.is_directory(error)) {
            mFiles.push_back(entry.path().string());
        }
    }
    std::sort(mFiles.begin(), mFiles.end());
    if (mFiles.empty()) {
        ovraLogImplementPrintf("ImageDirectoryFrameSource: no %s file in [%s]", LOG_LEVEL_DEBUG, PGM_EXTENSION,
                               directory.c_str());
        return;
    }
    try {
        mCurrent = std::make_unique<ImageFile>(mFiles.front().c_str(), IMAGE_LIMITS);
    } catch (const std::exception&) {
        return; // ImageFile has logged why
    }
    mFirstLoaded = true;
    mWidth = mCurrent->getImageWidth();
    mHeight = mCurrent->getImageHeight();
    mOpened = true;
}

bool ImageDirectoryFrameSource::read(cv::Mat& frame) {
    if (!mOpened) {
        return false;
    }
    if (mFirstLoaded) {
        mFirstLoaded = false;
    } else {
        mCurrent.reset();
        if (mNext >= mFiles.size()) {
            frame = cv::Mat();
            return true;
        }
        try {
            mCurrent = std::make_unique<ImageFile>(mFiles[mNext].c_str(), IMAGE_LIMITS);
        } catch (const std::exception&) {
            ++mNext;
            frame = cv::Mat();
            return false;
        }
    }
    ++mNext;
    // In the camera's layout: a consumer written for the camera reads test frames alike.
    const cv::Mat grey(static_cast<int>(mCurrent->getImageHeight()), static_cast<int>(mCurrent->getImageWidth()),
                       CV_8UC1, const_cast<std::uint8_t*>(mCurrent->getPixelsArray()));
    cv::cvtColor(grey, mBgr, cv::COLOR_GRAY2BGR);
    frame = mBgr;
    return true;
}

} // namespace OVRA
