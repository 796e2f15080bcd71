// vidapp-load: feeds vidapp's receive port (to_vidapp, UDP 50427) a steady stream of datagrams at a
// fixed rate, as the router would send them, mixed with a share of garbage that a faulty or hostile
// sender could produce. For soak and load runs: the mix is reproducible from its seed, the pacing
// keeps to absolute send times, and the end report says exactly what was sent.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <random>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "common/SystemCall.h"
#include "communication/DataValidity.h"
#include "communication/OVRACommunicationUtils.h"
#include "communication/OVRAInterSystemMessages.h"
#include "log/OVRALogImplementPrintf.h"
#include "tools/ToolSupport.h"

namespace {

using namespace vidapp::tools;
namespace Messages = OVRAInterSystemMessages;

constexpr const char* USAGE = "usage: vidapp-load [--rate N] [--seconds T | --count N] [--garbage F] [--seed S] "
                              "[--port P] | --help\n";

constexpr std::uint64_t DEFAULT_RATE = 1000;
constexpr double DEFAULT_SECONDS = 10.0;
constexpr double DEFAULT_GARBAGE_SHARE = 0.1;
constexpr std::uint64_t DEFAULT_SEED = 1;
constexpr std::uint64_t MAX_RATE = 1000000;

// The largest payload one UDP datagram over IPv4 can carry.
constexpr std::size_t MAX_DATAGRAM_BYTES = 65507;
// Random datagrams are mostly about the size of real messages.
constexpr std::size_t USUAL_RANDOM_DATAGRAM_BYTES = 1500;
constexpr std::size_t MAX_GARBAGE_PAYLOAD_BYTES = 1024;
// A send this far behind its time counts as late in the report.
constexpr std::chrono::milliseconds LATE_SEND{10};

constexpr std::size_t CAMERA_SUPPORT_BYTES = sizeof(Messages::CameraSupport_t);
constexpr std::size_t SYSTEM_STATUS_BYTES = sizeof(OVRA::SystemApplicationStatus_t);

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int /*signal*/) {
    interrupted = 1;
}

void printToolHelp() {
    std::printf("%s", USAGE);
    std::printf("Sends vidapp (to_vidapp, UDP %u on 127.0.0.1) datagrams at a fixed rate, as the router would,\n"
                "with a share of garbage, and reports what it sent.\n"
                "\n"
                "Valid datagrams, half and half at random: CAMERA_SUPPORT_DATA (%zu-byte payload) and\n"
                "SYSTEM_APPLICATION_STATUS (%zu-byte payload), stamped as the router's hub does (count per ID\n"
                "from 1, protocol version of /NFS/ProtocolVersion.ini, time stamp, CRC).\n"
                "Garbage, an exact share spread evenly over the run, each datagram's length field right\n"
                "(datagram size - 8), one of three kinds at random:\n"
                "  unknown ID         a stamped message whose ID is in neither table\n"
                "  wrong payload size CAMERA_SUPPORT_DATA or SYSTEM_APPLICATION_STATUS with another payload size\n"
                "  random bytes       8 to %zu random bytes, now and then up to %zu (larger than a PDU record)\n"
                "\n"
                "Options:\n"
                "  --rate N      datagrams per second, 1..%llu (default %llu)\n"
                "  --seconds T   send for T seconds (fractions allowed; default %.0f)\n"
                "  --count N     send N datagrams instead\n"
                "  --garbage F   share of garbage, 0..1 (default %.1f)\n"
                "  --seed S      seed of the mix: the same seed sends the same IDs, sizes and payloads (default %llu)\n"
                "  --port P      destination port (default %u)\n"
                "  --help        print this text\n"
                "\n"
                "SIGINT or SIGTERM ends the run early with the report.\n"
                "Exit status: 0 everything sent; 1 a send failed or the run was interrupted; 2 usage error.\n",
                static_cast<unsigned>(OVRA::VIDAPP_UDP_PORT), CAMERA_SUPPORT_BYTES, SYSTEM_STATUS_BYTES,
                USUAL_RANDOM_DATAGRAM_BYTES, MAX_DATAGRAM_BYTES, static_cast<unsigned long long>(MAX_RATE),
                static_cast<unsigned long long>(DEFAULT_RATE), DEFAULT_SECONDS, DEFAULT_GARBAGE_SHARE,
                static_cast<unsigned long long>(DEFAULT_SEED), static_cast<unsigned>(OVRA::VIDAPP_UDP_PORT));
}

