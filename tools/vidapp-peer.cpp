// vidapp-peer: stands in for the router and the launcher while vidapp runs alone. It listens where
// vidapp sends (to_router and to_launcher), checks every message the way the receiving processes
// do, prints what it got and a per-ID summary, and can send vidapp the messages the router would.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

#include "common/IniFileParser.h"
#include "common/OVRAException.h"
#include "common/SystemCall.h"
#include "communication/CallbackHelper.h"
#include "communication/DataValidity.h"
#include "communication/InputIPC.h"
#include "communication/MessagesTracker.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "communication/OutputIPC.h"
#include "log/OVRALogImplementPrintf.h"
#include "tools/StopSignals.h"
#include "tools/ToolSupport.h"

namespace {

using namespace vidapp::tools;
namespace Messages = OVRAInterSystemMessages;

constexpr const char* USAGE =
    "usage: vidapp-peer [--count N] [--seconds T] [--quiet] [--send KIND]... [--send-file PATH]... | --help\n";

// The largest payload one UDP datagram over IPv4 can carry.
constexpr std::size_t MAX_DATAGRAM_BYTES = 65507;

constexpr std::uint8_t DEFAULT_CAMERA_ON_STATUS = 1;
constexpr OVRA::ApplicationStatus_e DEFAULT_APPLICATION_STATUS = OVRA::RUNNING;
constexpr OVRA::SourceAppNames_e DEFAULT_CONSUMER = OVRA::SRC_AHIVIS;

void printToolHelp() {
    std::printf("%s", USAGE);
    std::printf("Stands in for the router and the launcher while vidapp runs alone.\n"
                "\n"
                "Modes:\n"
                "  listen     without send options, or with --count or --seconds: listens on to_router (UDP %u)\n"
                "             and to_launcher (UDP %u), checks and prints every message, and on --count,\n"
                "             --seconds, SIGINT or SIGTERM prints the per-ID summary and exits. Send options\n"
                "             given as well go out once both ports listen.\n"
                "  send only  send options without --count and --seconds: sends them to vidapp (to_vidapp,\n"
                "             UDP %u) in the order given and exits without listening.\n"
                "\n"
                "Options:\n"
                "  --count N          stop after N messages (N >= 1)\n"
                "  --seconds T        stop after T seconds (fractions allowed)\n"
                "  --quiet            print only the summary\n"
                "  --send KIND        send a message stamped as the router's hub does (count per ID from 1,\n"
                "                     protocol version, time stamp, CRC); KIND is one of\n"
                "      camera-support[=S]       CAMERA_SUPPORT_DATA with rvcCameraOnStatus S (default %u)\n"
                "      system-status[=STATUS]   SYSTEM_APPLICATION_STATUS, every application STATUS\n"
                "                               (OFF..TERMINATING or 0..4; default RUNNING)\n"
                "      consumer-register[=ID]   VIDEO_CONSUMER_REGISTER for consumer ID (a SRC_ name or\n"
                "                               0..255; default SRC_AHIVIS)\n"
                "  --send-file PATH   send the file's bytes unchanged as one datagram\n"
                "  --help             print this text\n"
                "\n"
                "Host messages are checked as the receiving processes check them (ID, length, size, CRC,\n"
                "version from /NFS/ProtocolVersion.ini, count, time stamp, per port); internal messages for\n"
                "their length and CRC.\n"
                "Exit status: 0 every message verified (with --count: and at least one arrived) and every\n"
                "send went out; 1 otherwise; 2 usage error.\n",
                static_cast<unsigned>(OVRA::ROUTER_UDP_PORT), static_cast<unsigned>(OVRA::LAUNCHER_UDP_PORT),
                static_cast<unsigned>(OVRA::VIDAPP_UDP_PORT), static_cast<unsigned>(DEFAULT_CAMERA_ON_STATUS));
}

// One datagram for vidapp: a payload to wrap in a stamped message, or raw bytes from a file.
struct Outgoing {
    std::uint32_t messageId = 0; // 0: raw bytes
    std::vector<std::uint8_t> bytes;
    std::string label;
};

struct Options {
    std::uint64_t count = 0; // 0: no limit
    std::optional<double> seconds;
    bool quiet = false;
    bool help = false;
    struct Send {
        bool fromFile; // --send-file PATH, else --send KIND
        std::string text;
    };
    std::vector<Send> sends; // in the order given
};

template <typename Payload> std::vector<std::uint8_t> payloadBytes(const Payload& payload) {
    const auto* first = reinterpret_cast<const std::uint8_t*>(&payload);
    return std::vector<std::uint8_t>(first, first + sizeof(Payload));
}

std::optional<OVRA::ApplicationStatus_e> parseStatus(const std::string& text) {
    for (std::uint8_t value = OVRA::OFF; value <= OVRA::TERMINATING; ++value) {
        const auto status = static_cast<OVRA::ApplicationStatus_e>(value);
        if (text == OVRA::getApplicationStatusString(status)) {
            return status;
        }
    }
    const std::optional<std::uint64_t> number = parseUnsigned(text, OVRA::OFF, OVRA::TERMINATING);
    if (number) {
        return static_cast<OVRA::ApplicationStatus_e>(*number);
    }
    return std::nullopt;
}

std::optional<std::uint8_t> parseConsumer(const std::string& text) {
    if (text.rfind("SRC_", 0) == 0) {
        try {
            return static_cast<std::uint8_t>(OVRA::getSourceAppName(text.c_str()));
        } catch (const OVRAException&) {
            return std::nullopt;
        }
    }
    const std::optional<std::uint64_t> number = parseUnsigned(text, 0, UINT8_MAX);
    if (number) {
        return static_cast<std::uint8_t>(*number);
    }
    return std::nullopt;
}

// Builds the payload of a --send KIND; an error text when KIND is not understood.
std::optional<Outgoing> buildMessage(const std::string& kindText, std::string& error) {
    const OptionText kind = splitOption("--" + kindText);
    const std::string name = kind.name.substr(2);
    Outgoing outgoing;
    outgoing.label = kindText;
    if (name == "camera-support") {
        Messages::CameraSupport_t payload{};
        payload.rvcCameraOnStatus = DEFAULT_CAMERA_ON_STATUS;
        if (kind.value) {
            const std::optional<std::uint64_t> status = parseUnsigned(*kind.value, 0, UINT8_MAX);
            if (!status) {
                error = "camera-support takes a status of 0..255, not '" + *kind.value + "'";
                return std::nullopt;
            }
            payload.rvcCameraOnStatus = static_cast<std::uint8_t>(*status);
        }
        outgoing.messageId = OVRA::CAMERA_SUPPORT_DATA;
        outgoing.bytes = payloadBytes(payload);
    } else if (name == "system-status") {
        OVRA::SystemApplicationStatus_t payload{};
        OVRA::ApplicationStatus_e status = DEFAULT_APPLICATION_STATUS;
        if (kind.value) {
            const std::optional<OVRA::ApplicationStatus_e> parsed = parseStatus(*kind.value);
            if (!parsed) {
                error = "system-status takes OFF, TIMEOUT, INITIALIZING, RUNNING, TERMINATING or 0..4, not '" +
                        *kind.value + "'";
                return std::nullopt;
            }
            status = *parsed;
        }
        payload.applicationStatus.fill(status);
        outgoing.messageId = OVRA::SYSTEM_APPLICATION_STATUS;
        outgoing.bytes = payloadBytes(payload);
    } else if (name == "consumer-register") {
        Messages::VideoConsumerRegister_t payload{};
        payload.consumerId = DEFAULT_CONSUMER;
        if (kind.value) {
            const std::optional<std::uint8_t> consumer = parseConsumer(*kind.value);
            if (!consumer) {
                error = "consumer-register takes a SRC_ name or 0..255, not '" + *kind.value + "'";
                return std::nullopt;
            }
            payload.consumerId = *consumer;
        }
        outgoing.messageId = OVRA::VIDEO_CONSUMER_REGISTER;
        outgoing.bytes = payloadBytes(payload);
    } else {
        error = "unknown --send kind '" + kindText + "' (camera-support, system-status, consumer-register)";
        return std::nullopt;
    }
    return outgoing;
}

// Fills options from the command line; false with a reason on a usage error.
bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const OptionText option = splitOption(argv[i]);
        const bool takesValue = option.name == "--count" || option.name == "--seconds" || option.name == "--send" ||
                                option.name == "--send-file";
        std::string value;
        if (!readOptionValue(option, takesValue, argc, argv, i, value, error)) {
            return false;
        }

