#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

#include "communication/OVRACommunicationUtils.h"
#include "communication/crc32.h"

// The CRC of a full 64000-byte payload: ours, zlib's on the same buffer, and the plain bitwise form
// that the table-driven one replaces.

namespace {

const std::vector<std::uint8_t>& payload() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> built(OVRA::PDU_MAX_PAYLOAD_SIZE);
        std::mt19937 generator(20240611U);
        std::uniform_int_distribution<int> distribution(0, 255);
        for (auto& byte : built) {
            byte = static_cast<std::uint8_t>(distribution(generator));
        }
        return built;
    }();
    return bytes;
}

std::uint32_t bitwiseCrc32(const std::uint8_t* data, std::size_t size) {
    std::uint32_t r = 0xFFFFFFFFU;
    for (std::size_t i = 0; i < size; ++i) {
        r ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            r = (r & 1U) != 0 ? (r >> 1) ^ 0xEDB88320U : r >> 1;
        }
    }
    return ~r;
}

void setThroughput(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(payload().size()));
}

void BM_Crc32Ours(benchmark::State& state) {
    const auto& bytes = payload();
    for (auto _ : state) {
        benchmark::DoNotOptimize(OVRA::crc32Buffer(bytes.data(), bytes.size(), true, 0));
    }
    setThroughput(state);
}

void BM_Crc32Zlib(benchmark::State& state) {
    const auto& bytes = payload();
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc32(0L, bytes.data(), static_cast<uInt>(bytes.size())));
    }
    setThroughput(state);
}

void BM_Crc32Bitwise(benchmark::State& state) {
    const auto& bytes = payload();
    for (auto _ : state) {
        benchmark::DoNotOptimize(bitwiseCrc32(bytes.data(), bytes.size()));
    }
    setThroughput(state);
}

BENCHMARK(BM_Crc32Ours);
BENCHMARK(BM_Crc32Zlib);
BENCHMARK(BM_Crc32Bitwise);

} // namespace

BENCHMARK_MAIN();
