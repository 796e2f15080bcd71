#pragma once

// The receiving side of a UDP input channel: InputIPC calls messageHandler once for every
// non-empty datagram, on the channel's own receive thread, so an implementation must not block
// for long (nothing else drains the socket meanwhile).
//
// messageBuffer points at the channel's receive buffer and is only valid during the call.
// lengthBytes is the datagram's real length, which may exceed the bytes stored in the buffer
// (InputIPC::BUFFER_SIZE); the buffer past the received bytes always reads as zero, as long as
// the callback writes to none of it.
// An exception thrown here is counted and logged by the channel; the sixth one over the channel's
// life sends SIGINT to the process.
class CallbackHelper {
public:
    virtual ~CallbackHelper() = default;
    virtual void messageHandler(void* messageBuffer, unsigned long lengthBytes) = 0;
};