        if (option.name == "--count") {
            const std::optional<std::uint64_t> count = parseUnsigned(value, 1, UINT64_MAX);
            if (!count) {
                error = "--count takes a whole number of at least 1, not '" + value + "'";
                return false;
            }
            options.count = *count;
        } else if (option.name == "--seconds") {
            options.seconds = parsePositive(value);
            if (!options.seconds) {
                error = "--seconds takes a number above 0, not '" + value + "'";
                return false;
            }
        } else if (option.name == "--send" || option.name == "--send-file") {
            options.sends.push_back({option.name == "--send-file", value});
        } else if (option.name == "--quiet") {
            options.quiet = true;
        } else if (option.name == "--help" || option.name == "-h") {
            options.help = true;
        } else {
            error = "unknown argument '" + option.name + "'";
            return false;
        }
    }
    return true;
}

// The datagrams to send, in the order given: --send kinds built, files read whole.
bool prepareSends(const Options& options, std::vector<Outgoing>& outgoing, std::string& error, bool& usage) {
    for (const Options::Send& send : options.sends) {
        if (!send.fromFile) {
            std::optional<Outgoing> built = buildMessage(send.text, error);
            if (!built) {
                usage = true;
                return false;
            }
            outgoing.push_back(std::move(*built));
            continue;
        }
        const std::string& path = send.text;
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            error = "cannot read '" + path + "': " + std::strerror(errno);
            return false;
        }
        Outgoing raw;
        raw.label = "file " + path;
        raw.bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (file.bad()) {
            error = "cannot read '" + path + "': " + std::strerror(errno);
            return false;
        }
        if (raw.bytes.size() > MAX_DATAGRAM_BYTES) {
            error = "'" + path + "' has " + std::to_string(raw.bytes.size()) +
                    " bytes; one UDP datagram holds at most " + std::to_string(MAX_DATAGRAM_BYTES);
            return false;
        }
        outgoing.push_back(std::move(raw));
    }
    return true;
}

