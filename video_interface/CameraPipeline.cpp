#include "video_interface/CameraPipeline.h"

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <utility>

#include <gst/app/gstappsink.h>
#include <gst/video/video-info.h>

#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace {

constexpr const char* SINK_CAPS = "video/x-raw, format=(string){BGR, GRAY8}";

void initializeGstreamer() {
    static std::once_flag initialized;
    std::call_once(initialized, [] { gst_init(nullptr, nullptr); });
}

// The pipeline's application sink, referenced; null when it has none.
GstElement* findAppSink(GstElement* pipeline) {
    if (!GST_IS_BIN(pipeline)) {
        return GST_IS_APP_SINK(pipeline) ? GST_ELEMENT(gst_object_ref(pipeline)) : nullptr;
    }
    GstElement* found = nullptr;
    GstIterator* sinks = gst_bin_iterate_sinks(GST_BIN(pipeline));
    GValue item = G_VALUE_INIT;
    while (found == nullptr && gst_iterator_next(sinks, &item) == GST_ITERATOR_OK) {
        auto* element = GST_ELEMENT(g_value_get_object(&item));
        if (GST_IS_APP_SINK(element)) {
            found = GST_ELEMENT(gst_object_ref(element));
        }
        g_value_reset(&item);
    }
    g_value_unset(&item);
    gst_iterator_free(sinks);
    return found;
}

} // namespace

// What the capture thread and the pipeline's own threads share. The pipeline and its sink belong to
// whichever thread holds the last reference to this.
struct CameraPipeline::Shared {
    std::mutex mutex;
    std::condition_variable changed;
    OpenState state = OpenState::OPENING; // mutex
    bool abandoned = false;               // mutex: nobody waits for the open any more
    bool stopped = false;                 // mutex: the pipeline is released
    std::string reason;                   // mutex
    GstElement* pipeline = nullptr;       // the opener's until the state is OPEN
    GstElement* sink = nullptr;

    ~Shared() { release(); }

    void release() {
        if (pipeline != nullptr) {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
            pipeline = nullptr;
        }
        if (sink != nullptr) {
            gst_object_unref(sink);
            sink = nullptr;
        }
    }

    void open(const std::string& description) {
        initializeGstreamer();
        GError* error = nullptr;
        GstElement* built = gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
        std::string failure;
        if (error != nullptr) {
            failure = error->message != nullptr ? error->message : "";
            g_error_free(error);
        }
        GstElement* appSink = built != nullptr ? findAppSink(built) : nullptr;
        if (built != nullptr && appSink == nullptr) {
            failure = "the pipeline has no appsink";
        }
        bool playing = false;
        if (appSink != nullptr) {
            GstCaps* caps = gst_caps_from_string(SINK_CAPS);
            gst_app_sink_set_caps(GST_APP_SINK(appSink), caps);
            gst_caps_unref(caps);
            gst_app_sink_set_max_buffers(GST_APP_SINK(appSink), 1);
            gst_app_sink_set_drop(GST_APP_SINK(appSink), FALSE);
            // May block for as long as the source takes to start.
            playing = gst_element_set_state(built, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
            if (!playing) {
                failure = "the pipeline cannot be set playing";
            }
        }
        std::lock_guard<std::mutex> lock(mutex);
        pipeline = built;
        sink = appSink;
        reason = failure;
        state = playing ? OpenState::OPEN : OpenState::FAILED;
        if (!playing || abandoned) {
            release();
        }
        changed.notify_all();
    }
};

CameraPipeline::CameraPipeline(const std::string& description) : mShared(std::make_shared<Shared>()) {
    mOpener = std::thread([shared = mShared, description] {
        pthread_setname_np(pthread_self(), "cameraOpen");
        shared->open(description);
    });
}

CameraPipeline::~CameraPipeline() {
    releaseCurrent();
    if (mPending != nullptr) {
        gst_sample_unref(mPending);
    }
    bool opened = false;
    {
        std::lock_guard<std::mutex> lock(mShared->mutex);
        mShared->abandoned = true;
        opened = mShared->state != OpenState::OPENING;
    }
    if (!opened) {
        // The source blocks in its open: its thread releases the pipeline if it ever returns.
        mOpener.detach();
        return;
    }
    mOpener.join();
    // Stopping may wait for a source that cannot be interrupted; it gets a bounded time here.
    std::thread stopper([shared = mShared] {
        pthread_setname_np(pthread_self(), "cameraStop");
        std::unique_lock<std::mutex> lock(shared->mutex);
        GstElement* pipeline = std::exchange(shared->pipeline, nullptr);
        lock.unlock();
        if (pipeline != nullptr) {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
        }
        lock.lock();
        shared->stopped = true;
        shared->changed.notify_all();
    });
    std::unique_lock<std::mutex> lock(mShared->mutex);
    if (mShared->changed.wait_for(lock, STOP_TIMEOUT, [this] { return mShared->stopped; })) {
        lock.unlock();
        stopper.join();
    } else {
        lock.unlock();
        ovraLogImplementPrintf("CameraPipeline: the pipeline did not stop within %lld ms; left to its own thread",
                               LOG_LEVEL_WARNING, static_cast<long long>(STOP_TIMEOUT.count()));
        stopper.detach();
    }
}

CameraPipeline::OpenState CameraPipeline::waitOpen(std::chrono::milliseconds timeout, std::string& reason) {
    std::unique_lock<std::mutex> lock(mShared->mutex);
    mShared->changed.wait_for(lock, timeout, [this] { return mShared->state != OpenState::OPENING; });
    reason = mShared->reason;
    return mShared->state;
}

bool CameraPipeline::waitFrame(std::chrono::milliseconds timeout) {
    if (mPending != nullptr || mEnded) {
        return true;
    }
    GstElement* sink = mShared->sink;
    if (sink == nullptr) {
        mEnded = true;
        return true;
    }
    // An error upstream stops the stream without an end of stream: the sink would wait forever.
    if (GstBus* bus = gst_element_get_bus(mShared->pipeline); bus != nullptr) {
        GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
        gst_object_unref(bus);
        if (message != nullptr) {
            GError* error = nullptr;
            gst_message_parse_error(message, &error, nullptr);
            ovraLogImplementPrintf("CameraPipeline: pipeline error: %s", LOG_LEVEL_DEBUG,
                                   error != nullptr && error->message != nullptr ? error->message : "");
            if (error != nullptr) {
                g_error_free(error);
            }
            gst_message_unref(message);
            mEnded = true;
            return true;
        }
    }
    const auto timeout_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count();
    mPending = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), static_cast<GstClockTime>(timeout_ns));
    if (mPending != nullptr) {
        (void)describe(mPending); // the size is known before the frame is read
        return true;
    }
    mEnded = gst_app_sink_is_eos(GST_APP_SINK(sink)) != FALSE;
    return mEnded;
}

