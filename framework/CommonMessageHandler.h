#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "communication/CallbackHelper.h"
#include "communication/DataValidity.h"
#include "communication/InputIPC.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OutputIPC.h"
#include "framework/FeatureAppInput.h"
#include "framework/FeatureAppOutput.h"
#include "framework/PDUWrapper.h"

// The message hub of an application process: one UDP receive channel on the application's own
// port and one send channel towards the router.
//
// Receiving: the input channel's thread ("InputIPCRun") calls messageHandler for every datagram;
// the hub checks only its size against the PDU record and hands it to the application's
// decodeMessagePayload on that same thread. Oversized datagrams are logged (1035) and dropped;
// a null buffer or a length field that disagrees with the datagram size is thrown back to the
// channel, which counts it.
//
// Sending: sendFeatureAppResults(id, data, size) may be called from any thread. Under sendMutex
// it stamps the one preallocated outgoing record with length, time stamp, a count per message ID
// (the first message of each ID carries 1) and the CRC, and sends it, so counts of one ID leave in
// increasing order. The wrapper forms protect a caller-built record with DataValidity and send it
// as it stands. Nothing is allocated per message. Sending works before start and after stop.
class CommonMessageHandler : public CallbackHelper, public FeatureAppOutput {
public:
    // Receives on channelName/port, sends to "to_router" on port 50410 of the local host.
    CommonMessageHandler(const std::string& channelName, std::uint16_t port, FeatureAppInput& application);
    // Sends to outputPort instead; outputName is the destination IPv4 address in dotted form (the
    // local host's wildcard address when empty), checked on each send.
    CommonMessageHandler(const std::string& channelName, std::uint16_t port, FeatureAppInput& application,
                         const std::string& outputName, std::uint16_t outputPort);
    ~CommonMessageHandler() override;

    CommonMessageHandler(const CommonMessageHandler&) = delete;
    CommonMessageHandler& operator=(const CommonMessageHandler&) = delete;

    // Starts the receive thread; throws the input channel's CommunicationException on failure.
    void startCommonMsgHandler();
    // Ends the receive thread; idempotent. The send channel stays open until destruction.
    void stopCommonMsgHandler();

    // Called by the input channel for each datagram (see the class comment).
    void messageHandler(void* messageBuffer, unsigned long lengthBytes) override;

    // Sends a ready-made message as it stands (length field + 8 bytes): no count, time stamp or
    // CRC is touched. Throws CommunicationException when the send fails.
    void sendPDUMessage(const OVRA::PDUMessage_t& message);

    // Throws std::invalid_argument for null data or a size outside 1..64000,
    // OVRA::InvalidMessageIDException 1058 for an ID outside 1..30 and 0x80000001..0x80000032,
    // CommunicationException when the send fails (the count of the ID has advanced then).
    void sendFeatureAppResults(unsigned int messageId, const void* data, unsigned long size) override;
    // Throws DataValidityException 500 when DataValidity::apply refuses the message.
    void sendFeatureAppResults(OVRA::PDUWriteOnly& message) override;
    void sendFeatureAppResults(OVRA::PDUReadWrite& message) override;

private:
    void doSend(unsigned int messageId, const void* data, unsigned long size);
    // The count slot of a range-checked ID.
    std::uint32_t& countFor(unsigned int messageId);

    InputIPC inputChannel;
    OutputIPC outputChannel; // guarded by sendMutex (it creates its socket on first use)
    FeatureAppInput& application;
    // Guarded by sendMutex: the last count sent per host ID (index = ID) and per internal ID
    // (index = ID without bit 31). Fixed tables, so no send ever allocates.
    std::array<std::uint32_t, OVRA::NUMBER_OF_HOST_MESSAGE_IDS> hostMessageCounts{};
    std::array<std::uint32_t, OVRA::NUMBER_OF_INTERNAL_MESSAGE_IDS> internalMessageCounts{};
    OVRA::PDUMessage_t outgoingMessage; // guarded by sendMutex
    std::mutex sendMutex;
    DataValidity dataValidity; // has its own lock
};