bool isHostId(std::uint32_t id) {
    return id >= OVRA::FIRST_HOST_MESSAGE_ID && id <= OVRA::LAST_HOST_MESSAGE_ID;
}

bool isInternalId(std::uint32_t id) {
    return (id & OVRA::INTERNAL_MESSAGE_FLAG) != 0;
}

bool isKnownId(std::uint32_t id) {
    return isHostId(id) || (id >= OVRA::FIRST_INTERNAL_MESSAGE_ID && id <= OVRA::LAST_INTERNAL_MESSAGE_ID);
}

// Host IDs 26..30 have no name string in the shared table; their enumerator names stand in.
const char* unnamedHostId(std::uint32_t id) {
    switch (id) {
    case OVRA::RECEIVED_IMAGE_DATA:
        return "RECEIVED_IMAGE_DATA";
    case OVRA::HOST_MESSAGE_27:
        return "HOST_MESSAGE_27";
    case OVRA::HOST_MESSAGE_28:
        return "HOST_MESSAGE_28";
    case OVRA::VIDEO_INTERFACE_RESULTS:
        return "VIDEO_INTERFACE_RESULTS";
    case OVRA::HOST_MESSAGE_30:
        return "HOST_MESSAGE_30";
    default:
        return nullptr;
    }
}

// The name of any ID; for one the conversions refuse, "unknown ID" and their reason.
struct MessageName {
    const char* name = nullptr;
    char reason[160] = {};
};

