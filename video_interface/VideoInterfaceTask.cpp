#include "video_interface/VideoInterfaceTask.h"

#include <exception>

#include "log/OVRALogImplementPrintf.h"
#include "video_interface/VideoInterfaceAlgorithmProxy.h"

namespace OVRA {

namespace {

constexpr std::uint32_t STATUS_TASK_ERROR = 1;

} // namespace

VideoInterfaceTask::~VideoInterfaceTask() = default;

void VideoInterfaceTask::run() {
    if (mProxy == nullptr) {
        return;
    }
    try {
        mProxy->logVideoInterfaceStatus();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STATUS_TASK_ERROR, "Exiting logging thread: %s", e.what());
        mProxy->getTimer().cancelTask(this);
    }
}

} // namespace OVRA
