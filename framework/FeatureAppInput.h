#pragma once

#include "communication/OVRACommunicationUtils.h"

// Where the message hub delivers every received message that passed its length checks. The
// application implements it; the hub calls it on its receive thread, one message at a time, and
// the message is only valid during the call.
class FeatureAppInput {
public:
    virtual ~FeatureAppInput() = default;
    virtual void decodeMessagePayload(const OVRA::PDUMessage_t& message) = 0;
};
