#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vidapp::test {

// The bytes of a binary PGM file: "P5\n<width> <height>\n255\n" and then the pixels as given
// (which need not be width x height bytes, for malformed files).
std::string pgmBytes(unsigned width, unsigned height, const std::vector<std::uint8_t>& pixels);

// width x height pixels where pixel (x, y) is (x + 3 y) mod 256: every row differs from its
// neighbours, so a swapped or shifted row shows.
std::vector<std::uint8_t> pgmTestPattern(unsigned width, unsigned height);

// Writes a PGM file (pgmBytes) or any bytes; throws std::runtime_error when it cannot.
void writePgm(const std::string& path, unsigned width, unsigned height, const std::vector<std::uint8_t>& pixels);
void writeFileBytes(const std::string& path, const std::string& bytes);
// The whole file; throws std::runtime_error when it cannot be read.
std::string readFileBytes(const std::string& path);

} // namespace vidapp::test
