#include "communication/DataValidity.h"

#include <bit>
#include <cstdio>
#include <stdexcept>

#include "common/IniFileParser.h"
#include "common/OVRAException.h"
#include "communication/OVRAInterSystemMessages.h"
#include "communication/crc32.h"
#include "log/OVRALogImplementPrintf.h"

// The CRC covers the header fields as they lie in memory, which is the wire order only here.
static_assert(std::endian::native == std::endian::little, "PDU messages are little-endian in memory");

namespace {

constexpr const char* PROTOCOL_SECTION = "Protocol";
constexpr std::size_t VERSION_TEXT_SIZE = 128;
constexpr std::uint32_t DIAGNOSTIC_MESSAGE_ID = 1;
constexpr std::size_t CRC_START_OFFSET = offsetof(OVRA::PDUMessage_t, count);
constexpr std::size_t CRC_HEADER_BYTES = OVRA::PDU_HEADER_SIZE - CRC_START_OFFSET;

// A missing key leaves 0; so does a value that is not hexadecimal.
std::uint16_t readVersion(const IniFileParser& parser, const char* key) {
    std::uint16_t version = 0;
    char text[VERSION_TEXT_SIZE];
    if (parser.getString(PROTOCOL_SECTION, key, text, sizeof text) == 0) {
        unsigned short scanned = 0;
        version = std::sscanf(text, "%hx", &scanned) == 1 ? scanned : 0;
    }
    return version;
}

} // namespace

DataValidity::DataValidity() {
    counts.fill(0xFFFFU);
    countSeen.fill(false);
    lastTimestamps.fill(0);
    try {
        parseConfigFile(CONFIGURATION_FILE);
    } catch (...) {
        // The versions stay 0: every process then sends and expects version 0.
    }
}

DataValidity::~DataValidity() = default;

void DataValidity::parseConfigFile(const char* fileName) {
    IniFileParser parser;
    try {
        parser.parseFile(fileName);
    } catch (const IniFileParserException& e) {
        if (e.lineNumber != 0) {
            ovraLogImplementErrorPrintf(1010, "Error in %s on %d", fileName, static_cast<int>(e.lineNumber));
        } else {
            ovraLogImplementErrorPrintf(1009, "%s not found", fileName);
        }
        return;
    }
    t1dVersion = readVersion(parser, "T1D_VER");
    diagnosticVersion = readVersion(parser, "DIAG_INTF_VER");
}

std::int32_t DataValidity::apply(OVRA::PDUMessage_t* message) {
    return stamp(message, &DataValidity::validateMessage,
                 {&DataValidity::applyCount, &DataValidity::applyVersion, &DataValidity::applyTimestamp,
                  &DataValidity::applyCRC});
}

std::int32_t DataValidity::applyToDiagnosticMessage(OVRA::PDUMessage_t* message) {
    return stamp(message, &DataValidity::validateDiagnosticMessage,
                 {&DataValidity::applyDiagnosticCount, &DataValidity::applyDiagnosticVersion,
                  &DataValidity::applyDiagnosticLength, &DataValidity::applyDiagnosticCRC});
}

std::int32_t DataValidity::stamp(OVRA::PDUMessage_t* message, Step validate, const std::array<Step, 4>& steps) {
    const std::lock_guard<std::mutex> lock(mutex);
    status = OK;
    if (message == nullptr) {
        status = NULL_MESSAGE;
        return status;
    }
    currentMessage = message;
    try {
        (this->*validate)();
    } catch (const DataValidityException& e) {
        return static_cast<std::int32_t>(e.getCode());
    }
    for (const Step step : steps) {
        (this->*step)();
    }
    return status;
}

std::int32_t DataValidity::verify(const OVRA::PDUMessage_t* message, std::size_t bytesReceived) {
    const std::lock_guard<std::mutex> lock(mutex);
    status = OK;
    if (message == nullptr) {
        status = NULL_MESSAGE;
        return status;
    }
    try {
        verifyID(*message);
        verifyLength(*message, bytesReceived);
        verifyMessageSize(*message);
        verifyCRC(*message);
        verifyVersion(*message);
        verifyCount(*message);
        verifyTimestamp(*message);
    } catch (const DataValidityException& e) {
        return static_cast<std::int32_t>(e.getCode());
    }
    return status;
}

std::uint32_t DataValidity::computeMessageCRC(const OVRA::PDUMessage_t* message) {
    if (message == nullptr) {
        throw std::invalid_argument("DataValidity::computeMessageCRC(): message is a null pointer");
    }
    // Unsigned 32-bit on purpose: a length below 16 wraps and the whole payload is fed.
    const std::uint32_t payloadBytes = message->length - OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
    const std::size_t fed = payloadBytes < OVRA::PDU_MAX_PAYLOAD_SIZE ? payloadBytes : OVRA::PDU_MAX_PAYLOAD_SIZE;
    // count, version and time stamp lie in memory least significant byte first, followed by the
    // payload: one pass from the count field gives the same register as feeding them one by one.
    const auto* start = reinterpret_cast<const std::uint8_t*>(message) + CRC_START_OFFSET;
    return OVRA::crc32Buffer(start, CRC_HEADER_BYTES + fed, true, 0);
}