struct Options {
    std::uint64_t rate = DEFAULT_RATE;
    std::optional<double> seconds;
    std::optional<std::uint64_t> count;
    double garbageShare = DEFAULT_GARBAGE_SHARE;
    std::uint64_t seed = DEFAULT_SEED;
    std::uint16_t port = OVRA::VIDAPP_UDP_PORT;
    bool help = false;

    std::uint64_t datagrams() const {
        if (count) {
            return *count;
        }
        return static_cast<std::uint64_t>(std::llround(seconds.value_or(DEFAULT_SECONDS) * static_cast<double>(rate)));
    }
};

std::optional<double> parseShare(const std::string& text) {
    if (text == "0") {
        return 0.0;
    }
    const std::optional<double> value = parsePositive(text);
    if (!value || *value > 1.0) {
        return std::nullopt;
    }
    return value;
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const OptionText option = splitOption(argv[i]);
        if (option.name == "--help" || option.name == "-h") {
            options.help = true;
            continue;
        }
        static const std::string VALUED[] = {"--rate", "--seconds", "--count", "--garbage", "--seed", "--port"};
        if (std::find(std::begin(VALUED), std::end(VALUED), option.name) == std::end(VALUED)) {
            error = "unknown argument '" + option.name + "'";
            return false;
        }
        std::string value;
        if (!readOptionValue(option, true, argc, argv, i, value, error)) {
            return false;
        }

        if (option.name == "--rate") {
            const std::optional<std::uint64_t> rate = parseUnsigned(value, 1, MAX_RATE);
            if (!rate) {
                error = "--rate takes a whole number of 1.." + std::to_string(MAX_RATE) + ", not '" + value + "'";
                return false;
            }
            options.rate = *rate;
        } else if (option.name == "--seconds") {
            options.seconds = parsePositive(value);
            if (!options.seconds || *options.seconds > 1e7) {
                error = "--seconds takes a number above 0, not '" + value + "'";
                return false;
            }
        } else if (option.name == "--count") {
            options.count = parseUnsigned(value, 1, UINT32_MAX);
            if (!options.count) {
                error = "--count takes a whole number of at least 1, not '" + value + "'";
                return false;
            }
        } else if (option.name == "--garbage") {
            const std::optional<double> share = parseShare(value);
            if (!share) {
                error = "--garbage takes a share of 0..1, not '" + value + "'";
                return false;
            }
            options.garbageShare = *share;
        } else if (option.name == "--seed") {
            const std::optional<std::uint64_t> seed = parseUnsigned(value, 0, UINT64_MAX);
            if (!seed) {
                error = "--seed takes a whole number, not '" + value + "'";
                return false;
            }
            options.seed = *seed;
        } else {
            const std::optional<std::uint64_t> port = parseUnsigned(value, 1, UINT16_MAX);
            if (!port) {
                error = "--port takes a port of 1..65535, not '" + value + "'";
                return false;
            }
            options.port = static_cast<std::uint16_t>(*port);
        }
    }
    if (options.seconds && options.count) {
        error = "--seconds and --count exclude each other";
        return false;
    }
    return true;
}

enum class Kind { CAMERA_SUPPORT, SYSTEM_STATUS, UNKNOWN_ID, WRONG_SIZE, RANDOM_BYTES };

struct Report {
    std::uint64_t planned = 0;
    std::uint64_t sent = 0;
    std::uint64_t cameraSupport = 0;
    std::uint64_t systemStatus = 0;
    std::uint64_t unknownId = 0;
    std::uint64_t wrongSize = 0;
    std::uint64_t randomBytes = 0;
    std::uint64_t oversized = 0; // random datagrams larger than a PDU record
    std::uint64_t failed = 0;
    int firstError = 0;
    std::uint64_t lateSends = 0;
    std::chrono::nanoseconds worstLateness{0};
    std::chrono::nanoseconds elapsed{0};

    std::uint64_t garbage() const { return unknownId + wrongSize + randomBytes; }
};

bool isKnownId(std::uint32_t id) {
    return (id >= OVRA::FIRST_HOST_MESSAGE_ID && id <= OVRA::LAST_HOST_MESSAGE_ID) ||
           (id >= OVRA::FIRST_INTERNAL_MESSAGE_ID && id <= OVRA::LAST_INTERNAL_MESSAGE_ID);
}

