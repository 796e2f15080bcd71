// The road of one 800 x 1200 BGR camera frame from the captured image into its frame slot:
//
// - plain: cv::undistort with the camera matrix and distortion vector built anew for the frame, a
//   copy of the undistorted image into a staging ISPFrame_t (zeroed once) whose header is then
//   written, and a copy of the whole staging frame into the slot;
// - ours: the capture loop's Undistorter, whose remap tables are built once for the frame size,
//   writing straight into the slot, then the slot's header;
// - memcpy: the captured pixels copied into the slot, the floor of any path.
//
// Before anything is timed both ways store the same frame with the same header, each into a slot
// filled with garbage first; the two slots must agree in all 3,072,024 bytes, or the program stops
// with status 1 and times nothing.
//
// A slot is shared anonymous memory: the same kind of pages as a POSIX shared memory object, with
// no name that another process could see. OpenCV keeps its default threads in both ways, so times
// are wall-clock (UseRealTime): the work is spread over OpenCV's threads.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <thread>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "log/OVRALogImplementPrintf.h"
#include "video_interface/FrameSlotWriter.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/Undistorter.h"

namespace {

constexpr int FRAME_WIDTH = 800;
constexpr int FRAME_HEIGHT = 1200;
constexpr std::uint32_t SEED = 20240611U;
constexpr unsigned char GARBAGE = 0x5A;

// One frame slot in memory of its own, page-aligned like a mapped shared memory object.
class SlotMemory {
public:
    SlotMemory()
        : address(mmap(nullptr, sizeof(ISPFrame_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (address == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap of a frame slot");
        }
    }
    ~SlotMemory() { munmap(address, sizeof(ISPFrame_t)); }
    SlotMemory(const SlotMemory&) = delete;
    SlotMemory& operator=(const SlotMemory&) = delete;

    ISPFrame_t& frame() { return *static_cast<ISPFrame_t*>(address); }
    const unsigned char* bytes() const { return static_cast<const unsigned char*>(address); }

private:
    void* address;
};

// A camera-like picture: colour bars, a grey ramp and a checkerboard below them, circles and
// diagonals that the lens correction visibly bends, and sensor noise over everything. The same
// bytes on every run.
cv::Mat makeFrame() {
    cv::Mat frame(FRAME_HEIGHT, FRAME_WIDTH, CV_8UC3);
    const cv::Scalar bars[] = {{192, 192, 192}, {0, 192, 192}, {192, 192, 0}, {0, 192, 0},
                               {192, 0, 192},   {0, 0, 192},   {192, 0, 0}};
    const int barRows = FRAME_HEIGHT * 2 / 3;
    const int barWidth = FRAME_WIDTH / 7 + 1;
    for (int bar = 0; bar < 7; ++bar) {
        const int left = bar * barWidth;
        const int right = std::min(FRAME_WIDTH, left + barWidth);
        frame(cv::Range(0, barRows), cv::Range(left, right)).setTo(bars[bar]);
    }
    for (int y = barRows; y < FRAME_HEIGHT; ++y) {
        auto* row = frame.ptr<cv::Vec3b>(y);
        for (int x = 0; x < FRAME_WIDTH; ++x) {
            const bool light = ((x / 50) + (y / 50)) % 2 == 0;
            const auto ramp = static_cast<unsigned char>(x * 255 / (FRAME_WIDTH - 1));
            const unsigned char value = y < barRows + 200 ? ramp : (light ? 235 : 16);
            row[x] = cv::Vec3b(value, value, value);
        }
    }
    for (int i = 0; i < 6; ++i) {
        cv::circle(frame, cv::Point(400, 600), 80 + 90 * i, cv::Scalar(255, 255, 255), 3, cv::LINE_AA);
    }
    cv::line(frame, cv::Point(0, 0), cv::Point(FRAME_WIDTH - 1, FRAME_HEIGHT - 1), cv::Scalar(0, 0, 0), 5);
    cv::line(frame, cv::Point(FRAME_WIDTH - 1, 0), cv::Point(0, FRAME_HEIGHT - 1), cv::Scalar(0, 0, 0), 5);

    std::mt19937 generator(SEED);
    std::uniform_int_distribution<int> noise(-12, 12);
    for (int y = 0; y < FRAME_HEIGHT; ++y) {
        auto* pixel = frame.ptr<unsigned char>(y);
        for (int i = 0; i < FRAME_WIDTH * 3; ++i) {
            pixel[i] = cv::saturate_cast<unsigned char>(pixel[i] + noise(generator));
        }
    }
    return frame;
}

// Everything the three ways work on, built once: the benchmarks run one after the other, so a
// single set serves them all (and keeps the Undistorter's tables from the identity check).
struct FramePath {
    cv::Mat frame = makeFrame();

    cv::Mat undistorted;                                                  // the plain way's second matrix, reused
    std::unique_ptr<ISPFrame_t> staging = std::make_unique<ISPFrame_t>(); // zeroed
    SlotMemory plainSlot;

    OVRA::Undistorter undistorter;
    OVRA::FrameSlotWriter writer{undistorter};
    SlotMemory oursSlot;

    SlotMemory floorSlot;
};

FramePath& framePath() {
    static FramePath path;
    return path;
}

std::size_t imageBytes(const cv::Mat& image) {
    const std::size_t bytes = image.total() * image.elemSize();
    if (bytes > ISPFrame_t::PIXELS_SIZE || !image.isContinuous()) {
        throw std::length_error("the image does not fit a frame slot");
    }
    return bytes;
}

// Undistort, stage, store: the plain way, step by step as a capture loop would write it.
void storePlain(FramePath& path, std::uint64_t timestamp_us, std::uint32_t sequenceNumber) {
    const cv::Mat cameraMatrix = OVRA::Undistorter::defaultCameraMatrix();
    const cv::Mat distortion = OVRA::Undistorter::defaultDistortionCoefficients();
    cv::undistort(path.frame, path.undistorted, cameraMatrix, distortion);

    ISPFrame_t& staging = *path.staging;
    std::memcpy(staging.pixels, path.undistorted.data, imageBytes(path.undistorted));
    staging.width = static_cast<std::uint32_t>(path.undistorted.cols);
    staging.height = static_cast<std::uint32_t>(path.undistorted.rows);
    staging.timestamp = timestamp_us;
    staging.sequenceNumber = sequenceNumber;

    std::memcpy(&path.plainSlot.frame(), &staging, sizeof(ISPFrame_t));
}

// What the capture loop's storeFrame does with a frame, less its trace lines (off in both ways).
void storeOurs(FramePath& path, std::uint64_t timestamp_us, std::uint32_t sequenceNumber) {
    imageBytes(path.frame); // the size check
    path.writer.write(path.frame, path.oursSlot.frame(), timestamp_us, sequenceNumber);
}

// Both ways store the same frame into slots full of garbage; true when all bytes agree.
bool bothWaysAgree() {
    FramePath& path = framePath();
    std::memset(&path.plainSlot.frame(), GARBAGE, sizeof(ISPFrame_t));
    std::memset(&path.oursSlot.frame(), GARBAGE, sizeof(ISPFrame_t));
    constexpr std::uint64_t TIMESTAMP_US = 0x0123456789ABCDEFULL;
    constexpr std::uint32_t SEQUENCE_NUMBER = 7;
    storePlain(path, TIMESTAMP_US, SEQUENCE_NUMBER);
    storeOurs(path, TIMESTAMP_US, SEQUENCE_NUMBER);

    const unsigned char* plain = path.plainSlot.bytes();
    const unsigned char* ours = path.oursSlot.bytes();
    const auto mismatch = std::mismatch(plain, plain + sizeof(ISPFrame_t), ours);
    if (mismatch.first != plain + sizeof(ISPFrame_t)) {
        std::fprintf(stderr,
                     "FramePathBench: the two ways store different slots: first difference at byte %zu of %zu "
                     "(plain 0x%02x, ours 0x%02x); nothing timed\n",
                     static_cast<std::size_t>(mismatch.first - plain), sizeof(ISPFrame_t), *mismatch.first,
                     *mismatch.second);
        return false;
    }
    const cv::Mat stored(FRAME_HEIGHT, FRAME_WIDTH, CV_8UC3, path.oursSlot.frame().pixels);
    if (cv::countNonZero(stored.reshape(1)) == 0) {
        std::fprintf(stderr, "FramePathBench: both slots hold a black image; nothing timed\n");
        return false;
    }
    std::printf("FramePathBench: both ways store the same %zu bytes\n", sizeof(ISPFrame_t));
    return true;
}

void setFrameCounters(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(imageBytes(framePath().frame)));
    state.counters["frames_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), //
                                                        benchmark::Counter::kIsRate);
}

void BM_FramePathPlainUndistort(benchmark::State& state) {
    FramePath& path = framePath();
    std::uint32_t sequenceNumber = 0;
    for (auto _ : state) {
        storePlain(path, ovraSystemTimestamp_us(), sequenceNumber++);
        benchmark::ClobberMemory();
    }
    setFrameCounters(state);
}

void BM_FramePathOurs(benchmark::State& state) {
    FramePath& path = framePath();
    std::uint32_t sequenceNumber = 0;
    for (auto _ : state) {
        storeOurs(path, ovraSystemTimestamp_us(), sequenceNumber++);
        benchmark::ClobberMemory();
    }
    setFrameCounters(state);
    // 1: the tables of the identity check served every timed frame.
    state.counters["map_builds"] = static_cast<double>(path.undistorter.getMapBuildCount());
}

void BM_FramePathMemcpy(benchmark::State& state) {
    FramePath& path = framePath();
    const std::size_t bytes = imageBytes(path.frame);
    for (auto _ : state) {
        std::memcpy(path.floorSlot.frame().pixels, path.frame.data, bytes);
        benchmark::ClobberMemory();
    }
    setFrameCounters(state);
}

BENCHMARK(BM_FramePathPlainUndistort)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FramePathOurs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FramePathMemcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    try {
        if (!bothWaysAgree()) {
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "FramePathBench: %s; nothing timed\n", e.what());
        return 1;
    }
    benchmark::AddCustomContext("frame", "800 x 1200 BGR, 2,880,000 bytes; slot 3,072,024 bytes");
    benchmark::AddCustomContext("opencv_threads", std::to_string(cv::getNumThreads()));
    benchmark::AddCustomContext("hardware_threads", std::to_string(std::thread::hardware_concurrency()));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
