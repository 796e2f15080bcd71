#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "communication/OVRACommunicationUtils.h"

// End-to-end protection of the PDU messages a process sends and receives. On the sending side
// apply() checks the message ID and payload size and stamps the header with the rolling count per
// ID, the protocol version, the time stamp and the CRC-32; on the receiving side verify() checks
// ID, length, payload size, CRC, version, count continuity and time stamp order per ID. Diagnostic
// messages have their own, lighter pair of rules (applyToDiagnosticMessage).
//
// The versions come from "ProtocolVersion.ini" in the configuration directory, read once at
// construction; a missing or malformed file is logged and leaves them 0.
//
// Thread safety: apply, applyToDiagnosticMessage and verify each hold `mutex` for their whole run,
// so one object may be shared by the sending threads of a process; `mutex` guards every member
// except the two versions, which are atomics so the getters need no lock. The public operations
// report failures by result code, never by DataValidityException.
class DataValidity {
public:
    static constexpr std::int32_t OK = 0;
    static constexpr std::int32_t ID_FAILURE = 800;     // also the diagnostic ID check
    static constexpr std::int32_t LENGTH_FAILURE = 801; // also the payload size check
    static constexpr std::int32_t CRC_FAILURE = 802;
    static constexpr std::int32_t COUNT_FAILURE = 803;
    static constexpr std::int32_t VERSION_FAILURE = 804;
    static constexpr std::int32_t TIMESTAMP_FAILURE = 805; // also the diagnostic time stamp check
    static constexpr std::int32_t NULL_MESSAGE = 806;

    static constexpr const char* CONFIGURATION_FILE = "ProtocolVersion.ini";

    // Reads CONFIGURATION_FILE; never fails for configuration reasons.
    DataValidity();
    virtual ~DataValidity();

    DataValidity(const DataValidity&) = delete;
    DataValidity& operator=(const DataValidity&) = delete;

    // Reads "T1D_VER" and "DIAG_INTF_VER" of section "Protocol" (hexadecimal) from the file in the
    // configuration directory. Logs 1009 when the file cannot be opened and 1010 on a syntax error,
    // keeping the previous versions; a missing key or a value that is not hexadecimal gives 0.
    void parseConfigFile(const char* fileName);

    // Prepares an outgoing normal message whose ID, length and payload the caller has filled:
    // count, version, time stamp and CRC. Returns 0 or 800/801 (header untouched), 806 for null.
    // ID 31 passes the ID check and then throws std::out_of_range from the size table, as the
    // other processes of the system do.
    std::int32_t apply(OVRA::PDUMessage_t* message);

    // Prepares an outgoing diagnostic message whose ID (1) and time stamp the caller has filled:
    // count, diagnostic version, and length and CRC 0. Returns 0, 800, 805 or 806.
    std::int32_t applyToDiagnosticMessage(OVRA::PDUMessage_t* message);

    // Checks a received message of bytesReceived bytes. Returns 0 or the code of the first failing
    // check (800..805), 806 for null. ID 31 throws std::out_of_range, as in apply.
    std::int32_t verify(const OVRA::PDUMessage_t* message, std::size_t bytesReceived);

    // The CRC-32 of the message's bytes from the count field to the end of the payload as given by
    // the length field (at most 64000 payload bytes; a length below 16 counts as the full payload).
    // Needs no object state, so it is static; message must not be null.
    static std::uint32_t computeMessageCRC(const OVRA::PDUMessage_t* message);

    std::uint16_t getT1DVersion() const { return t1dVersion.load(); }
    std::uint16_t getDiagnosticVersion() const { return diagnosticVersion.load(); }

private:
    static constexpr std::size_t IDS = OVRA::NUMBER_OF_HOST_MESSAGE_IDS;

    // Every check sets status to 0, and on failure sets it to its code and throws
    // DataValidityException with that code.
    void verifyID(const OVRA::PDUMessage_t& message);
    void verifyLength(const OVRA::PDUMessage_t& message, std::size_t bytesReceived);
    void verifyMessageSize(const OVRA::PDUMessage_t& message);
    void verifyCRC(const OVRA::PDUMessage_t& message);
    void verifyVersion(const OVRA::PDUMessage_t& message);
    void verifyCount(const OVRA::PDUMessage_t& message);
    void verifyTimestamp(const OVRA::PDUMessage_t& message);
    void verifyDiagnosticID(const OVRA::PDUMessage_t& message);
    void verifyDiagnosticTimestamp(const OVRA::PDUMessage_t& message);
    [[noreturn]] void fail(std::int32_t code, const char* text);

    // Both record kinds are stamped alike: checked first, then their four fields in order.
    using Step = void (DataValidity::*)();
    std::int32_t stamp(OVRA::PDUMessage_t* message, Step validate, const std::array<Step, 4>& steps);

    void validateMessage();
    void validateDiagnosticMessage();

    void applyCount();
    void applyVersion();
    void applyTimestamp();
    void applyCRC();
    void applyDiagnosticCount();
    void applyDiagnosticVersion();
    void applyDiagnosticLength();
    void applyDiagnosticCRC();

    std::atomic<std::uint16_t> t1dVersion{0};
    std::atomic<std::uint16_t> diagnosticVersion{0};
    // Guarded by mutex. Per message ID: the last count sent (sending side) or received (receiving
    // side), whether a count was received yet, and the newest time stamp accepted.
    std::array<std::uint16_t, IDS> counts;
    std::array<bool, IDS> countSeen;
    std::array<std::uint64_t, IDS> lastTimestamps;
    OVRA::PDUMessage_t* currentMessage = nullptr; // not owned; meaningful only under mutex
    std::int32_t status = OK;
    std::uint32_t diagnosticCount = 0xFFFFFFFFU;
    std::uint64_t lastDiagnosticTimestamp = 0;
    std::mutex mutex;
};
