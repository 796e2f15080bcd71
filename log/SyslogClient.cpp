#include "log/SyslogClient.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "common/SystemCall.h"

namespace OVRA {

namespace {

constexpr const char* LOG_PATH = "/dev/log";
constexpr const char* CONSOLE_PATH = "/dev/console";
constexpr std::size_t DATAGRAM_SIZE = 2048;
constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct Connection {
    std::mutex mutex;
    const char* identity = nullptr; // mutex
    int options = 0;                // mutex
    int facility = LOG_USER;        // mutex
    int socket = -1;                // mutex
    std::uint64_t dropped = 0;      // mutex
    std::uint64_t reported = 0;     // mutex: the part of dropped already reported
};

Connection& connection() {
    static Connection instance;
    return instance;
}

void disconnect(Connection& state) {
    if (state.socket >= 0) {
        ::close(state.socket);
        state.socket = -1;
    }
}

bool connect(Connection& state) {
    if (state.socket >= 0) {
        return true;
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", LOG_PATH);
    if (retryOnEintr([&] { return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)); }) !=
        0) {
        ::close(fd);
        return false;
    }
    state.socket = fd;
    return true;
}

// "<priority>Mmm dd hh:mm:ss identity[pid]: message", as syslog(3) forms it; offset gets where the
// identity starts (what the console is given).
int format(const Connection& state, int priority, const char* message, char (&datagram)[DATAGRAM_SIZE], int& offset) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    // Before syslogOpen, the program's name, as syslog(3) has it.
    const char* identity = state.identity != nullptr ? state.identity : program_invocation_short_name;
    int length =
        std::snprintf(datagram, sizeof(datagram), "<%d>%s %2d %02d:%02d:%02d %n%s", priority, MONTHS[local.tm_mon],
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, &offset, identity);
    if ((state.options & LOG_PID) != 0) {
        length += std::snprintf(datagram + length, sizeof(datagram) - static_cast<std::size_t>(length), "[%d]",
                                static_cast<int>(::getpid()));
    }
    length += std::snprintf(datagram + length, sizeof(datagram) - static_cast<std::size_t>(length), ": %s", message);
    return std::min(length, static_cast<int>(sizeof(datagram)) - 1);
}

enum class Sent { OK, WOULD_WAIT, FAILED };

Sent sendDatagram(Connection& state, const char* datagram, int length) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!connect(state)) {
            return Sent::FAILED;
        }
        const ssize_t sent = retryOnEintr([&] {
            return ::send(state.socket, datagram, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL);
        });
        if (sent >= 0) {
            return Sent::OK;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return Sent::WOULD_WAIT;
        }
        // The logger restarted or went away: connect anew once.
        disconnect(state);
    }
    return Sent::FAILED;
}

void writeToConsole(const char* text) {
    const int fd = ::open(CONSOLE_PATH, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        (void)!::dprintf(fd, "%s\r\n", text);
        ::close(fd);
    }
}

} // namespace

void syslogOpen(const char* identity, int options, int facility) {
    Connection& state = connection();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.identity = identity;
    state.options = options;
    state.facility = facility;
    (void)connect(state);
}

void syslogClose() {
    Connection& state = connection();
    std::lock_guard<std::mutex> lock(state.mutex);
    disconnect(state);
}

bool syslogSend(int priority, const char* message) {
    Connection& state = connection();
    std::lock_guard<std::mutex> lock(state.mutex);
    if ((priority & LOG_FACMASK) == 0) {
        priority |= state.facility;
    }
    char datagram[DATAGRAM_SIZE];
    int offset = 0;
    if (state.dropped != state.reported) {
        char report[96];
        std::snprintf(report, sizeof(report), "%" PRIu64 " log records dropped: the system log was not reading",
                      state.dropped - state.reported);
        const int length = format(state, (priority & LOG_FACMASK) | LOG_WARNING, report, datagram, offset);
        if (sendDatagram(state, datagram, length) != Sent::OK) {
            ++state.dropped;
            return false;
        }
        state.reported = state.dropped;
    }
    const int length = format(state, priority, message, datagram, offset);
    switch (sendDatagram(state, datagram, length)) {
    case Sent::OK:
        return true;
    case Sent::WOULD_WAIT:
        ++state.dropped;
        return false;
    case Sent::FAILED:
        if ((state.options & LOG_CONS) != 0) {
            writeToConsole(datagram + offset);
        }
        return false;
    }
    return false;
}

std::uint64_t syslogDroppedRecords() {
    Connection& state = connection();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.dropped;
}

} // namespace OVRA
