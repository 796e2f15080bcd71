#pragma once

namespace OVRA {
class PDUWriteOnly;
class PDUReadWrite;
} // namespace OVRA

// How an algorithm publishes its results: the message hub implements it and stamps, numbers,
// protects and sends each message to the router. May be called from any worker thread.
// Deliberately without a virtual destructor: nobody owns a hub through this interface.
class FeatureAppOutput {
public:
    // Sends size payload bytes as message messageId (1..30 or 0x80000001..0x80000032, size 1..64000).
    virtual void sendFeatureAppResults(unsigned int messageId, const void* data, unsigned long size) = 0;
    // Protect a caller-built message with the hub's data validity stamps and send it.
    virtual void sendFeatureAppResults(OVRA::PDUWriteOnly& message) = 0;
    virtual void sendFeatureAppResults(OVRA::PDUReadWrite& message) = 0;

protected:
    ~FeatureAppOutput() = default;
};
