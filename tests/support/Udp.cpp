#include "tests/support/Udp.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace vidapp::test {

namespace {

// Larger than any UDP datagram.
constexpr std::size_t MAX_DATAGRAM = 65536;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

} // namespace

UdpReceiver::UdpReceiver(std::uint16_t port) {
    socketFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd == -1) {
        fail("UdpReceiver: socket()");
    }
    sockaddr_in address = loopback(port);
    socklen_t length = sizeof(address);
    if (bind(socketFd, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(socketFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = errno;
        close(socketFd);
        errno = error;
        fail("UdpReceiver: bind() to port " + std::to_string(port));
    }
    boundPort = ntohs(address.sin_port);
}

UdpReceiver::~UdpReceiver() {
    close(socketFd);
}

std::optional<std::vector<std::uint8_t>> UdpReceiver::receive(std::chrono::milliseconds timeout) {
    auto datagram = receiveFrom(timeout);
    if (!datagram) {
        return std::nullopt;
    }
    return std::move(datagram->bytes);
}

std::optional<UdpReceiver::Datagram> UdpReceiver::receiveFrom(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{socketFd, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::max<long>(left.count(), 0)));
        if (ready == -1 && errno == EINTR) {
            continue;
        }
        if (ready == -1) {
            fail("UdpReceiver: poll()");
        }
        if (ready == 0) {
            return std::nullopt;
        }
        Datagram datagram{std::vector<std::uint8_t>(MAX_DATAGRAM), {}, 0};
        sockaddr_in source{};
        socklen_t sourceLength = sizeof(source);
        const ssize_t received = recvfrom(socketFd, datagram.bytes.data(), datagram.bytes.size(), 0,
                                          reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (received == -1 && errno == EINTR) {
            continue;
        }
        if (received == -1) {
            fail("UdpReceiver: recvfrom()");
        }
        datagram.bytes.resize(static_cast<std::size_t>(received));
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &source.sin_addr, text, sizeof(text));
        datagram.sourceAddress = text;
        datagram.sourcePort = ntohs(source.sin_port);
        return datagram;
    }
}

UdpSender::UdpSender(std::uint16_t port) : destinationPort(port) {
    socketFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd == -1) {
        fail("UdpSender: socket()");
    }
}

UdpSender::~UdpSender() {
    close(socketFd);
}

void UdpSender::send(const void* data, std::size_t size) {
    const sockaddr_in destination = loopback(destinationPort);
    ssize_t sent;
    do {
        sent = sendto(socketFd, data, size, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
    } while (sent == -1 && errno == EINTR);
    if (sent == -1) {
        fail("UdpSender: sendto() port " + std::to_string(destinationPort));
    }
}

std::uint16_t UdpSender::sourcePort() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(socketFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        fail("UdpSender: getsockname()");
    }
    return ntohs(address.sin_port);
}

} // namespace vidapp::test