// Builds the datagrams. One PDU record and one raw buffer are reused for every datagram.
class DatagramMaker {
public:
    explicit DatagramMaker(std::uint64_t seed)
        : random(seed), message(std::make_unique<OVRA::PDUMessage_t>()), raw(MAX_DATAGRAM_BYTES) {}

    // The next datagram of the given kind; valid until the next call.
    std::pair<const void*, std::size_t> make(Kind kind, Report& report) {
        switch (kind) {
        case Kind::CAMERA_SUPPORT: {
            Messages::CameraSupport_t payload{};
            payload.rvcCameraOnStatus = static_cast<std::uint8_t>(uniform(0, 1));
            return stamped(OVRA::CAMERA_SUPPORT_DATA, &payload, sizeof payload);
        }
        case Kind::SYSTEM_STATUS: {
            OVRA::SystemApplicationStatus_t payload{};
            for (OVRA::ApplicationStatus_e& status : payload.applicationStatus) {
                status = static_cast<OVRA::ApplicationStatus_e>(uniform(OVRA::OFF, OVRA::TERMINATING));
            }
            return stamped(OVRA::SYSTEM_APPLICATION_STATUS, &payload, sizeof payload);
        }
        case Kind::UNKNOWN_ID: {
            const std::size_t size = uniform(0, MAX_GARBAGE_PAYLOAD_BYTES);
            fillRandom(raw.data(), size);
            return stamped(unknownId(), raw.data(), size);
        }
        case Kind::WRONG_SIZE: {
            const bool camera = uniform(0, 1) == 0;
            const std::size_t right = camera ? CAMERA_SUPPORT_BYTES : SYSTEM_STATUS_BYTES;
            std::size_t size = uniform(0, 15) == 0 ? OVRA::PDU_MAX_PAYLOAD_SIZE : uniform(0, MAX_GARBAGE_PAYLOAD_BYTES);
            if (size == right) {
                ++size;
            }
            fillRandom(raw.data(), size);
            const std::uint32_t id = camera ? static_cast<std::uint32_t>(OVRA::CAMERA_SUPPORT_DATA)
                                            : static_cast<std::uint32_t>(OVRA::SYSTEM_APPLICATION_STATUS);
            return stamped(id, raw.data(), size);
        }
        case Kind::RANDOM_BYTES:
            return randomDatagram(report);
        }
        return {nullptr, 0};
    }

    // Valid datagrams are half camera support, half application status; garbage of each kind a third.
    Kind chooseKind(bool garbage) {
        if (!garbage) {
            return uniform(0, 1) == 0 ? Kind::CAMERA_SUPPORT : Kind::SYSTEM_STATUS;
        }
        static constexpr Kind GARBAGE[] = {Kind::UNKNOWN_ID, Kind::WRONG_SIZE, Kind::RANDOM_BYTES};
        return GARBAGE[uniform(0, std::size(GARBAGE) - 1)];
    }

private:
    std::size_t uniform(std::size_t low, std::size_t high) {
        return std::uniform_int_distribution<std::size_t>(low, high)(random);
    }

    void fillRandom(std::uint8_t* bytes, std::size_t size) {
        std::size_t i = 0;
        for (; i + sizeof(std::uint64_t) <= size; i += sizeof(std::uint64_t)) {
            const std::uint64_t word = random();
            std::memcpy(bytes + i, &word, sizeof word);
        }
        const std::uint64_t word = random();
        std::memcpy(bytes + i, &word, size - i);
    }

    // Mostly anywhere outside the tables; now and then one of the IDs right beside them.
    std::uint32_t unknownId() {
        static constexpr std::uint32_t NEIGHBOURS[] = {0, OVRA::LAST_HOST_MESSAGE_ID + 1, OVRA::INTERNAL_MESSAGE_FLAG,
                                                       OVRA::LAST_INTERNAL_MESSAGE_ID + 1};
        if (uniform(0, 3) == 0) {
            return NEIGHBOURS[uniform(0, std::size(NEIGHBOURS) - 1)];
        }
        std::uint32_t id = 0;
        do {
            id = static_cast<std::uint32_t>(random());
        } while (isKnownId(id));
        return id;
    }

