#include "video_interface/VideoInterfacePipe.h"

#include <cstring>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace {

constexpr std::uint32_t UNEXPECTED_MESSAGE_ERROR = 1006;

constexpr unsigned long CAMERA_SUPPORT_SIZE = sizeof(OVRAInterSystemMessages::CameraSupport_t);
constexpr unsigned long APPLICATION_STATUS_SIZE = sizeof(SystemApplicationStatus_t);
constexpr unsigned long CONSUMER_REGISTER_SIZE = sizeof(OVRAInterSystemMessages::VideoConsumerRegister_t);

// The payload bytes a message carries by its length field; a length below the header counts as none.
unsigned long payloadSize(const PDUMessage_t& message) {
    if (message.length < PDU_LENGTH_FIELD_HEADER_BYTES) {
        return 0;
    }
    return message.length - PDU_LENGTH_FIELD_HEADER_BYTES;
}

} // namespace

VideoInterfacePipe::VideoInterfacePipe(unsigned short bufferDepth, unsigned short numberOfConsumers)
    : ChannelBaseReaderWriter<VideoInterfaceInputAggregate_t>(bufferDepth, numberOfConsumers) {}

VideoInterfacePipe::~VideoInterfacePipe() = default;

unsigned long VideoInterfacePipe::writeToBuffer(const PDUMessage_t& message) {
    ovraLogImplementPrintf("writeToBuffer VideoInterfacePipe", LOG_LEVEL_DEBUG);
    const std::uint32_t id = message.messageId;
    if (id == RECEIVED_IMAGE_DATA) {
        markReceivedMessage(RECEIVED_IMAGE_DATA_MARK);
        ovraLogImplementPrintf("[VIDEO_INTERFACE_PIPE] Rx RECEIVED_IMAGE_DATA", LOG_LEVEL_DEBUG);
    }
    if (id != CAMERA_SUPPORT_DATA && id != SYSTEM_APPLICATION_STATUS && id != VIDEO_CONSUMER_REGISTER) {
        throw InvalidMessageIDException(UNEXPECTED_MESSAGE_ERROR,
                                        "Image Processing Unit Pipe.writeToBuffer(): Unexpected message received.", id);
    }
    VideoInterfaceInputAggregate_t* record = currentRecord();
    if (record == nullptr) {
        return 0;
    }
    const unsigned long size = payloadSize(message);
    VideoInterfaceMessageListener* listener = mListener.load();
    switch (id) {
    case CAMERA_SUPPORT_DATA:
        if (size != CAMERA_SUPPORT_SIZE) {
            return 0;
        }
        std::memcpy(&record->cameraSupportData, message.payload, size);
        if (listener != nullptr) {
            listener->processReceivedMessage(record->cameraSupportData);
        }
        return size;
    case SYSTEM_APPLICATION_STATUS:
        if (size != APPLICATION_STATUS_SIZE) {
            return 0;
        }
        std::memcpy(&record->systemApplicationStatus, message.payload, size);
        // The status also lands over the start of the camera support field; other processes
        // read the record so.
        std::memcpy(&record->cameraSupportData, message.payload, size);
        if (listener != nullptr) {
            listener->processReceivedMessage(record->systemApplicationStatus);
        }
        return size;
    default:
        if (size < 1 || size > CONSUMER_REGISTER_SIZE) {
            return 0;
        }
        record->videoConsumerRegister = {};
        std::memcpy(&record->videoConsumerRegister, message.payload, size);
        if (listener != nullptr) {
            listener->processReceivedMessage(record->videoConsumerRegister);
        }
        return size;
    }
}

unsigned long VideoInterfacePipe::writeToBuffer(unsigned int messageId, const void* data, unsigned long size) {
    ovraLogImplementPrintf("writeToBuffer(): Received Message ID [0x%x]", LOG_LEVEL_VERBOSE, messageId);
    void* field = nullptr;
    unsigned long fieldSize = 0;
    VideoInterfaceInputAggregate_t* record = currentRecord();
    switch (messageId) {
    case SYSTEM_APPLICATION_STATUS:
        field = record != nullptr ? &record->systemApplicationStatus : nullptr;
        fieldSize = APPLICATION_STATUS_SIZE;
        break;
    case VIDEO_CONSUMER_REGISTER:
        field = record != nullptr ? &record->videoConsumerRegister : nullptr;
        fieldSize = CONSUMER_REGISTER_SIZE;
        break;
    case CAMERA_SUPPORT_DATA:
        field = record != nullptr ? &record->cameraSupportData : nullptr;
        fieldSize = CAMERA_SUPPORT_SIZE;
        break;
    default:
        throw InvalidMessageIDException(UNEXPECTED_MESSAGE_ERROR,
                                        "VideoInteracePipe.writeToBuffer(): Unexpected message received", messageId);
    }
    if (field == nullptr || size > fieldSize || (data == nullptr && size != 0)) {
        return 0;
    }
    if (size != 0) {
        std::memcpy(field, data, size);
    }
    if (isTrigger()) {
        record->header.triggerMessageId = messageId;
        mTriggerArmed.store(false);
        ovraLogImplementPrintf("VideoInterfacePipe.writeToBuffer():triggering on message Id [0x%x]", LOG_LEVEL_VERBOSE,
                               messageId);
        setTriggered();
    }
    return size;
}

bool VideoInterfacePipe::isTrigger() {
    if (!mTriggerArmed.load()) {
        return false;
    }
    if ((getReceivedMessageMark() & RECEIVED_IMAGE_DATA_MARK) == RECEIVED_IMAGE_DATA_MARK) {
        ovraLogImplementPrintf("[VIDEO_INTERFACE_PIPE] isTrigger-received RECEIVED_IMAGE_DATA messages",
                               LOG_LEVEL_VERBOSE);
        return true;
    }
    ovraLogImplementPrintf("[VIDEO_INTERFACE_PIPE] isTrigger-looking for RECEIVED_IMAGE_DATA messages",
                           LOG_LEVEL_VERBOSE);
    return false;
}

} // namespace OVRA
