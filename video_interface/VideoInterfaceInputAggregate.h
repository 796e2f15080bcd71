#pragma once

#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "framework/InputAggregateHeader.h"

namespace OVRA {

// The input record of the video application: the channel's header and the payload of each
// message the video pipe takes.
struct VideoInterfaceInputAggregate_t {
    InputAggregateHeader_t header;
    SystemApplicationStatus_t systemApplicationStatus;                      // SYSTEM_APPLICATION_STATUS
    OVRAInterSystemMessages::VideoConsumerRegister_t videoConsumerRegister; // VIDEO_CONSUMER_REGISTER
    OVRAInterSystemMessages::CameraSupport_t cameraSupportData;             // CAMERA_SUPPORT_DATA
};

static_assert(InputAggregate<VideoInterfaceInputAggregate_t>);

} // namespace OVRA
