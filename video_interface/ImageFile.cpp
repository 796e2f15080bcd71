#include "video_interface/ImageFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <fstream>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr std::size_t MAX_HEADER_LINE = 128;
constexpr std::size_t READ_BLOCK = 64 * 1024;

// One header line without its newline. False at the end of the file or for a line longer than
// a header line can be (a hostile file must not make the reader hold an endless line).
bool readHeaderLine(std::istream& in, std::string& line) {
    line.clear();
    char c = '\0';
    while (in.get(c)) {
        if (c == '\n') {
            return true;
        }
        if (line.size() == MAX_HEADER_LINE) {
            return false;
        }
        line.push_back(c);
    }
    return !line.empty();
}

const char* skipBlanks(const char* p, const char* end) {
    while (p != end && (*p == ' ' || *p == '\t' || *p == '\r')) {
        ++p;
    }
    return p;
}

// "<width> <height>": two unsigned 32-bit decimals separated by blanks; trailing blanks allowed,
// no sign and nothing else.
bool parseSize(const std::string& line, std::uint32_t& width, std::uint32_t& height) {
    const char* end = line.data() + line.size();
    const char* p = skipBlanks(line.data(), end);
    auto parsed = std::from_chars(p, end, width);
    if (parsed.ec != std::errc() || parsed.ptr == end || (*parsed.ptr != ' ' && *parsed.ptr != '\t')) {
        return false;
    }
    p = skipBlanks(parsed.ptr, end);
    parsed = std::from_chars(p, end, height);
    return parsed.ec == std::errc() && skipBlanks(parsed.ptr, end) == end;
}

} // namespace

ImageFile::ImageFile(const char* fileName) : ImageFile(fileName, Limits{}) {}

ImageFile::ImageFile(const char* fileName, const Limits& limits) : mFileName(fileName != nullptr ? fileName : "") {
    try {
        load(limits);
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(1045, "General STL exception: %s", e.what());
        throw;
    } catch (...) {
        ovraLogImplementErrorPrintf(1023, "Unknown exception.");
        throw;
    }
}

void ImageFile::load(const Limits& limits) {
    const char* name = mFileName.c_str();
    const auto openFailure = [name](const char* reason) {
        return ImageException(
            1051, formatExceptionText("ImageFile ctor(): error openning file:[%s]. error:[%s]", name, reason).text);
    };
    struct stat status {};
    if (limits.regularFileOnly) {
        if (::stat(name, &status) != 0) {
            throw openFailure(std::strerror(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            throw openFailure("Not a regular file");
        }
    }
    // Reading only: a read-only image must load.
    std::ifstream file(mFileName, std::ios::in | std::ios::binary);
    if (!file.is_open()) {
        throw openFailure(std::strerror(errno));
    }

    std::string line;
    if (!readHeaderLine(file, line) || line != "P5") {
        throw ImageException(
            1051,
            formatExceptionText("ImageFile ctor(): Invalid File Format. File:[%s] should have \"P5\\n\" header", name)
                .text);
    }
    if (!readHeaderLine(file, line) || !parseSize(line, mWidth, mHeight)) {
        throw ImageException(1051, formatExceptionText("ImageFile ctor(): Invalid File Format. File:[%s] should have "
                                                       "\"width height\\n\" header",
                                                       name)
                                       .text);
    }
    if (!readHeaderLine(file, line) || line != "255") {
        throw ImageException(
            1051,
            formatExceptionText("ImageFile ctor(): Invalid File Format. File:[%s] should have \"255\\n\" header", name)
                .text);
    }

    const std::size_t expected = static_cast<std::size_t>(mWidth) * mHeight;
    if (expected > limits.maxPixels) {
        throw ImageException(1051, formatExceptionText("ImageFile ctor(): Image too large. File:[%s] claims %u x %u "
                                                       "pixels, more than %zu",
                                                       name, mWidth, mHeight, limits.maxPixels)
                                       .text);
    }
    // Reserve no more than the rest of the file can fill, whatever the header claims.
    // A stream that cannot seek (a pipe) is read as it comes, growing as the bytes arrive.
    const std::streampos dataStart = file.tellg();
    if (dataStart != std::streampos(-1) && file.seekg(0, std::ios::end)) {
        const std::streampos fileEnd = file.tellg();
        file.seekg(dataStart);
        if (fileEnd != std::streampos(-1) && fileEnd >= dataStart) {
            mPixels.reserve(std::min(expected, static_cast<std::size_t>(fileEnd - dataStart)));
        }
    }
    file.clear();

    // Keep at most one byte beyond the image: enough to know the file is too long, while the
    // whole rest is counted for the message.
    std::array<char, READ_BLOCK> block;
    std::size_t found = 0;
    while (file.read(block.data(), static_cast<std::streamsize>(block.size())) || file.gcount() > 0) {
        const auto count = static_cast<std::size_t>(file.gcount());
        const std::size_t room = expected + 1 - std::min(mPixels.size(), expected + 1);
        const std::size_t kept = std::min(count, room);
        mPixels.insert(mPixels.end(), block.data(), block.data() + kept);
        found += count;
    }
    if (found != expected) {
        throw ImageException(1051, formatExceptionText("ImageFile ctor(): Invalid File Length. File:[%s] should have "
                                                       "%zu pixels. Found:[%zu] pixels",
                                                       name, expected, found)
                                       .text);
    }
}
