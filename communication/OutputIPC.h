#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The sending end of one named UDP channel: every sendMessage() goes out as one datagram to
// udpPort on ipAddress (the local host when it is empty). The socket is created on the first send
// and bound to a source port drawn at random from 50429..51429, so that the receiving processes
// see a stable sender; stop() closes it and the next send binds anew.
//
// The class takes no lock: its owner serialises sendMessage() and stop() on one object (the
// message hub sends under its send lock). Failures throw CommunicationException and keep the
// socket for the next send.
class OutputIPC {
public:
    static constexpr std::uint16_t FIRST_SOURCE_PORT = 50429;
    static constexpr std::uint16_t LAST_SOURCE_PORT = 51429;
    static constexpr unsigned BIND_ATTEMPTS = 20;

    OutputIPC(const std::string& channelName, std::uint16_t udpPort);
    // ipAddress is a dotted IPv4 address; it is checked on each send, not here.
    OutputIPC(const std::string& channelName, std::uint16_t udpPort, const std::string& ipAddress);
    ~OutputIPC();

    OutputIPC(const OutputIPC&) = delete;
    OutputIPC& operator=(const OutputIPC&) = delete;

    // Throws CommunicationException: 1001 for an invalid address or a failed socket(), 1000 when
    // 20 source ports in a row could not be bound (the socket is kept, and the next send goes out
    // from a port the system picks), 201 when sendto() fails.
    void sendMessage(const void* data, std::size_t lengthBytes);
    // Closes the socket, if any; safe to call repeatedly.
    void stop();

    std::string getIPCChannelName() const { return channelName; }
    std::uint16_t getUDPPort() const { return udpPort; }

private:
    void createSocket();

    const std::string channelName;
    const std::uint16_t udpPort;
    int socketFd = -1;
    const std::string ipAddress;
};
