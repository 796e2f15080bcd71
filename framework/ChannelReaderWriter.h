#pragma once

#include <cstdint>

#include "communication/MessagesTracker.h"
#include "communication/OVRACommunicationUtils.h"

namespace OVRA {

// The channel between the receive thread and the worker threads of a feature application: the
// receive thread write()s every accepted message into the record being filled; a triggering
// message completes the record, which a worker then read()s, processes and hands back with
// releaseReader(). A concrete pipe decides which messages it takes, where their payloads go and
// which of them trigger (isTrigger, writeToBuffer).
template <typename T> class ChannelReaderWriter {
public:
    virtual ~ChannelReaderWriter() = default;

    // Whether the message just taken completes the current record.
    virtual bool isTrigger() = 0;
    // Stores the message's payload in the current record; returns the payload bytes taken.
    virtual unsigned long writeToBuffer(const PDUMessage_t& message) = 0;
    // Worker side: the next completed record, waiting without limit.
    virtual T* read() = 0;
    virtual void releaseReader() = 0;
    // Receive side: the payload bytes taken, 0 when the message was dropped.
    virtual std::uint64_t write(const PDUMessage_t& message) = 0;
    virtual void releaseWriter() = 0;
    // Hands the workers a record so that a blocked read() returns; used while stopping.
    virtual void closeWrite() = 0;

    // The counts of the triggering messages, per ID. Read it only while no message is written.
    virtual const MessagesTracker& getMessagesTracker() const = 0;
};

} // namespace OVRA
