#include "communication/OutputIPC.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SystemCall.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr std::uint32_t SEND_ERROR = 201;
constexpr std::uint32_t BIND_ERROR = 1000;
constexpr std::uint32_t SOCKET_ERROR = 1001;
constexpr std::uint32_t CLOSE_ERROR = 1103;

using MinimalStandardEngine = std::linear_congruential_engine<std::uint64_t, 16807, 0, 2147483647>;

std::uint64_t portSeed() {
    const auto now_us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::uint64_t seed = static_cast<std::uint64_t>(now_us.count()) % 2147483647U;
    return seed == 0 ? 1 : seed;
}

} // namespace

OutputIPC::OutputIPC(const std::string& name, std::uint16_t port) : OutputIPC(name, port, "") {}

OutputIPC::OutputIPC(const std::string& name, std::uint16_t port, const std::string& address)
    : channelName(name), udpPort(port), ipAddress(address) {}

OutputIPC::~OutputIPC() {
    try {
        stop();
    } catch (const std::exception& e) {
        // The misspelt class name is what log readers search for.
        std::cerr << "OuputIPC() destructor exception: Channel: " << channelName << ". Exception: " << e.what()
                  << std::endl;
    } catch (...) {
        std::cerr << "OuputIPC() destructor exception: Channel: " << channelName << ". Exception: unexpected exception"
                  << std::endl;
    }
}

void OutputIPC::sendMessage(const void* data, std::size_t lengthBytes) {
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(udpPort);
    if (ipAddress.empty()) {
        destination.sin_addr.s_addr = htonl(INADDR_ANY);
    } else if (inet_pton(AF_INET, ipAddress.c_str(), &destination.sin_addr) != 1) {
        // inet_pton() sets no errno for a malformed address: the text shows whatever errno holds.
        throw CommunicationException(SOCKET_ERROR,
                                     formatExceptionText("Invalid IP address: %s", std::strerror(errno)).text);
    }

    if (socketFd == -1) {
        createSocket();
    }

    const ssize_t sent = OVRA::retryOnEintr([&] {
        return sendto(socketFd, data, lengthBytes, 0, reinterpret_cast<const sockaddr*>(&destination),
                      sizeof(destination));
    });
    if (sent == -1) {
        const int error = errno;
        throw CommunicationException(
            SEND_ERROR, formatExceptionText("OutputIPC.sendMessage(): sendto() failed: port: %u, lengthBytes:%zu, "
                                            "errno: %d (%s)",
                                            static_cast<unsigned>(udpPort), lengthBytes, error, std::strerror(error))
                            .text);
    }
}

void OutputIPC::createSocket() {
    socketFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd == -1) {
        throw CommunicationException(
            SOCKET_ERROR,
            formatExceptionText("OutputIPC.sendMessage(): socket() sys call failure: %s", std::strerror(errno)).text);
    }

    MinimalStandardEngine engine(portSeed());
    std::uniform_int_distribution<unsigned short> sourcePorts(FIRST_SOURCE_PORT, LAST_SOURCE_PORT);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(INADDR_ANY);
    unsigned short port = sourcePorts(engine);
    for (unsigned attempt = 1;; ++attempt) {
        source.sin_port = htons(port);
        if (bind(socketFd, reinterpret_cast<const sockaddr*>(&source), sizeof(source)) == 0) {
            return;
        }
        const int error = errno;
        // The text names the port drawn after the last failure, which was never tried.
        port = sourcePorts(engine);
        if (attempt == BIND_ATTEMPTS) {
            // The unbound socket stays: the next send lets the system pick the source port.
            throw CommunicationException(
                BIND_ERROR, formatExceptionText("OutputIPC::sendMessage() bind failure after %u trying: channel [%s], "
                                                "upd port:%d, bind() errno: %d (%s)",
                                                BIND_ATTEMPTS, channelName.c_str(), port, error, std::strerror(error))
                                .text);
        }
    }
}

void OutputIPC::stop() {
    if (socketFd == -1) {
        return;
    }
    if (close(socketFd) != 0) {
        ovraLogImplementErrorPrintf(CLOSE_ERROR, "~OutputIPC(): channel:[%s], close() failed: %s", channelName.c_str(),
                                    std::strerror(errno));
    }
    socketFd = -1;
}
