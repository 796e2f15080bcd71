#include "video_interface/Image.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "common/OVRAException.h"

Image::Image(const OVRA::ImageSupport::ImageReady_t& imageReady) : mImageId(imageReady.bufferIndex) {
    mImpl.imageImplInit(imageReady);
    mWidth = mImpl.getWidth();
    mHeight = mImpl.getHeight();
    mPixels = mImpl.getPixelsArray();
}

void Image::save(const unsigned char* pixels, unsigned int width, unsigned int height, const char* fileName) {
    const char* name = fileName != nullptr ? fileName : "";
    const std::size_t size = static_cast<std::size_t>(width) * height;
    if (pixels == nullptr && size != 0) {
        throw ImageException(
            1051,
            formatExceptionText("Image::save(): no pixels for a %ux%u image. File:[%s]", width, height, name).text);
    }
    std::ofstream file(name, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!file.is_open()) {
        const int error = errno;
        throw ImageException(
            1051,
            formatExceptionText("Image::save(): error opening file:[%s]. error:[%s]", name, std::strerror(error)).text);
    }
    file << "P5\n" << width << ' ' << height << '\n' << 255 << '\n';
    file.write(reinterpret_cast<const char*>(pixels), static_cast<std::streamsize>(size));
    file.flush();
    if (!file) {
        const int error = errno;
        throw ImageException(
            1051,
            formatExceptionText("Image::save(): error writing file:[%s]. error:[%s]", name, std::strerror(error)).text);
    }
}

void Image::save(const char* fileName) const {
    save(mPixels, static_cast<unsigned int>(mWidth), static_cast<unsigned int>(mHeight), fileName);
}
