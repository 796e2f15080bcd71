#include "communication/InputIPC.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SignalHandling.h"
#include "common/SystemCall.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr std::uint32_t BIND_ERROR = 1000;
constexpr std::uint32_t SOCKET_ERROR = 1001;
constexpr std::uint32_t PIPE_ERROR = 1012;
constexpr std::uint32_t SELECT_ERROR = 1013;
constexpr std::uint32_t ADDRESS_REUSE_ERROR = 1014;
constexpr std::uint32_t PORT_REUSE_ERROR = 1015;
constexpr std::uint32_t RECEIVE_ERROR = 1016;
constexpr std::uint32_t UNEXPECTED_ERROR = 1023;
constexpr std::uint32_t STANDARD_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t CLOSE_ERROR = 1103;

// The setup texts go through a 128-character buffer; longer ones are cut.
struct SetupText {
    char text[128];
    int result;
};

SetupText formatSetupText(const char* format, ...) __attribute__((format(printf, 1, 2)));

SetupText formatSetupText(const char* format, ...) {
    SetupText formatted{};
    va_list arguments;
    va_start(arguments, format);
    formatted.result = std::vsnprintf(formatted.text, sizeof(formatted.text), format, arguments);
    va_end(arguments);
    formatted.text[sizeof(formatted.text) - 1] = '\0';
    return formatted;
}

void setReuseOption(int fd, int option, std::uint32_t code, const char* format) {
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, option, &on, sizeof(on)) == 0) {
        return;
    }
    const int error = errno;
    SetupText formatted{};
    formatted.result = std::snprintf(formatted.text, sizeof(formatted.text), format, fd, std::strerror(error));
    if (formatted.result < 0) {
        throw CommunicationException(code, "InputIPC::setSocketReuse(): setsockopt() failed. snprintf() failed.");
    }
    throw CommunicationException(code, formatted.text);
}

void requestShutdown() {
    OVRA::sendSignal(getpid(), SIGINT);
}

// Keeps the receive buffer's guarantee however the callback returns: past the received bytes the
// buffer reads as zero, so only the bytes a datagram wrote need clearing.
class ZeroOnExit {
public:
    ZeroOnExit(unsigned char* start, std::size_t length) : bytes(start), size(length) {}
    ~ZeroOnExit() { std::memset(bytes, 0, size); }
    ZeroOnExit(const ZeroOnExit&) = delete;
    ZeroOnExit& operator=(const ZeroOnExit&) = delete;

private:
    unsigned char* bytes;
    std::size_t size;
};

} // namespace

InputIPC::InputIPC(CallbackHelper& receiver, const std::string& name, std::uint16_t port)
    : udpPort(port), channelName(name), callback(receiver) {}

InputIPC::~InputIPC() {
    try {
        stop();
    } catch (const std::exception& e) {
        std::cerr << "InputIPC() destructor exception: Channel: " << channelName << ". Exception: " << e.what()
                  << std::endl;
    } catch (...) {
        std::cerr << "InputIPC() destructor exception: Channel: " << channelName << ". Exception: unexpected exception"
                  << std::endl;
    }
}

void InputIPC::start() {
    std::lock_guard<std::mutex> stateLock(stateMutex);
    if (running) {
        return;
    }
    try {
        closeFD(pipeFds[0]);
        closeFD(pipeFds[1]);
        if (pipe2(pipeFds, O_CLOEXEC) != 0) {
            const int error = errno;
            pipeFds[0] = pipeFds[1] = -1;
            throw CommunicationException(PIPE_ERROR,
                                         formatSetupText("InputIPC.start(): channel [%s], pipe() errno: %d (%s)",
                                                         channelName.c_str(), error, std::strerror(error))
                                             .text);
        }
        if (pipeFds[0] >= FD_SETSIZE) {
            throw CommunicationException(PIPE_ERROR,
                                         formatSetupText("InputIPC.start(): channel [%s], pipe fd:%d must be less "
                                                         "than FD_SETSIZE: %d",
                                                         channelName.c_str(), pipeFds[0], FD_SETSIZE)
                                             .text);
        }
        setupUDP();

        std::unique_lock<std::mutex> readyLock(readyMutex);
        threadReady = false;
        thread = std::thread(&InputIPC::threadMain, this);
        readyCondition.wait(readyLock, [this] { return threadReady.load(); });
    } catch (...) {
        // Nothing of a failed start stays open.
        closeFD(pipeFds[0]);
        closeFD(pipeFds[1]);
        closeFD(socketFd);
        throw;
    }
    running = true;
}

