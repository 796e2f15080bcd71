#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vidapp::test {

// A UDP socket bound to a port on 127.0.0.1, for tests that listen to what the process sends
// (the router's 50410, the launcher's 50412, ...). Port 0 binds a free port; port() tells which.
// No SO_REUSEADDR/SO_REUSEPORT: while it lives, nobody else without both options can bind the
// port. Throws std::runtime_error when the socket cannot be set up. Use from one thread.
class UdpReceiver {
public:
    struct Datagram {
        std::vector<std::uint8_t> bytes;
        std::string sourceAddress; // dotted IPv4
        std::uint16_t sourcePort;
    };

    explicit UdpReceiver(std::uint16_t port = 0);
    ~UdpReceiver();
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;

    std::uint16_t port() const { return boundPort; }
    int fd() const { return socketFd; }

    // Waits up to timeout for the next datagram and returns its bytes; nothing on time-out.
    std::optional<std::vector<std::uint8_t>> receive(std::chrono::milliseconds timeout);
    // The same, with the sender's address.
    std::optional<Datagram> receiveFrom(std::chrono::milliseconds timeout);

private:
    int socketFd = -1;
    std::uint16_t boundPort = 0;
};

// A UDP socket that sends datagrams to a port on 127.0.0.1 from a port the system picks.
// Throws std::runtime_error when the socket cannot be created or a send fails.
class UdpSender {
public:
    explicit UdpSender(std::uint16_t port);
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    void send(const void* data, std::size_t size);
    void send(const std::vector<std::uint8_t>& bytes) { send(bytes.data(), bytes.size()); }
    // The port the datagrams come from (bound by the first send, 0 before).
    std::uint16_t sourcePort() const;

private:
    int socketFd = -1;
    std::uint16_t destinationPort;
};

} // namespace vidapp::test
