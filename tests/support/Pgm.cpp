#include "tests/support/Pgm.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vidapp::test {

std::string pgmBytes(unsigned width, unsigned height, const std::vector<std::uint8_t>& pixels) {
    std::string bytes = "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    bytes.append(pixels.begin(), pixels.end());
    return bytes;
}

std::vector<std::uint8_t> pgmTestPattern(unsigned width, unsigned height) {
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            pixels[static_cast<std::size_t>(y) * width + x] = static_cast<std::uint8_t>((x + 3 * y) % 256);
        }
    }
    return pixels;
}

void writePgm(const std::string& path, unsigned width, unsigned height, const std::vector<std::uint8_t>& pixels) {
    writeFileBytes(path, pgmBytes(width, height, pixels));
}

void writeFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

} // namespace vidapp::test