void nameMessage(std::uint32_t id, MessageName& result) {
    try {
        if (isInternalId(id)) {
            result.name = OVRA::getInternalMessageIdString(static_cast<OVRA::InternalMessageIds_e>(id));
        } else {
            const char* name = OVRA::getMessageIdString(static_cast<OVRA::MessageIds_e>(id));
            result.name = name != nullptr ? name : unnamedHostId(id);
        }
    } catch (const OVRAException& e) {
        result.name = nullptr;
        std::snprintf(result.reason, sizeof result.reason, "%s", e.what());
    }
}

// Host IDs in decimal, as the tables number them; internal ones in hex, where bit 31 shows.
void printId(std::uint32_t id) {
    if (isInternalId(id)) {
        std::printf(" (0x%08x)", id);
    } else {
        std::printf(" (%u)", id);
    }
}

// The result of checking one message: 0, or a code of DataValidity with its meaning.
struct Verdict {
    std::int32_t code = DataValidity::OK;
    const char* meaning = "";
};

const char* meaningOf(std::int32_t code, bool lengthMatches) {
    switch (code) {
    case DataValidity::ID_FAILURE:
        return "Data Validity - Message ID failure";
    case DataValidity::LENGTH_FAILURE:
        // 801 stands for two checks; the datagram length tells which one failed.
        return lengthMatches ? "Data Validity - mismatch message id size failure" : "Data Validity - Length failure";
    case DataValidity::CRC_FAILURE:
        return "Data Validity - CRC failure";
    case DataValidity::COUNT_FAILURE:
        return "Data Validity - Count failure";
    case DataValidity::VERSION_FAILURE:
        return "Data Validity - Version failure";
    case DataValidity::TIMESTAMP_FAILURE:
        return "Data Validity - Timestamp failure";
    default:
        return "unexpected result";
    }
}

// Listens on to_router and to_launcher and checks, counts and prints every message. Each port has
// its own receive thread (InputIPC) and its own verifier and tracker, as a receiving process
// would. Both threads call handle(); `mutex` serialises them over the verifiers, the trackers,
// the counters and standard output. Once --count messages have arrived, handle() writes the
// done descriptor and ignores what follows. start() and stop() are called from the main thread;
// stop() is idempotent and the destructor stops too.
class Peer {
public:
    Peer(const Options& options, int doneFd) : limit(options.count), quiet(options.quiet), done(doneFd) {}
    ~Peer() { stop(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Throws CommunicationException when a port cannot be listened on; nothing listens then.
    void start() {
        try {
            router.input.start();
            launcher.input.start();
        } catch (...) {
            stop();
            throw;
        }
    }

    void stop() {
        router.input.stop();
        launcher.input.stop();
    }

    // The summary; call after stop().
    void printSummary() {
        const std::lock_guard<std::mutex> lock(mutex);
        std::printf("summary: %llu messages, %llu verification failures\n", static_cast<unsigned long long>(received),
                    static_cast<unsigned long long>(failures));
        for (const Channel* channel : {&router, &launcher}) {
            try {
                std::printf("%s",
                            withEnumeratorNames(channel->tracker.getTrackedHostMessagesStats(channel->name)).c_str());
                std::printf("%s", channel->tracker.getTrackedInternalMessagesStats(channel->name).c_str());
            } catch (const std::exception& e) {
                std::printf("%s: the table cannot be printed: %s\n", channel->name, e.what());
            }
        }
        if (unknownIds != 0) {
            std::printf("%llu messages with an ID outside the tables\n", static_cast<unsigned long long>(unknownIds));
        }
        std::fflush(stdout);
    }

    bool passed() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return failures == 0 && (limit == 0 || received != 0);
    }

private:
    struct Channel : CallbackHelper {
        Channel(Peer& owner, const char* channelName, std::uint16_t port)
            : peer(owner), name(channelName), input(*this, channelName, port) {}
        void messageHandler(void* buffer, unsigned long lengthBytes) override {
            peer.handle(*this, static_cast<const std::uint8_t*>(buffer), lengthBytes);
        }

        Peer& peer;
        const char* const name;
        DataValidity verifier; // counts and time stamps per ID of this port, as its receiver keeps them
        MessagesTracker tracker;
        InputIPC input; // last: its thread stops before the verifier and the tracker go
    };

    // The tracker's report names host IDs 26..30 "(null)"; the enumerator names read better.
    static std::string withEnumeratorNames(std::string report) {
        for (std::uint32_t id = OVRA::RECEIVED_IMAGE_DATA; id <= OVRA::HOST_MESSAGE_30; ++id) {
            const std::string unnamed = ": (null):" + std::to_string(id) + "\t";
            const std::size_t at = report.find(unnamed);
            if (at != std::string::npos) {
                report.replace(at, unnamed.size(),
                               std::string(": ") + unnamedHostId(id) + ":" + std::to_string(id) + "\t");
            }
        }
        return report;
    }

    // The buffer holds at least a whole PDU record and reads as zero past the datagram, so the
    // header and payload fields can be read whatever the datagram's length.
    void handle(Channel& channel, const std::uint8_t* bytes, unsigned long length) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (limit != 0 && received >= limit) {
            return;
        }
        ++received;
        const auto& message = *reinterpret_cast<const OVRA::PDUMessage_t*>(bytes);
        const Verdict verdict = check(channel, message, length);
        if (verdict.code != DataValidity::OK) {
            ++failures;
        }
        if (isKnownId(message.messageId)) {
            channel.tracker.track(message.messageId);
        } else {
            ++unknownIds;
        }
        if (!quiet) {
            printMessage(channel, message, length, verdict);
        }
        if (limit != 0 && received == limit) {
            const std::uint64_t one = 1;
            (void)OVRA::retryOnEintr([&] { return write(done, &one, sizeof one); });
        }
    }

