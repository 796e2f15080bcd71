#pragma once

#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"

namespace OVRA {

// What the video application does with the messages it acts on. The video pipe calls it on the
// message hub's receive thread for every well-sized message of the three IDs, right after storing
// the payload; the payload is only valid during the call. An exception thrown here reaches the
// application's per-message error log.
class VideoInterfaceMessageListener {
public:
    virtual ~VideoInterfaceMessageListener() = default;
    virtual void processReceivedMessage(const OVRAInterSystemMessages::CameraSupport_t& message) = 0;
    virtual void processReceivedMessage(const SystemApplicationStatus_t& message) = 0;
    virtual void processReceivedMessage(const OVRAInterSystemMessages::VideoConsumerRegister_t& message) = 0;
};

} // namespace OVRA