    // Stamped as the router's hub stamps: count per ID from 1, version, time stamp, CRC.
    std::pair<const void*, std::size_t> stamped(std::uint32_t id, const void* payload, std::size_t size) {
        std::memset(message.get(), 0, OVRA::PDU_HEADER_SIZE + size);
        message->messageId = id;
        message->length = static_cast<std::uint32_t>(size) + OVRA::PDU_LENGTH_FIELD_HEADER_BYTES;
        std::memcpy(message->payload, payload, size);
        message->count = nextCount(id);
        message->version = versions.getT1DVersion();
        message->timestamp = ovraSystemTimestamp_us();
        message->crc = DataValidity::computeMessageCRC(message.get());
        return {message.get(), OVRA::PDU_HEADER_SIZE + size};
    }

    std::uint16_t nextCount(std::uint32_t id) {
        if (id >= OVRA::FIRST_HOST_MESSAGE_ID && id <= OVRA::LAST_HOST_MESSAGE_ID) {
            return ++hostCounts[id];
        }
        if (id >= OVRA::FIRST_INTERNAL_MESSAGE_ID && id <= OVRA::LAST_INTERNAL_MESSAGE_ID) {
            return ++internalCounts[id & ~OVRA::INTERNAL_MESSAGE_FLAG];
        }
        return ++otherCount;
    }

    std::pair<const void*, std::size_t> randomDatagram(Report& report) {
        std::size_t size = 0;
        switch (uniform(0, 31)) {
        case 0:
            size = uniform(sizeof(OVRA::PDUMessage_t) + 1, MAX_DATAGRAM_BYTES);
            ++report.oversized;
            break;
        case 1:
            size = OVRA::PDU_ID_AND_LENGTH_BYTES;
            break;
        default:
            size = uniform(OVRA::PDU_ID_AND_LENGTH_BYTES, USUAL_RANDOM_DATAGRAM_BYTES);
            break;
        }
        fillRandom(raw.data(), size);
        // The length field agrees with the datagram, so the receiver's length check lets it through.
        const auto length = static_cast<std::uint32_t>(size - OVRA::PDU_ID_AND_LENGTH_BYTES);
        std::memcpy(raw.data() + offsetof(OVRA::PDUMessage_t, length), &length, sizeof length);
        return {raw.data(), size};
    }

    std::mt19937_64 random;
    DataValidity versions; // only for the protocol version configured in ProtocolVersion.ini
    std::unique_ptr<OVRA::PDUMessage_t> message;
    std::vector<std::uint8_t> raw;
    std::uint16_t hostCounts[OVRA::NUMBER_OF_HOST_MESSAGE_IDS] = {};
    std::uint16_t internalCounts[OVRA::NUMBER_OF_INTERNAL_MESSAGE_IDS] = {};
    std::uint16_t otherCount = 0;
};

// Owns the sending socket.
class Socket {
public:
    Socket() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

void sleepUntil(std::chrono::steady_clock::time_point due) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(due.time_since_epoch()).count();
    const timespec deadline{static_cast<std::time_t>(sinceEpoch / 1000000000),
                            static_cast<long>(sinceEpoch % 1000000000)};
    // steady_clock is CLOCK_MONOTONIC. An interrupting signal ends the sleep early; the caller looks
    // at the flag before it sends.
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
}