    static Verdict check(Channel& channel, const OVRA::PDUMessage_t& message, unsigned long length) {
        const bool lengthMatches = static_cast<std::uint64_t>(message.length) + OVRA::PDU_ID_AND_LENGTH_BYTES == length;
        Verdict verdict;
        if (length < OVRA::PDU_HEADER_SIZE) {
            verdict.code = DataValidity::LENGTH_FAILURE;
            verdict.meaning = "Data Validity - Length failure (shorter than the 24-byte header)";
        } else if (isInternalId(message.messageId)) {
            // verify() takes host IDs only: of the rest, length and CRC apply to internal messages.
            if (!isKnownId(message.messageId)) {
                verdict.code = DataValidity::ID_FAILURE;
            } else if (!lengthMatches) {
                verdict.code = DataValidity::LENGTH_FAILURE;
            } else if (message.crc != DataValidity::computeMessageCRC(&message)) {
                verdict.code = DataValidity::CRC_FAILURE;
            }
            verdict.meaning = meaningOf(verdict.code, lengthMatches);
        } else {
            try {
                verdict.code = channel.verifier.verify(&message, length);
                verdict.meaning = meaningOf(verdict.code, lengthMatches);
            } catch (const std::exception&) {
                // ID 31 passes the ID check and then fails the size table's bounds check.
                verdict.code = DataValidity::ID_FAILURE;
                verdict.meaning = "Data Validity - Message ID failure (no payload size for this ID)";
            }
        }
        return verdict;
    }

