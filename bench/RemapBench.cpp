// The undistortion remap of one 800 x 1200 camera frame with the camera's own tables: cv::remap
// against OVRA::remapFixedBilinear, on 1 thread and on 2 (OpenCV's pool for both).
//
// Each iteration runs both, one after the other on the same frame, so that both see the same
// machine; the reported time is ours (manual time), cv_ms and ours_ms are the means per frame, and
// ratio is cv::remap's total time over ours. Before anything is timed the two must write the same
// bytes, or the benchmark reports an error and times nothing.

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "video_interface/Undistorter.h"
#include "video_interface/remap/FixedRemap.h"
#include "video_interface/remap/UndistortionMaps.h"

namespace {

constexpr int FRAME_WIDTH = 800;
constexpr int FRAME_HEIGHT = 1200;

void BM_UndistortRemap(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int type = state.range(1) == 3 ? CV_8UC3 : CV_8UC1;
    const cv::Size size(FRAME_WIDTH, FRAME_HEIGHT);
    cv::Mat map1;
    cv::Mat map2;
    OVRA::buildUndistortionMaps(OVRA::Undistorter::defaultCameraMatrix(),
                                OVRA::Undistorter::defaultDistortionCoefficients(), size, map1, map2);
    cv::Mat frame(size, type);
    cv::theRNG().state = 20240611;
    cv::randu(frame, 0, 256);
    cv::Mat theirs(size, type);
    cv::Mat ours(size, type);

    const int previousThreads = cv::getNumThreads();
    cv::setNumThreads(threads);
    cv::remap(frame, theirs, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    OVRA::remapFixedBilinear(frame, ours, map1, map2, threads);
    if (cv::norm(theirs, ours, cv::NORM_INF) != 0.0) {
        cv::setNumThreads(previousThreads);
        state.SkipWithError("remapFixedBilinear and cv::remap wrote different bytes");
        return;
    }

    using Clock = std::chrono::steady_clock;
    Clock::duration theirTotal{};
    Clock::duration ourTotal{};
    for (auto _ : state) {
        const auto start = Clock::now();
        cv::remap(frame, theirs, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        const auto middle = Clock::now();
        OVRA::remapFixedBilinear(frame, ours, map1, map2, threads);
        const auto end = Clock::now();
        benchmark::DoNotOptimize(theirs.data);
        benchmark::DoNotOptimize(ours.data);
        benchmark::ClobberMemory();
        theirTotal += middle - start;
        ourTotal += end - middle;
        state.SetIterationTime(std::chrono::duration<double>(end - middle).count());
    }
    cv::setNumThreads(previousThreads);

    const double frames = static_cast<double>(state.iterations());
    state.counters["cv_ms"] = std::chrono::duration<double, std::milli>(theirTotal).count() / frames;
    state.counters["ours_ms"] = std::chrono::duration<double, std::milli>(ourTotal).count() / frames;
    state.counters["ratio"] = std::chrono::duration<double>(theirTotal) / std::chrono::duration<double>(ourTotal);
    state.SetLabel(std::to_string(state.range(1)) + " channels, " + std::to_string(threads) + " threads");
}

// {threads, channels}: the camera's BGR frames, and grey ones.
BENCHMARK(BM_UndistortRemap)
    ->ArgNames({"threads", "channels"})
    ->Args({1, 3})
    ->Args({2, 3})
    ->Args({1, 1})
    ->Args({2, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