void InputIPC::stop() {
    std::lock_guard<std::mutex> stateLock(stateMutex);
    shutdownRequested = true;
    if (running) {
        const char quit = 'q';
        if (OVRA::retryOnEintr([&] { return write(pipeFds[1], &quit, 1); }) == 1) {
            thread.join();
            running = false;
        } else {
            const int error = errno;
            ovraLogImplementErrorPrintf(PIPE_ERROR, "InputIPC.stop(): channel [%s], write() errno: %d (%s)",
                                        channelName.c_str(), error, std::strerror(error));
            // The thread still waits on these descriptors: closing them under it would turn its
            // select() into a loop of errors.
            return;
        }
    }
    closeFD(pipeFds[0]);
    closeFD(pipeFds[1]);
    closeFD(socketFd);
}

void InputIPC::checkShutdown() const {
    if (handlerErrorCount.load(std::memory_order_relaxed) > handlerErrorLimit) {
        requestShutdown();
    }
}

void InputIPC::setupUDP() {
    closeFD(socketFd);
    socketFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd == -1) {
        const int error = errno;
        throw CommunicationException(SOCKET_ERROR,
                                     formatSetupText("InputIPC::setupUDP(): channel [%s], upd port:%d, socket() "
                                                     "errno: %d (%s)",
                                                     channelName.c_str(), udpPort, error, std::strerror(error))
                                         .text);
    }
    if (socketFd >= FD_SETSIZE) {
        // The text names the port where it says "socket fd"; log readers know it so.
        throw CommunicationException(SOCKET_ERROR,
                                     formatSetupText("InputIPC::setupUDP(): channel [%s], socket fd:%d must be less "
                                                     "than FD_SETSIZE: %d",
                                                     channelName.c_str(), udpPort, FD_SETSIZE)
                                         .text);
    }
    setSocketReuse(socketFd);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    // The processes of the system meet on the local host; nothing from the vehicle's network is
    // taken, so a stranger's datagrams cannot reach the fail-safe count that stops the process.
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(udpPort);
    if (bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        throw CommunicationException(BIND_ERROR,
                                     formatSetupText("InputIPC::setupUDP(): channel [%s], upd port:%d, bind() "
                                                     "errno: %d (%s)",
                                                     channelName.c_str(), udpPort, error, std::strerror(error))
                                         .text);
    }
}

void InputIPC::setSocketReuse(int fd) {
    setReuseOption(fd, SO_REUSEADDR, ADDRESS_REUSE_ERROR, "FD %d address reuse:%s");
    setReuseOption(fd, SO_REUSEPORT, PORT_REUSE_ERROR, "FD %d port reuse:%s");
}

void InputIPC::closeFD(int& fd) {
    // Descriptor 0 is never ours to close.
    if (fd > 0 && close(fd) != 0) {
        const int error = errno;
        ovraLogImplementErrorPrintf(CLOSE_ERROR, "InputIPC::closeFD(): fd: %d, close() errno: %d (%s)", fd, error,
                                    std::strerror(error));
    }
    fd = -1;
}