bool CameraPipeline::describe(GstSample* sample) {
    GstVideoInfo info;
    GstCaps* caps = gst_sample_get_caps(sample);
    if (caps == nullptr || !gst_video_info_from_caps(&info, caps)) {
        return false;
    }
    switch (GST_VIDEO_INFO_FORMAT(&info)) {
    case GST_VIDEO_FORMAT_BGR:
        mType = CV_8UC3;
        break;
    case GST_VIDEO_FORMAT_GRAY8:
        mType = CV_8UC1;
        break;
    default:
        return false;
    }
    mWidth = static_cast<std::uint32_t>(GST_VIDEO_INFO_WIDTH(&info));
    mHeight = static_cast<std::uint32_t>(GST_VIDEO_INFO_HEIGHT(&info));
    mStride = GST_VIDEO_INFO_PLANE_STRIDE(&info, 0);
    const int numerator = GST_VIDEO_INFO_FPS_N(&info);
    const int denominator = GST_VIDEO_INFO_FPS_D(&info);
    mFramesPerSecond = numerator > 0 && denominator > 0 ? static_cast<std::uint32_t>(numerator / denominator) : 0;
    return true;
}

bool CameraPipeline::read(cv::Mat& frame) {
    releaseCurrent();
    frame = cv::Mat();
    if (mPending == nullptr) {
        return false;
    }
    mCurrent = std::exchange(mPending, nullptr);
    GstBuffer* buffer = gst_sample_get_buffer(mCurrent);
    if (!describe(mCurrent) || buffer == nullptr || !gst_buffer_map(buffer, &mMap, GST_MAP_READ)) {
        return false;
    }
    mMapped = true;
    if (mMap.size < static_cast<std::size_t>(mStride) * (mHeight - 1) + mWidth * CV_ELEM_SIZE(mType)) {
        return false;
    }
    frame = cv::Mat(static_cast<int>(mHeight), static_cast<int>(mWidth), mType, mMap.data,
                    static_cast<std::size_t>(mStride));
    return true;
}

void CameraPipeline::releaseCurrent() {
    if (mCurrent == nullptr) {
        return;
    }
    if (mMapped) {
        gst_buffer_unmap(gst_sample_get_buffer(mCurrent), &mMap);
        mMapped = false;
    }
    gst_sample_unref(mCurrent);
    mCurrent = nullptr;
}

} // namespace OVRA
