#pragma once

#include <atomic>
#include <cstdint>

#include "framework/ChannelBaseReaderWriter.h"
#include "video_interface/VideoInterfaceInputAggregate.h"
#include "video_interface/VideoInterfaceMessageListener.h"

namespace OVRA {

// The channel of the video application. It takes CAMERA_SUPPORT_DATA (16, exactly 248 bytes),
// SYSTEM_APPLICATION_STATUS (0x80000004, exactly 19 bytes, also copied over the start of the
// camera support field) and VIDEO_CONSUMER_REGISTER (0x8000001C, 1 to 4 bytes) into the record
// being filled and passes each to the message listener; the application's work is driven by that
// message handling. A payload of the wrong size is not taken (0 is returned, and the application
// logs the message as dropped). Every other ID throws InvalidMessageIDException 1006;
// RECEIVED_IMAGE_DATA (26) is first marked as received.
//
// The message-ID form of writeToBuffer evaluates the trigger: once armed, the first call after
// RECEIVED_IMAGE_DATA has been seen completes the record, and the pipe disarms for good.
//
// The PDU form runs on the message hub's receive thread (through write); call the message-ID
// form from that thread too. The listener and the armed flag may be set from any thread.
class VideoInterfacePipe : public ChannelBaseReaderWriter<VideoInterfaceInputAggregate_t> {
public:
    static constexpr std::uint32_t RECEIVED_IMAGE_DATA_MARK = RECEIVED_IMAGE_DATA;

    VideoInterfacePipe(unsigned short bufferDepth, unsigned short numberOfConsumers);
    ~VideoInterfacePipe() override;

    bool isTrigger() override;
    unsigned long writeToBuffer(const PDUMessage_t& message) override;
    // Copies size bytes into the field of messageId (16, 0x80000004 or 0x8000001C) and evaluates
    // the trigger; returns size. Returns 0 without copying when no record is held or the bytes do
    // not fit the field. Other IDs throw InvalidMessageIDException 1006.
    virtual unsigned long writeToBuffer(unsigned int messageId, const void* data, unsigned long size);

    void setTriggerArmed(bool armed) { mTriggerArmed.store(armed); }
    bool isTriggerArmed() const { return mTriggerArmed.load(); }
    // Not owned; null (the default) passes nothing on. The listener must outlive the pipe's use.
    void setMessageListener(VideoInterfaceMessageListener* listener) { mListener.store(listener); }

private:
    std::atomic<bool> mTriggerArmed{false};
    std::atomic<VideoInterfaceMessageListener*> mListener{nullptr};
};

} // namespace OVRA
