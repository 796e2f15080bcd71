#include "video_interface/ImageImpl.h"

void ImageImpl::imageImplInit(const OVRA::ImageSupport::ImageReady_t& /*imageReady*/) {
    // Frames reach this process's readers through the slot itself; nothing is mapped here.
}
