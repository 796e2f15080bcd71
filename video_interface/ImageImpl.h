#pragma once

#include <cstddef>

#include "video_interface/ImageReady.h"

// The back end that Image asks for the size and pixels of an announced frame. This build maps
// no frame slot: after imageImplInit the size stays 0 x 0 and there are no pixels.
class ImageImpl {
public:
    void imageImplInit(const OVRA::ImageSupport::ImageReady_t& imageReady);

    std::size_t getWidth() const { return mWidth; }
    std::size_t getHeight() const { return mHeight; }
    const unsigned char* getPixelsArray() const { return mPixels; }

private:
    std::size_t mWidth = 0;
    std::size_t mHeight = 0;
    const unsigned char* mPixels = nullptr;
};
