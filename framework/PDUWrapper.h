#pragma once

#include <cstddef>
#include <cstdint>

#include "communication/OVRACommunicationUtils.h"

namespace OVRA {

// A message an algorithm builds for the hub's protected send path (sendFeatureAppResults with a
// wrapper): the caller fills ID and payload, the hub's data validity adds count, version, time
// stamp and CRC. The wrapper owns its whole record, zeroed at construction, so one object can be
// reused for every send of an ID without allocating. Not shared between threads.
class PDUWriteOnly {
public:
    PDUWriteOnly();
    virtual ~PDUWriteOnly();
    PDUWriteOnly(const PDUWriteOnly&) = delete;
    PDUWriteOnly& operator=(const PDUWriteOnly&) = delete;

    // Sets the ID, the length field (size + 16) and the payload. Throws std::invalid_argument for
    // more than 64000 bytes or a null data pointer with a non-zero size.
    virtual void setPayload(std::uint32_t messageId, const void* data, std::size_t size);
    // The wrapped record, writable: the hub stamps it in place.
    virtual PDUMessage_t* getPDUMessage();

private:
    PDUMessage_t message;
};

// The same for a record the caller owns and may read back after the send, for example to see the
// count and CRC the hub stamped. The record must outlive the wrapper.
class PDUReadWrite {
public:
    explicit PDUReadWrite(PDUMessage_t& message);
    virtual ~PDUReadWrite();
    PDUReadWrite(const PDUReadWrite&) = delete;
    PDUReadWrite& operator=(const PDUReadWrite&) = delete;

    // As PDUWriteOnly::setPayload.
    virtual void setPayload(std::uint32_t messageId, const void* data, std::size_t size);
    virtual PDUMessage_t* getPDUMessage();

    const PDUMessage_t& getMessage() const { return message; }

private:
    PDUMessage_t& message;
};

} // namespace OVRA