void InputIPC::threadMain() {
    pthread_setname_np(pthread_self(), "InputIPCRun");
    try {
        run();
        return;
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "InputIPC.run(): %s", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "InputIPC.run(): %s", e.what());
    } catch (...) {
        ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "InputIPC.run(): general unexpected exception");
    }
    requestShutdown();
    // start() must not wait for a thread that failed before it was ready.
    {
        std::lock_guard<std::mutex> readyLock(readyMutex);
        threadReady = true;
    }
    readyCondition.notify_one();
}

void InputIPC::run() {
    shutdownRequested = false;
    // The descriptors do not change while the thread runs; stop() closes them only after the join.
    const int pipeReadFd = pipeFds[0];
    const int udpFd = socketFd;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(pipeReadFd, &readSet);
    FD_SET(udpFd, &readSet);
    const int width = std::max(pipeReadFd, udpFd) + 1;
    {
        std::lock_guard<std::mutex> readyLock(readyMutex);
        threadReady = true;
    }
    readyCondition.notify_one();

    while (!shutdownRequested) {
        fd_set readable = readSet;
        if (OVRA::retryOnEintr([&] { return select(width, &readable, nullptr, nullptr, nullptr); }) == -1) {
            const int error = errno;
            if (error != EINTR) {
                ovraLogImplementErrorPrintf(SELECT_ERROR, "InputIPC.run(): select() errno: %d (%s)", error,
                                            std::strerror(error));
            }
            continue;
        }
        if (FD_ISSET(pipeReadFd, &readable)) {
            shutdownRequested = true;
            continue;
        }
        if (!FD_ISSET(udpFd, &readable)) {
            ovraLogImplementErrorPrintf(SELECT_ERROR, "select() returned without ready file descriptor!");
            continue;
        }
        drainSocket(udpFd);
    }
}

void InputIPC::drainSocket(int udpFd) {
    // Everything already queued is read before the next select(): one select() per burst rather
    // than per datagram, which would cost more than the datagram itself. stop() sets the flag
    // before it writes the pipe, so a flood does not delay it.
    while (!shutdownRequested.load(std::memory_order_relaxed)) {
        sockaddr_in source{};
        socklen_t sourceLength = sizeof(source);
        // MSG_TRUNC: the result is the datagram's real length, even when it did not fit.
        const ssize_t received = OVRA::retryOnEintr([&] {
            return recvfrom(udpFd, buffer, BUFFER_SIZE, MSG_TRUNC | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&source),
                            &sourceLength);
        });
        if (received == -1) {
            const int error = errno;
            if (error != EAGAIN && error != EWOULDBLOCK && error != EINTR) {
                ovraLogImplementErrorPrintf(RECEIVE_ERROR, "InputIPC.run(): recvfrom() errno: %d (%s)", error,
                                            std::strerror(error));
            }
            return;
        }
        if (received > 0) {
            handleDatagram(received);
        }
    }
}

void InputIPC::handleDatagram(long received) {
    const ZeroOnExit zero(buffer, std::min(static_cast<std::size_t>(received), BUFFER_SIZE));
    try {
        callback.messageHandler(buffer, static_cast<unsigned long>(received));
        return;
    } catch (const OVRAException& e) {
        countHandlerError();
        ovraLogImplementErrorPrintf(e.getCode(), "messageHandler exception: %s", e.what());
    } catch (const std::exception& e) {
        countHandlerError();
        ovraLogImplementErrorPrintf(STANDARD_EXCEPTION_ERROR, "messageHandler exception: %s", e.what());
    } catch (...) {
        countHandlerError();
        ovraLogImplementErrorPrintf(UNEXPECTED_ERROR, "messageHandler exception: unexpected exception");
    }
    checkShutdown();
}

void InputIPC::countHandlerError() {
    const std::uint8_t count = handlerErrorCount.load(std::memory_order_relaxed);
    if (count < UINT8_MAX) {
        handlerErrorCount.store(static_cast<std::uint8_t>(count + 1), std::memory_order_relaxed);
    }
}