void printReport(const Options& options, const Report& report) {
    const double seconds = std::chrono::duration<double>(report.elapsed).count();
    const double perSecond = seconds > 0.0 ? static_cast<double>(report.sent) / seconds : 0.0;
    const std::uint64_t garbage = report.garbage();
    const double garbagePercent =
        report.sent > 0 ? 100.0 * static_cast<double>(garbage) / static_cast<double>(report.sent) : 0.0;
    std::printf("vidapp-load: sent %llu datagrams of %llu in %.3f s (%.1f per second) to 127.0.0.1:%u, seed %llu\n",
                static_cast<unsigned long long>(report.sent), static_cast<unsigned long long>(report.planned), seconds,
                perSecond, static_cast<unsigned>(options.port), static_cast<unsigned long long>(options.seed));
    std::printf("  valid:   %llu (CAMERA_SUPPORT_DATA %llu, SYSTEM_APPLICATION_STATUS %llu)\n",
                static_cast<unsigned long long>(report.cameraSupport + report.systemStatus),
                static_cast<unsigned long long>(report.cameraSupport),
                static_cast<unsigned long long>(report.systemStatus));
    std::printf("  garbage: %llu (%.1f %%): unknown ID %llu, wrong payload size %llu, random bytes %llu "
                "(%llu larger than a PDU record)\n",
                static_cast<unsigned long long>(garbage), garbagePercent,
                static_cast<unsigned long long>(report.unknownId), static_cast<unsigned long long>(report.wrongSize),
                static_cast<unsigned long long>(report.randomBytes), static_cast<unsigned long long>(report.oversized));
    std::printf("  pacing:  latest send %.2f ms behind its time, %llu sends more than %lld ms behind\n",
                std::chrono::duration<double, std::milli>(report.worstLateness).count(),
                static_cast<unsigned long long>(report.lateSends), static_cast<long long>(LATE_SEND.count()));
    std::printf("  failed sends: %llu%s%s\n", static_cast<unsigned long long>(report.failed),
                report.failed != 0 ? ", first: " : "", report.failed != 0 ? std::strerror(report.firstError) : "");
    if (interrupted != 0) {
        std::printf("  interrupted before the end\n");
    }
    std::fflush(stdout);
}

void count(Kind kind, Report& report) {
    switch (kind) {
    case Kind::CAMERA_SUPPORT:
        ++report.cameraSupport;
        break;
    case Kind::SYSTEM_STATUS:
        ++report.systemStatus;
        break;
    case Kind::UNKNOWN_ID:
        ++report.unknownId;
        break;
    case Kind::WRONG_SIZE:
        ++report.wrongSize;
        break;
    case Kind::RANDOM_BYTES:
        ++report.randomBytes;
        break;
    }
}

int run(const Options& options) {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGINT, &action, nullptr);
    (void)sigaction(SIGTERM, &action, nullptr);

    const Socket socket;
    if (socket.get() < 0) {
        std::fprintf(stderr, "vidapp-load: socket() failed: %s\n", std::strerror(errno));
        return EXIT_FAILED;
    }
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    destination.sin_port = htons(options.port);

    DatagramMaker maker(options.seed);
    Report report;
    report.planned = options.datagrams();
    std::fprintf(stderr,
                 "vidapp-load: sending %llu datagrams at %llu per second to 127.0.0.1:%u (garbage %.1f %%, "
                 "seed %llu)\n",
                 static_cast<unsigned long long>(report.planned), static_cast<unsigned long long>(options.rate),
                 static_cast<unsigned>(options.port), 100.0 * options.garbageShare,
                 static_cast<unsigned long long>(options.seed));

    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < report.planned && interrupted == 0; ++i) {
        // Absolute send times: a late send does not push the ones after it.
        const auto due = start + std::chrono::nanoseconds(i * 1000000000ULL / options.rate);
        sleepUntil(due);
        if (interrupted != 0) {
            break;
        }
        const auto lateness = std::chrono::steady_clock::now() - due;
        report.worstLateness = std::max(report.worstLateness, lateness);
        if (lateness > LATE_SEND) {
            ++report.lateSends;
        }

        // Exactly the garbage share over every prefix of the run, spread evenly.
        const auto garbageDue =
            static_cast<std::uint64_t>(std::floor(static_cast<double>(i + 1) * options.garbageShare + 1e-9));
        const Kind kind = maker.chooseKind(garbageDue > report.garbage());
        const auto [bytes, size] = maker.make(kind, report);
        count(kind, report);
        const ssize_t result = OVRA::retryOnEintr([&, data = bytes, length = size] {
            return sendto(socket.get(), data, length, 0, reinterpret_cast<const sockaddr*>(&destination),
                          sizeof destination);
        });
        if (result < 0) {
            if (report.failed++ == 0) {
                report.firstError = errno;
            }
            continue;
        }
        ++report.sent;
    }
    if (interrupted == 0) {
        // The run lasts its whole last period, so that rate x time = datagrams.
        sleepUntil(start + std::chrono::nanoseconds(report.planned * 1000000000ULL / options.rate));
    }
    report.elapsed = std::chrono::steady_clock::now() - start;
    printReport(options, report);
    return report.failed == 0 && interrupted == 0 ? EXIT_OK : EXIT_FAILED;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status =
            startTool("vidapp-load", USAGE, argc, argv, options, parseOptions, printToolHelp)) {
        return *status;
    }
    return run(options);
}
