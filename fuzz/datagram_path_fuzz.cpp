// One received datagram on its way through the process: the bytes land in a receive buffer laid
// out as the UDP input channel's (zero past the datagram, which is cut at the buffer's size), and
// the message hub's messageHandler takes them on this thread, as the receive thread would: the
// application decodes the message, the channel stores it and the video pipe passes the payloads
// it accepts to a listener. The exceptions the receive loop catches and counts are caught here the
// same way. The same bytes then go through DataValidity::verify, once as they are and once with a
// correct CRC, so that the checks behind the CRC are reached as well.
//
// The hub, the application and the pipe are built once (the UDP channel and the workers never
// start), so the state they keep across messages is fuzzed too. Invariants: the hub throws
// exactly for a length field that disagrees with the datagram's size, and only then; a message is
// handed to the listener exactly when the pipe documents to take it, with the datagram's payload;
// verify returns the code of the first check that fails.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "common/OVRAException.h"
#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "framework/CommonMessageHandler.h"
#include "framework/FeatureApplication.h"
#include "framework/FeatureApplicationBase.h"
#include "fuzz/FuzzSupport.h"
#include "log/OVRALogImplementPrintf.h"
#include "video_interface/VideoInterfaceInputAggregate.h"
#include "video_interface/VideoInterfaceMessageListener.h"
#include "video_interface/VideoInterfacePipe.h"

namespace {

using vidapp::fuzz::fail;
using Record = OVRA::VideoInterfaceInputAggregate_t;

// The UDP input channel's receive buffer size.
constexpr std::size_t RECEIVE_BUFFER_SIZE = 64052;
constexpr std::size_t PDU_SIZE = sizeof(OVRA::PDUMessage_t);

enum class Delivery { NONE, CAMERA_SUPPORT, APPLICATION_STATUS, CONSUMER_REGISTER };

// Remembers the last message the pipe passed on, with a copy of its bytes.
class Listener : public OVRA::VideoInterfaceMessageListener {
public:
    void processReceivedMessage(const OVRAInterSystemMessages::CameraSupport_t& message) override {
        keep(Delivery::CAMERA_SUPPORT, &message, sizeof message);
    }
    void processReceivedMessage(const OVRA::SystemApplicationStatus_t& message) override {
        keep(Delivery::APPLICATION_STATUS, &message, sizeof message);
    }
    void processReceivedMessage(const OVRAInterSystemMessages::VideoConsumerRegister_t& message) override {
        keep(Delivery::CONSUMER_REGISTER, &message, sizeof message);
    }

    void reset() {
        delivery = Delivery::NONE;
        calls = 0;
    }

    Delivery delivery = Delivery::NONE;
    int calls = 0;
    unsigned char bytes[sizeof(OVRAInterSystemMessages::CameraSupport_t)] = {};

private:
    void keep(Delivery kind, const void* message, std::size_t size) {
        delivery = kind;
        ++calls;
        std::memcpy(bytes, message, size);
    }
};

// Never runs: the workers are not started.
class Algorithm : public OVRA::FeatureApplicationBase<Record> {
public:
    void initialize() override {}
    std::uint32_t featureAppRun(const Record& /*input*/, FeatureAppOutput& /*output*/) override { return 0; }
    void stopFeatureApp() override {}
};

struct DatagramPath {
    DatagramPath() {
        pipe.setMessageListener(&listener);
        pipe.setTriggerArmed(true);
    }

