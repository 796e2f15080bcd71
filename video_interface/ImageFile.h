#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One grey image read from a binary PGM ("P5") file, for tools and test frame sources. The header
// is exactly three lines, "P5", "<width> <height>" and "255" (no comments, no other maximum), and
// the file holds exactly width x height pixel bytes after it. Anything else is rejected with
// ImageException 1051 and a message naming the file; a hostile header never makes the reader
// allocate more than the file could fill. The file is only read.
class ImageFile {
public:
    // What a reader of untrusted files may ask for beyond the format itself.
    struct Limits {
        // Anything but a regular file (a FIFO, whose open would wait for a writer; a device) fails
        // as a missing file does, without being opened for reading.
        bool regularFileOnly = false;
        // A header that claims more pixels fails before any pixel is read.
        std::size_t maxPixels = SIZE_MAX;
    };

    explicit ImageFile(const char* fileName);
    ImageFile(const char* fileName, const Limits& limits);

    std::uint32_t getImageWidth() const { return mWidth; }
    std::uint32_t getImageHeight() const { return mHeight; }
    // width x height bytes, row after row.
    const std::uint8_t* getPixelsArray() const { return mPixels.data(); }
    const char* getImageFilename() const { return mFileName.c_str(); }

private:
    void load(const Limits& limits);

    std::string mFileName;
    std::uint32_t mWidth = 0;
    std::uint32_t mHeight = 0;
    std::vector<std::uint8_t> mPixels;
};
