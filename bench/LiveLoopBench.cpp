// What a frame costs in the live loop: frames from a GStreamer test pattern (800 x 1200 BGR, made
// as fast as they are taken) read through the capture's own frame source, stored into a slot of a
// POSIX shared memory object and announced with a results datagram, as the capture loop does it.
// Three ways, each in the same run:
//
// - floor: the frames read and nothing done with them, the cost of the camera alone;
// - design: cv::undistort into a matrix, a copy into a staging frame, a copy of that into the slot;
// - ours: the capture loop's FrameSlotWriter, which undistorts straight into the slot.
//
// Each benchmark reads a fixed number of frames and reports the process's CPU time per frame (every
// thread: GStreamer's, OpenCV's workers, ours) and the wall time per frame, with the number of
// OpenCV threads (and of our remap's stripes) as its argument. scripts/bench turns them into (ours - floor) / (design -
// floor). Before anything is timed both ways store the same frame into slots of garbage, and the two slots must agree
// in all 3,072,024 bytes, or the program stops with status 1 and times nothing.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include "common/SharedMemory.h"
#include "communication/DataValidity.h"
#include "communication/OVRAInterSystemMessages.h"
#include "communication/OutputIPC.h"
#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"
#include "video_interface/FrameSlotWriter.h"
#include "video_interface/FrameSource.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/Undistorter.h"

namespace {

constexpr const char* PIPELINE =
    "videotestsrc pattern=smpte horizontal-speed=8 ! video/x-raw,format=BGR,width=800,height=1200 ! "
    "appsink sync=false";
constexpr int FRAMES = 300;
constexpr int WARM_UP_FRAMES = 10;

// A UDP socket of its own on the loopback address that the results go to; nobody reads it, so the
// kernel drops what its buffer cannot hold, as it would for a router that lags.
class ResultsSink {
public:
    ResultsSink() : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error(std::string("results socket: ") + std::strerror(errno));
        }
        port = ntohs(address.sin_port);
    }
    ~ResultsSink() { ::close(fd); }
    ResultsSink(const ResultsSink&) = delete;
    ResultsSink& operator=(const ResultsSink&) = delete;

    int fd;
    std::uint16_t port = 0;
};

// The slot, the results channel and the ways' own state, shared by every benchmark of the run.
struct LiveLoop {
    LiveLoop() {
        frames.create(sizeof(ISPFrame_t), 2, true);
        message->messageId = OVRA::VIDEO_INTERFACE_RESULTS;
        message->length = sizeof(OVRAInterSystemMessages::VideoInterfaceResults_t) + 16;
    }
    ISPFrame_t& slot(int index) { return *static_cast<ISPFrame_t*>(frames.getAddress(index)); }

    SharedMemory frames{("LIVE_LOOP_" + std::to_string(::getpid())).c_str(), false};
    ResultsSink sink;
    OutputIPC output{"to_router", sink.port, "127.0.0.1"};
    DataValidity validity;
    std::unique_ptr<OVRA::PDUMessage_t> message = std::make_unique<OVRA::PDUMessage_t>();
    OVRA::Undistorter undistorter;
    OVRA::FrameSlotWriter writer{undistorter};
    const cv::Mat cameraMatrix = OVRA::Undistorter::defaultCameraMatrix();
    const cv::Mat distortion = OVRA::Undistorter::defaultDistortionCoefficients();
    cv::Mat undistorted;                                                  // the design's matrix
    std::unique_ptr<ISPFrame_t> staging = std::make_unique<ISPFrame_t>(); // the design's staging frame
};

LiveLoop& liveLoop() {
    static LiveLoop loop;
    return loop;
}

void announce(LiveLoop& loop, const cv::Mat& frame, std::uint64_t timestamp_us, std::uint32_t sequenceNumber) {
    const OVRAInterSystemMessages::VideoInterfaceResults_t results{0, static_cast<std::uint32_t>(frame.cols),
                                                                   static_cast<std::uint32_t>(frame.rows),
                                                                   sequenceNumber, timestamp_us};
    std::memcpy(loop.message->payload, &results, sizeof(results));
    if (loop.validity.apply(loop.message.get()) != 0) {
        throw std::runtime_error("the results message was refused");
    }
    loop.output.sendMessage(loop.message.get(), loop.message->length + 8UL);
}

void storeDesign(LiveLoop& loop, const cv::Mat& frame, std::uint64_t timestamp_us, std::uint32_t sequenceNumber) {
    cv::undistort(frame, loop.undistorted, loop.cameraMatrix, loop.distortion);
    ISPFrame_t& staging = *loop.staging;
    std::memcpy(staging.pixels, loop.undistorted.data, loop.undistorted.total() * loop.undistorted.elemSize());
    staging.width = static_cast<std::uint32_t>(frame.cols);
    staging.height = static_cast<std::uint32_t>(frame.rows);
    staging.timestamp = timestamp_us;
    staging.sequenceNumber = sequenceNumber;
    std::memcpy(&loop.slot(1), &staging, sizeof(ISPFrame_t));
}