    static void printMessage(const Channel& channel, const OVRA::PDUMessage_t& message, unsigned long length,
                             const Verdict& verdict) {
        MessageName name;
        nameMessage(message.messageId, name);
        if (name.name != nullptr) {
            std::printf("%s: %s", channel.name, name.name);
        } else {
            std::printf("%s: unknown ID [%s]", channel.name, name.reason);
        }
        printId(message.messageId);
        std::printf(" count %u timestamp %llu", static_cast<unsigned>(message.count),
                    static_cast<unsigned long long>(message.timestamp));

        const unsigned long payloadBytes = length > OVRA::PDU_HEADER_SIZE ? length - OVRA::PDU_HEADER_SIZE : 0;
        if (message.messageId == OVRA::VIDEO_INTERFACE_RESULTS &&
            payloadBytes >= sizeof(Messages::VideoInterfaceResults_t)) {
            Messages::VideoInterfaceResults_t results{};
            std::memcpy(&results, message.payload, sizeof results);
            std::printf(": buffer index %u, width %u, height %u, sequence %u, time stamp %llu", results.bufferIndex,
                        results.imageWidth, results.imageHeight, results.sequenceNumber,
                        static_cast<unsigned long long>(results.timestamp));
        } else if (message.messageId == OVRA::APP_GUID_STATUS && payloadBytes >= sizeof(Messages::AppGUIDStatus_t)) {
            Messages::AppGUIDStatus_t report{};
            std::memcpy(&report, message.payload, sizeof report);
            char guid[sizeof report.guid + 1] = {};
            for (std::size_t i = 0; i < sizeof report.guid && report.guid[i] != '\0'; ++i) {
                const char c = report.guid[i];
                guid[i] = c >= ' ' && c <= '~' ? c : '?';
            }
            const char* statusName = "unknown status";
            if (report.status <= OVRA::TERMINATING) {
                statusName = OVRA::getApplicationStatusString(static_cast<OVRA::ApplicationStatus_e>(report.status));
            }
            std::printf(": name %s, status %u %s", guid, report.status, statusName);
        }

        if (verdict.code == DataValidity::OK) {
            std::printf(" ok\n");
        } else {
            std::printf(" FAILED %d %s\n", verdict.code, verdict.meaning);
        }
        std::fflush(stdout);
    }

    const std::uint64_t limit;
    const bool quiet;
    const int done;
    mutable std::mutex mutex; // guards the counters below, both channels' verifier and tracker, stdout
    std::uint64_t received = 0;
    std::uint64_t failures = 0;
    std::uint64_t unknownIds = 0;
    Channel router{*this, OVRA::ROUTER_CHANNEL_NAME, OVRA::ROUTER_UDP_PORT};
    Channel launcher{*this, OVRA::LAUNCHER_CHANNEL_NAME, OVRA::LAUNCHER_UDP_PORT};
};

// Sends datagrams to vidapp as the router would: built messages get a count per ID from 1, the
// configured protocol version, a time stamp and the CRC. Used from the main thread only.
class Sender {
public:
    explicit Sender(bool quietOutput) : quiet(quietOutput), message(std::make_unique<OVRA::PDUMessage_t>()) {}

    bool send(const Outgoing& outgoing) {
        try {
            if (outgoing.messageId == 0) {
                output.sendMessage(outgoing.bytes.data(), outgoing.bytes.size());
                report(outgoing, outgoing.bytes.size());
                return true;
            }
            std::memset(message.get(), 0, sizeof(OVRA::PDUMessage_t));
            message->messageId = outgoing.messageId;
            message->length = static_cast<std::uint32_t>(outgoing.bytes.size()) + OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
            std::memcpy(message->payload, outgoing.bytes.data(), outgoing.bytes.size());
            message->count = ++counts[outgoing.messageId];
            message->version = versions.getT1DVersion();
            message->timestamp = ovraSystemTimestamp_us();
            message->crc = DataValidity::computeMessageCRC(message.get());
            const std::size_t size = OVRA::PDU_HEADER_SIZE + outgoing.bytes.size();
            output.sendMessage(message.get(), size);
            report(outgoing, size);
            return true;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "vidapp-peer: sending %s failed: %s\n", outgoing.label.c_str(), e.what());
            return false;
        }
    }

