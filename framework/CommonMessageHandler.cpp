#include "framework/CommonMessageHandler.h"

#include <cstring>
#include <stdexcept>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr std::uint32_t OVERSIZED_DATAGRAM_ERROR = 1035;
constexpr std::uint32_t INVALID_MESSAGE_ID_ERROR = 1058;
constexpr std::uint32_t DATA_VALIDITY_APPLY_ERROR = 500;

bool isSendableMessageId(unsigned int messageId) {
    return (messageId >= OVRA::FIRST_HOST_MESSAGE_ID && messageId <= OVRA::LAST_HOST_MESSAGE_ID) ||
           (messageId >= OVRA::FIRST_INTERNAL_MESSAGE_ID && messageId <= OVRA::LAST_INTERNAL_MESSAGE_ID);
}

} // namespace

CommonMessageHandler::CommonMessageHandler(const std::string& channelName, std::uint16_t port, FeatureAppInput& app)
    : inputChannel(*this, channelName, port), outputChannel(OVRA::ROUTER_CHANNEL_NAME, OVRA::ROUTER_UDP_PORT),
      application(app), outgoingMessage{} {}

CommonMessageHandler::CommonMessageHandler(const std::string& channelName, std::uint16_t port, FeatureAppInput& app,
                                           const std::string& outputName, std::uint16_t outputPort)
    : inputChannel(*this, channelName, port), outputChannel(OVRA::ROUTER_CHANNEL_NAME, outputPort, outputName),
      application(app), outgoingMessage{} {}

// The receive thread calls back into this object, so it must end before the members go.
CommonMessageHandler::~CommonMessageHandler() {
    try {
        inputChannel.stop();
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(1045, "~CommonMessageHandler(): %s", e.what());
    }
}

void CommonMessageHandler::startCommonMsgHandler() {
    inputChannel.start();
}

void CommonMessageHandler::stopCommonMsgHandler() {
    inputChannel.stop();
}

void CommonMessageHandler::messageHandler(void* messageBuffer, unsigned long lengthBytes) {
    if (messageBuffer == nullptr) {
        throw std::invalid_argument("CommonMessageHandler.messageHandler(): messageBuffer is a null pointer");
    }
    if (lengthBytes > sizeof(OVRA::PDUMessage_t)) {
        // The format's "%ul" prints a literal l after each number; log readers expect it.
        ovraLogImplementErrorPrintf(OVERSIZED_DATAGRAM_ERROR,
                                    "CommonMessageHandler.messageHandler(): lengthBytes= %ul is larger than "
                                    "sizeof(OVRA::PDUMessage_t)= %ul",
                                    static_cast<unsigned>(lengthBytes),
                                    static_cast<unsigned>(sizeof(OVRA::PDUMessage_t)));
        return;
    }
    const auto& message = *static_cast<const OVRA::PDUMessage_t*>(messageBuffer);
    // A datagram shorter than the ID and length fields cannot match any length field; it is not
    // read at all.
    if (lengthBytes < OVRA::PDU_ID_AND_LENGTH_BYTES ||
        static_cast<std::uint64_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES != lengthBytes) {
        throw std::invalid_argument("CommonMessageHandler::messageHandler(): invalid PDU Message length");
    }
    application.decodeMessagePayload(message);
}

// Takes the send lock although the message is the caller's: the send channel is shared with
// doSend and creates its socket on first use.
void CommonMessageHandler::sendPDUMessage(const OVRA::PDUMessage_t& message) {
    const std::size_t bytes = static_cast<std::size_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES;
    std::lock_guard<std::mutex> lock(sendMutex);
    outputChannel.sendMessage(&message, bytes);
}

void CommonMessageHandler::sendFeatureAppResults(OVRA::PDUWriteOnly& message) {
    OVRA::PDUMessage_t* pdu = message.getPDUMessage();
    if (dataValidity.apply(pdu) != DataValidity::OK) {
        throw DataValidityException(DATA_VALIDITY_APPLY_ERROR,
                                    "Data Validity Apply failed in sendFeatureAppResults for PDU Write-Only object!");
    }
    sendPDUMessage(*pdu);
}

void CommonMessageHandler::sendFeatureAppResults(OVRA::PDUReadWrite& message) {
    OVRA::PDUMessage_t* pdu = message.getPDUMessage();
    if (dataValidity.apply(pdu) != DataValidity::OK) {
        throw DataValidityException(DATA_VALIDITY_APPLY_ERROR,
                                    "Data Validity Apply failed in sendFeatureAppResults for PDU Read/Write object!");
    }
    sendPDUMessage(*pdu);
}

void CommonMessageHandler::sendFeatureAppResults(unsigned int messageId, const void* data, unsigned long size) {
    if (data == nullptr || size < 1 || size > OVRA::PDU_MAX_PAYLOAD_SIZE) {
        throw std::invalid_argument("Invalid parameter to sendFeatureAppResults\n");
    }
    if (!isSendableMessageId(messageId)) {
        throw OVRA::InvalidMessageIDException(
            INVALID_MESSAGE_ID_ERROR,
            "CommonMessageHandler.sendFeatureAppResults: received an unexpected message id: ", messageId);
    }
    doSend(messageId, data, size);
}

std::uint32_t& CommonMessageHandler::countFor(unsigned int messageId) {
    if (messageId <= OVRA::LAST_HOST_MESSAGE_ID) {
        return hostMessageCounts[messageId];
    }
    return internalMessageCounts[messageId & ~OVRA::INTERNAL_MESSAGE_FLAG];
}

void CommonMessageHandler::doSend(unsigned int messageId, const void* data, unsigned long size) {
    std::lock_guard<std::mutex> lock(sendMutex);
    std::memset(&outgoingMessage, 0, sizeof(outgoingMessage));
    outgoingMessage.messageId = messageId;
    outgoingMessage.length = static_cast<std::uint32_t>(size) + OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
    outgoingMessage.timestamp = ovraSystemTimestamp_us();
    // The configured protocol version ("/NFS/ProtocolVersion.ini", 0 without it), which a router
    // that verifies the message expects.
    outgoingMessage.version = dataValidity.getT1DVersion();
    std::memcpy(outgoingMessage.payload, data, size);
    std::uint32_t& count = countFor(messageId);
    ++count;
    // The wire field is 16 bits; the count per ID keeps its 32-bit value and wraps there.
    outgoingMessage.count = static_cast<std::uint16_t>(count);
    outgoingMessage.crc = DataValidity::computeMessageCRC(&outgoingMessage);
    outputChannel.sendMessage(&outgoingMessage, size + OVRA::PDU_HEADER_SIZE);
}
