// The PGM reader on arbitrary file contents. The bytes are written to one file in a private
// directory under /dev/shm and ImageFile reads it back. Only ImageException 1051 may leave the
// constructor. A line model of the format decides independently whether the file is a valid
// image: the reader must load exactly those files, and a loaded image must hold width x height
// pixels equal to the bytes after the header.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SystemCall.h"
#include "fuzz/FuzzSupport.h"
#include "video_interface/ImageFile.h"

namespace {

using vidapp::fuzz::fail;

constexpr std::size_t MAX_HEADER_LINE = 128;

// The directory and the one file every input is written to; removed when the run ends normally.
class ScratchFile {
public:
    ScratchFile() {
        char pattern[] = "/dev/shm/vidapp-pgm-fuzz-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            fail("mkdtemp: %s", std::strerror(errno));
        }
        directory = pattern;
        path = directory + "/image.pgm";
    }
    ~ScratchFile() {
        ::unlink(path.c_str());
        ::rmdir(directory.c_str());
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    void write(const std::uint8_t* data, std::size_t size) const {
        const int fd = OVRA::retryOnEintr([&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600); });
        if (fd < 0) {
            fail("open %s: %s", path.c_str(), std::strerror(errno));
        }
        std::size_t written = 0;
        while (written < size) {
            const ssize_t result = OVRA::retryOnEintr([&] { return ::write(fd, data + written, size - written); });
            if (result <= 0) {
                fail("write %s: %s", path.c_str(), std::strerror(errno));
            }
            written += static_cast<std::size_t>(result);
        }
        ::close(fd);
    }

    std::string directory;
    std::string path;
};

struct Expectation {
    bool valid = false;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::size_t pixelOffset = 0;
};

// The next header line without its newline; false when the file ends before any character of it
// or the line is longer than a header line may be.
bool nextLine(std::string_view bytes, std::size_t& position, std::string_view& line) {
    if (position >= bytes.size()) {
        return false;
    }
    const std::size_t newline = bytes.find('\n', position);
    const std::size_t end = newline == std::string_view::npos ? bytes.size() : newline;
    line = bytes.substr(position, end - position);
    position = newline == std::string_view::npos ? bytes.size() : newline + 1;
    return line.size() <= MAX_HEADER_LINE;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// An unsigned 32-bit decimal without sign.
bool readNumber(std::string_view line, std::size_t& i, std::uint32_t& number) {
    const std::size_t start = i;
    std::uint64_t value = 0;
    while (i < line.size() && line[i] >= '0' && line[i] <= '9') {
        value = value * 10 + static_cast<std::uint64_t>(line[i] - '0');
        if (value > UINT32_MAX) {
            return false;
        }
        ++i;
    }
    number = static_cast<std::uint32_t>(value);
    return i != start;
}

// "<width> <height>" with blanks before, between (at least one blank or tab right after the
// width) and after.
bool parseSizeLine(std::string_view line, std::uint32_t& width, std::uint32_t& height) {
    std::size_t i = 0;
    while (i < line.size() && isBlank(line[i])) {
        ++i;
    }
    if (!readNumber(line, i, width) || i == line.size() || (line[i] != ' ' && line[i] != '\t')) {
        return false;
    }
    while (i < line.size() && isBlank(line[i])) {
        ++i;
    }
    if (!readNumber(line, i, height)) {
        return false;
    }
    while (i < line.size() && isBlank(line[i])) {
        ++i;
    }
    return i == line.size();
}

Expectation expect(std::string_view bytes) {
    Expectation expectation;
    std::size_t position = 0;
    std::string_view line;
    if (!nextLine(bytes, position, line) || line != "P5" || !nextLine(bytes, position, line) ||
        !parseSizeLine(line, expectation.width, expectation.height) || !nextLine(bytes, position, line) ||
        line != "255") {
        return expectation;
    }
    expectation.pixelOffset = position;
    expectation.valid = static_cast<std::uint64_t>(expectation.width) * expectation.height == bytes.size() - position;
    return expectation;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = vidapp::fuzz::setUp();
    static const ScratchFile file;
    (void)ready;

    file.write(data, size);
    const Expectation expectation = expect(std::string_view(reinterpret_cast<const char*>(data), size));
    try {
        const ImageFile image(file.path.c_str());
        if (!expectation.valid) {
            fail("a file that is no P5 image loaded as %u x %u", image.getImageWidth(), image.getImageHeight());
        }
        if (image.getImageWidth() != expectation.width || image.getImageHeight() != expectation.height) {
            fail("loaded as %u x %u, the header says %u x %u", image.getImageWidth(), image.getImageHeight(),
                 expectation.width, expectation.height);
        }
        const std::size_t pixels = static_cast<std::size_t>(image.getImageWidth()) * image.getImageHeight();
        if (pixels != size - expectation.pixelOffset ||
            (pixels != 0 && std::memcmp(image.getPixelsArray(), data + expectation.pixelOffset, pixels) != 0)) {
            fail("the %zu pixels differ from the file's bytes after the header", pixels);
        }
        if (file.path != image.getImageFilename()) {
            fail("file name \"%s\"", image.getImageFilename());
        }
    } catch (const ImageException& e) {
        if (expectation.valid) {
            fail("a valid %u x %u image was rejected: %s", expectation.width, expectation.height, e.what());
        }
        if (e.getCode() != 1051 || std::strncmp(e.what(), "ImageFile ctor(): ", 18) != 0) {
            fail("ImageException %u: %s", e.getCode(), e.what());
        }
    }
    return 0;
}