private:
    void report(const Outgoing& outgoing, std::size_t size) const {
        if (quiet) {
            return;
        }
        if (outgoing.messageId == 0) {
            std::printf("sent %s (%zu bytes) to %s:%u\n", outgoing.label.c_str(), size, OVRA::VIDAPP_CHANNEL_NAME,
                        static_cast<unsigned>(OVRA::VIDAPP_UDP_PORT));
        } else {
            MessageName name;
            nameMessage(outgoing.messageId, name);
            std::printf("sent %s", name.name != nullptr ? name.name : "?");
            printId(outgoing.messageId);
            std::printf(" count %u (%zu bytes) to %s:%u\n", static_cast<unsigned>(message->count), size,
                        OVRA::VIDAPP_CHANNEL_NAME, static_cast<unsigned>(OVRA::VIDAPP_UDP_PORT));
        }
        std::fflush(stdout);
    }

    const bool quiet;
    DataValidity versions; // only for the protocol version configured in ProtocolVersion.ini
    OutputIPC output{OVRA::VIDAPP_CHANNEL_NAME, OVRA::VIDAPP_UDP_PORT};
    std::map<std::uint32_t, std::uint16_t> counts;
    std::unique_ptr<OVRA::PDUMessage_t> message; // 64 KB: reused for every send
};

// Where the protocol version that is checked and sent comes from.
void describeVersion() {
    IniFileParser parser;
    try {
        parser.parseFile(DataValidity::CONFIGURATION_FILE);
        const DataValidity versions;
        std::fprintf(stderr, "vidapp-peer: protocol version 0x%04x (T1D_VER of %s%s)\n",
                     static_cast<unsigned>(versions.getT1DVersion()), IniFileParser::CONFIGURATION_DIRECTORY,
                     DataValidity::CONFIGURATION_FILE);
    } catch (const OVRAException& e) {
        std::fprintf(stderr, "vidapp-peer: %s: protocol version 0\n", e.what());
    }
}

bool sendAll(Sender& sender, const std::vector<Outgoing>& outgoing) {
    bool allSent = true;
    for (const Outgoing& datagram : outgoing) {
        allSent = sender.send(datagram) && allSent;
    }
    return allSent;
}

int listenAndSend(const Options& options, const std::vector<Outgoing>& outgoing) {
    const StopSignals stopSignals; // before any thread starts
    const FileDescriptor doneFd(eventfd(0, EFD_CLOEXEC));
    if (!stopSignals.ready() || doneFd.get() == -1) {
        std::fprintf(stderr, "vidapp-peer: cannot set up the wait: %s\n", std::strerror(errno));
        return EXIT_FAILED;
    }

    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (options.seconds) {
        deadline =
            std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                   std::chrono::duration<double>(std::min(*options.seconds, 1e9)));
    }

    Peer peer(options, doneFd.get());
    try {
        peer.start();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vidapp-peer: cannot listen: %s\n", e.what());
        return EXIT_FAILED;
    }
    std::fprintf(stderr, "vidapp-peer: listening on %s:%u and %s:%u\n", OVRA::ROUTER_CHANNEL_NAME,
                 static_cast<unsigned>(OVRA::ROUTER_UDP_PORT), OVRA::LAUNCHER_CHANNEL_NAME,
                 static_cast<unsigned>(OVRA::LAUNCHER_UDP_PORT));

    bool allSent = true;
    if (!outgoing.empty()) {
        Sender sender(options.quiet);
        allSent = sendAll(sender, outgoing);
    }

    stopSignals.wait(doneFd.get(), deadline);
    peer.stop();
    peer.printSummary();
    return peer.passed() && allSent ? EXIT_OK : EXIT_FAILED;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status =
            startTool("vidapp-peer", USAGE, argc, argv, options, parseOptions, printToolHelp)) {
        return *status;
    }
    std::vector<Outgoing> outgoing;
    std::string error;
    bool usage = false;
    if (!prepareSends(options, outgoing, error, usage)) {
        if (usage) {
            return usageError("vidapp-peer", error, USAGE);
        }
        std::fprintf(stderr, "vidapp-peer: %s\n", error.c_str());
        return EXIT_FAILED;
    }

    describeVersion();
    const bool sendOnly = !outgoing.empty() && options.count == 0 && !options.seconds;
    if (sendOnly) {
        Sender sender(options.quiet);
        return sendAll(sender, outgoing) ? EXIT_OK : EXIT_FAILED;
    }
    return listenAndSend(options, outgoing);
}