    Listener listener;
    Algorithm algorithm;
    OVRA::VideoInterfacePipe pipe{28, 1};
    OVRA::FeatureApplication<Record> application{
        "vidapp", OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, algorithm, pipe, 1};
    CommonMessageHandler hub{OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT, application};
    DataValidity validity;
    std::uint64_t recordsReleased = 0;
};

DatagramPath& datagramPath() {
    // The application installs the process's terminate handler, which exits with status 1; the
    // fuzzer must see an escaped exception as the crash it is, so the previous handler returns.
    static DatagramPath* const path = [] {
        const std::terminate_handler previous = std::get_terminate();
        static DatagramPath instance;
        std::set_terminate(previous);
        return &instance;
    }();
    return *path;
}

// Hands completed records back, so that the channel always has a record to fill.
void releaseCompletedRecords(DatagramPath& path) {
    const MessagesTracker& tracker = path.pipe.getMessagesTracker();
    const std::uint64_t completed = tracker.getHostMessagesTracked() + tracker.getInternalMessagesTracked();
    while (path.recordsReleased < completed) {
        (void)path.pipe.read();
        path.pipe.releaseReader();
        ++path.recordsReleased;
    }
}

Delivery expectedDelivery(const OVRA::PDUMessage_t& message) {
    if (message.length < OVRA::PDU_LENGTH_FIELD_HEADER_BYTES) {
        return Delivery::NONE;
    }
    const std::uint64_t payload = message.length - OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
    switch (message.messageId) {
    case OVRA::CAMERA_SUPPORT_DATA:
        return payload == sizeof(OVRAInterSystemMessages::CameraSupport_t) ? Delivery::CAMERA_SUPPORT : Delivery::NONE;
    case OVRA::SYSTEM_APPLICATION_STATUS:
        return payload == sizeof(OVRA::SystemApplicationStatus_t) ? Delivery::APPLICATION_STATUS : Delivery::NONE;
    case OVRA::VIDEO_CONSUMER_REGISTER:
        return payload >= 1 && payload <= sizeof(OVRAInterSystemMessages::VideoConsumerRegister_t)
                   ? Delivery::CONSUMER_REGISTER
                   : Delivery::NONE;
    default:
        return Delivery::NONE;
    }
}

void checkHub(DatagramPath& path, unsigned char* buffer, std::size_t size) {
    const auto& message = *reinterpret_cast<const OVRA::PDUMessage_t*>(buffer);
    const bool oversized = size > PDU_SIZE;
    const bool lengthMatches = static_cast<std::uint64_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES == size;
    const Delivery expected = oversized || !lengthMatches ? Delivery::NONE : expectedDelivery(message);

    path.listener.reset();
    bool lengthRejected = false;
    try {
        path.hub.messageHandler(buffer, size);
    } catch (const OVRAException& e) {
        fail("messageHandler threw %u: %s", e.getCode(), e.what());
    } catch (const std::invalid_argument& e) {
        lengthRejected =
            std::strcmp(e.what(), "CommonMessageHandler::messageHandler(): invalid PDU Message length") == 0;
        if (!lengthRejected) {
            fail("messageHandler threw std::invalid_argument: %s", e.what());
        }
        // What the receive loop logs for it.
        ovraLogImplementErrorPrintf(1045, "messageHandler exception: %s", e.what());
    } catch (const std::exception& e) {
        fail("messageHandler threw %s", e.what());
    } catch (...) {
        fail("messageHandler threw something that is no std::exception");
    }
    releaseCompletedRecords(path);

    if (lengthRejected != (!oversized && !lengthMatches)) {
        fail("%zu bytes with length field %u: %s", size, message.length,
             lengthRejected ? "rejected" : "not rejected for their length");
    }
    if (path.listener.delivery != expected || path.listener.calls != (expected == Delivery::NONE ? 0 : 1)) {
        fail("message 0x%x of %zu bytes: listener called %d times (kind %d), expected kind %d", message.messageId, size,
             path.listener.calls, static_cast<int>(path.listener.delivery), static_cast<int>(expected));
    }
    if (expected != Delivery::NONE) {
        const std::size_t payload = message.length - OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
        if (std::memcmp(path.listener.bytes, message.payload, payload) != 0) {
            fail("message 0x%x: the listener saw other bytes than the datagram's payload", message.messageId);
        }
    }
}

// The code of the first failing check up to the version; -1 for the standard out-of-range error
// of ID 31; 0 when the result depends on earlier messages (count and time stamp, 803 and 805).
std::int32_t expectedVerifyResult(const OVRA::PDUMessage_t& message, std::size_t size, std::uint16_t version) {
    if (message.messageId < 1 || message.messageId > 31) {
        return 800;
    }
    if (static_cast<std::uint64_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES != size) {
        return 801;
    }
    if (message.messageId == 31) {
        return -1;
    }
    if (message.length < OVRA::PDU_LENGTH_FIELD_HEADER_BYTES ||
        OVRAInterSystemMessages::HOST_MESSAGE_SIZE[message.messageId] !=
            message.length - OVRA::PDU_LENGTH_FIELD_HEADER_BYTES) {
        return 801;
    }
    if (message.crc != DataValidity::computeMessageCRC(&message)) {
        return 802;
    }
    if (message.version != version) {
        return 804;
    }
    return 0;
}

void checkVerify(DataValidity& validity, const OVRA::PDUMessage_t& message, std::size_t size) {
    const std::int32_t expected = expectedVerifyResult(message, size, validity.getT1DVersion());
    std::int32_t result = 0;
    try {
        result = validity.verify(&message, size);
    } catch (const std::out_of_range&) {
        result = -1;
    }
    const bool historyDependent = expected == 0 && (result == 0 || result == 803 || result == 805);
    if (result != expected && !historyDependent) {
        fail("verify of message 0x%x (length %u, %zu bytes) returned %d, expected %d", message.messageId,
             message.length, size, result, expected);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = vidapp::fuzz::setUp();
    (void)ready;
    DatagramPath& path = datagramPath();
    alignas(8) static unsigned char buffer[RECEIVE_BUFFER_SIZE] = {};

    // As received: a datagram longer than the buffer is cut, its real size is still reported.
    const std::size_t stored = std::min(size, RECEIVE_BUFFER_SIZE);
    std::memcpy(buffer, data, stored);
    auto& message = *reinterpret_cast<OVRA::PDUMessage_t*>(buffer);

    if (size > 0) {
        checkHub(path, buffer, size);
    }
    checkVerify(path.validity, message, size);
    message.crc = DataValidity::computeMessageCRC(&message);
    checkVerify(path.validity, message, size);

    std::memset(buffer, 0, stored);
    return 0;
}