void DataValidity::fail(std::int32_t code, const char* text) {
    status = code;
    throw DataValidityException(static_cast<std::uint32_t>(code), text);
}

void DataValidity::verifyID(const OVRA::PDUMessage_t& message) {
    status = OK;
    // 31 passes here and fails the size table's bounds check; other processes behave the same.
    if (message.messageId < OVRA::FIRST_HOST_MESSAGE_ID || message.messageId > IDS) {
        fail(ID_FAILURE, "Data Validity - Message ID failure");
    }
}

void DataValidity::verifyLength(const OVRA::PDUMessage_t& message, std::size_t bytesReceived) {
    status = OK;
    if (static_cast<std::uint64_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES != bytesReceived) {
        fail(LENGTH_FAILURE, "Data Validity - Length failure");
    }
}

void DataValidity::verifyMessageSize(const OVRA::PDUMessage_t& message) {
    status = OK;
    // In 64 bits a length below 16 wraps far beyond any table entry.
    const std::uint64_t payloadBytes = static_cast<std::uint64_t>(message.length) - OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
    if (OVRAInterSystemMessages::HOST_MESSAGE_SIZE.at(message.messageId) != payloadBytes) {
        fail(LENGTH_FAILURE, "Data Validity - mismatch message id size failure");
    }
}

void DataValidity::verifyCRC(const OVRA::PDUMessage_t& message) {
    status = OK;
    if (message.crc != computeMessageCRC(&message)) {
        fail(CRC_FAILURE, "Data Validity - CRC failure");
    }
}

void DataValidity::verifyVersion(const OVRA::PDUMessage_t& message) {
    status = OK;
    if (message.version != t1dVersion.load() && message.messageId < IDS) {
        fail(VERSION_FAILURE, "Data Validity - Version failure");
    }
}

void DataValidity::verifyCount(const OVRA::PDUMessage_t& message) {
    status = OK;
    const std::uint32_t id = message.messageId;
    const std::uint16_t previous = counts[id];
    // Stored before the check, so the message after a gap is accepted again.
    counts[id] = message.count;
    if (message.count != static_cast<std::uint16_t>(previous + 1U) && countSeen[id]) {
        fail(COUNT_FAILURE, "Data Validity - Count failure");
    }
    countSeen[id] = true;
}

void DataValidity::verifyTimestamp(const OVRA::PDUMessage_t& message) {
    status = OK;
    const std::uint32_t id = message.messageId;
    if (message.timestamp == 0 || message.timestamp < lastTimestamps[id]) {
        fail(TIMESTAMP_FAILURE, "Data Validity - Timestamp failure");
    }
    lastTimestamps[id] = message.timestamp;
}

void DataValidity::verifyDiagnosticID(const OVRA::PDUMessage_t& message) {
    status = OK;
    if (message.messageId != DIAGNOSTIC_MESSAGE_ID) {
        fail(ID_FAILURE, "Data Validity - Diagnostic Message ID failure");
    }
}

void DataValidity::verifyDiagnosticTimestamp(const OVRA::PDUMessage_t& message) {
    status = OK;
    if (message.timestamp == 0 || message.timestamp < lastDiagnosticTimestamp) {
        fail(TIMESTAMP_FAILURE, "Data Validity - Diagnostic Timestamp failure");
    }
    lastDiagnosticTimestamp = message.timestamp;
}

void DataValidity::validateMessage() {
    verifyID(*currentMessage);
    verifyMessageSize(*currentMessage);
}

void DataValidity::validateDiagnosticMessage() {
    verifyDiagnosticID(*currentMessage);
    verifyDiagnosticTimestamp(*currentMessage);
}

void DataValidity::applyCount() {
    const std::uint32_t id = currentMessage->messageId;
    // The first message of an ID carries 0: the count starts at 0xFFFF and wraps.
    ++counts[id];
    currentMessage->count = counts[id];
}

void DataValidity::applyVersion() {
    currentMessage->version = t1dVersion.load();
}

void DataValidity::applyTimestamp() {
    currentMessage->timestamp = ovraSystemTimestamp_us();
}

void DataValidity::applyCRC() {
    currentMessage->crc = computeMessageCRC(currentMessage);
}

void DataValidity::applyDiagnosticCount() {
    ++diagnosticCount;
    currentMessage->count = static_cast<std::uint16_t>(diagnosticCount);
}

void DataValidity::applyDiagnosticVersion() {
    currentMessage->version = diagnosticVersion.load();
}

// Diagnostic messages travel with length 0 and CRC 0 on purpose; their receivers expect that.
void DataValidity::applyDiagnosticLength() {
    currentMessage->length = 0;
}

void DataValidity::applyDiagnosticCRC() {
    currentMessage->crc = 0;
}