enum class Way { FLOOR, DESIGN, OURS };

// Reads from the source as the capture loop does: wait for the frame, then take it.
bool nextFrame(OVRA::FrameSource& source, cv::Mat& frame) {
    while (!source.waitFrame(std::chrono::milliseconds(100))) {
    }
    return source.read(frame) && !frame.empty();
}

void runWay(benchmark::State& state, Way way) {
    const int threads = static_cast<int>(state.range(0));
    cv::setNumThreads(threads);
    LiveLoop& loop = liveLoop();
    loop.undistorter.setThreads(threads);
    OVRA::FrameSourceSettings settings;
    settings.pipeline = PIPELINE;
    const std::unique_ptr<OVRA::FrameSource> source = OVRA::openFrameSource(settings);
    if (source->waitOpened(std::chrono::seconds(10)) != OVRA::FrameSource::OpenState::OPENED) {
        state.SkipWithError("the test pattern did not open");
        return;
    }
    cv::Mat frame;
    for (int i = 0; i < WARM_UP_FRAMES; ++i) {
        if (!nextFrame(*source, frame)) {
            state.SkipWithError("the test pattern ended");
            return;
        }
    }
    std::uint32_t sequenceNumber = 0;
    for (auto _ : state) {
        if (!nextFrame(*source, frame)) {
            state.SkipWithError("the test pattern ended");
            return;
        }
        const std::uint64_t timestamp_us = ovraSystemTimestamp_us();
        if (way == Way::DESIGN) {
            storeDesign(loop, frame, timestamp_us, sequenceNumber);
        } else if (way == Way::OURS) {
            loop.writer.write(frame, loop.slot(0), timestamp_us, sequenceNumber);
        }
        if (way != Way::FLOOR) {
            announce(loop, frame, timestamp_us, sequenceNumber);
        }
        ++sequenceNumber;
    }
    state.counters["frames_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), //
                                                        benchmark::Counter::kIsRate);
}

void BM_LiveFloor(benchmark::State& state) {
    runWay(state, Way::FLOOR);
}
void BM_LiveDesign(benchmark::State& state) {
    runWay(state, Way::DESIGN);
}
void BM_LiveOurs(benchmark::State& state) {
    runWay(state, Way::OURS);
}

// The ways' CPU time is the whole process's: its name says so (cpu_time) and UseRealTime keeps the
// wall time beside it.
#define LIVE_LOOP_BENCHMARK(name)                                                                                      \
    BENCHMARK(name)                                                                                                    \
        ->ArgName("opencv_threads")                                                                                    \
        ->Arg(1)                                                                                                       \
        ->Arg(2)                                                                                                       \
        ->Iterations(FRAMES)                                                                                           \
        ->MeasureProcessCPUTime()                                                                                      \
        ->UseRealTime()                                                                                                \
        ->Unit(benchmark::kMillisecond)
LIVE_LOOP_BENCHMARK(BM_LiveFloor);
LIVE_LOOP_BENCHMARK(BM_LiveDesign);
LIVE_LOOP_BENCHMARK(BM_LiveOurs);

// Both ways store one frame of the pattern into slots full of garbage; true when all bytes agree.
bool bothWaysAgree() {
    LiveLoop& loop = liveLoop();
    OVRA::FrameSourceSettings settings;
    settings.pipeline = PIPELINE;
    const std::unique_ptr<OVRA::FrameSource> source = OVRA::openFrameSource(settings);
    cv::Mat frame;
    if (source->waitOpened(std::chrono::seconds(10)) != OVRA::FrameSource::OpenState::OPENED ||
        !nextFrame(*source, frame)) {
        std::fprintf(stderr, "LiveLoopBench: the test pattern gave no frame; nothing timed\n");
        return false;
    }
    std::memset(&loop.slot(0), 0x5A, sizeof(ISPFrame_t));
    std::memset(&loop.slot(1), 0x5A, sizeof(ISPFrame_t));
    loop.writer.write(frame, loop.slot(0), 1234, 7);
    storeDesign(loop, frame, 1234, 7);
    if (std::memcmp(&loop.slot(0), &loop.slot(1), sizeof(ISPFrame_t)) != 0) {
        std::fprintf(stderr, "LiveLoopBench: the two ways store different slots; nothing timed\n");
        return false;
    }
    std::printf("LiveLoopBench: both ways store the same %zu bytes\n", sizeof(ISPFrame_t));
    return true;
}

} // namespace

int main(int argc, char** argv) {
    // Logging off, as on the vehicle: a word of the benchmark's own, so that the system's is untouched.
    static std::uint64_t loggingOff = 0;
    shm_dlog_detail = &loggingOff;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    try {
        if (!bothWaysAgree()) {
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "LiveLoopBench: %s; nothing timed\n", e.what());
        return 1;
    }
    benchmark::AddCustomContext("pipeline", PIPELINE);
    benchmark::AddCustomContext("hardware_threads", std::to_string(std::thread::hardware_concurrency()));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
