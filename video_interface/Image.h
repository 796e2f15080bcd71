#pragma once

#include <cstddef>
#include <cstdint>

#include "video_interface/ImageImpl.h"
#include "video_interface/ImageReady.h"

// A view of the frame announced by an ImageReady message, and the writer of 8-bit grey buffers
// as binary PGM files. Not shared between threads.
class Image {
public:
    explicit Image(const OVRA::ImageSupport::ImageReady_t& imageReady);

    std::size_t width() const { return mWidth; }
    std::size_t height() const { return mHeight; }
    const unsigned char* getPixelsArray() const { return mPixels; }
    // The buffer index of the announcing message.
    std::uint32_t getImageId() const { return mImageId; }

    // Writes "P5\n<width> <height>\n255\n" and width x height bytes of pixels, replacing the
    // file. ImageException 1051 when the file cannot be written.
    static void save(const unsigned char* pixels, unsigned int width, unsigned int height, const char* fileName);
    void save(const char* fileName) const;

private:
    std::uint32_t mImageId;
    ImageImpl mImpl;
    std::size_t mWidth = 0;
    std::size_t mHeight = 0;
    const unsigned char* mPixels = nullptr;
};
