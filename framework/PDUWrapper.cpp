#include "framework/PDUWrapper.h"

#include <cstring>
#include <stdexcept>

namespace OVRA {

namespace {

void fillPayload(PDUMessage_t& message, std::uint32_t messageId, const void* data, std::size_t size) {
    if (size > PDU_MAX_PAYLOAD_SIZE || (data == nullptr && size != 0)) {
        throw std::invalid_argument("PDU payload: null data or more than 64000 bytes");
    }
    message.messageId = messageId;
    message.length = static_cast<std::uint32_t>(size) + PDU_LENGTH_FIELD_HEADER_BYTES;
    if (size != 0) {
        std::memcpy(message.payload, data, size);
    }
}

} // namespace

PDUWriteOnly::PDUWriteOnly() : message{} {}

PDUWriteOnly::~PDUWriteOnly() = default;

void PDUWriteOnly::setPayload(std::uint32_t messageId, const void* data, std::size_t size) {
    fillPayload(message, messageId, data, size);
}

PDUMessage_t* PDUWriteOnly::getPDUMessage() {
    return &message;
}

PDUReadWrite::PDUReadWrite(PDUMessage_t& wrapped) : message(wrapped) {}

PDUReadWrite::~PDUReadWrite() = default;

void PDUReadWrite::setPayload(std::uint32_t messageId, const void* data, std::size_t size) {
    fillPayload(message, messageId, data, size);
}

PDUMessage_t* PDUReadWrite::getPDUMessage() {
    return &message;
}

} // namespace OVRA
