#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "communication/CallbackHelper.h"

// The receiving end of one named UDP channel: a socket bound to udpPort on the loopback address
// 127.0.0.1 (with SO_REUSEADDR and SO_REUSEPORT, so several processes may bind the same port),
// served by a thread of its own named "InputIPCRun". The thread waits in select() on the socket
// and on a self-pipe; once the socket is readable it reads every queued datagram, one at a time,
// into the channel's buffer and hands each to the callback.
//
// start() and stop() may be called from any thread (stateMutex serialises them), but not from the
// callback. start() returns only once the receive thread is about to wait; stop() wakes it
// through the pipe, joins it and closes every descriptor, and may be called any number of times,
// also on a channel that never started. A stopped channel can be started again.
//
// Failures of the callback are counted over the channel's whole life; past handlerErrorLimit the
// channel sends SIGINT to its own process, which the application turns into an orderly stop.
// No allocation happens per datagram.
class InputIPC {
public:
    // Room for a whole PDU record (64024 bytes) with some to spare.
    static constexpr std::size_t BUFFER_SIZE = 64052;

    // The callback is not owned and must outlive the channel.
    InputIPC(CallbackHelper& callback, const std::string& channelName, std::uint16_t udpPort);
    ~InputIPC();

    InputIPC(const InputIPC&) = delete;
    InputIPC& operator=(const InputIPC&) = delete;

    // Creates the pipe and the bound socket and starts the receive thread; does nothing while
    // running. Throws CommunicationException: 1012 pipe() (or its read end not below
    // FD_SETSIZE), 1001 socket() or a socket not below FD_SETSIZE, 1014/1015 setsockopt(),
    // 1000 bind(). After a failure the channel is not running and holds no descriptor.
    void start();
    // Ends the receive thread and closes the pipe and the socket. Should the wake-up byte not be
    // written (logged as 1012), the thread keeps running on its descriptors.
    void stop();
    // Sends SIGINT to the own process once the callback has failed more than handlerErrorLimit
    // times.
    void checkShutdown() const;

private:
    void setupUDP();
    void setSocketReuse(int fd);
    void closeFD(int& fd);
    void threadMain();
    void run();
    void drainSocket(int udpFd);
    void handleDatagram(long received);
    void countHandlerError();

    const std::uint16_t udpPort;
    const std::string channelName;
    std::thread thread;
    CallbackHelper& callback;
    // Read end, write end; -1 when closed. Changed only under stateMutex while the thread is
    // not running.
    int pipeFds[2] = {-1, -1};
    int socketFd = -1;
    // Touched only by the receive thread while it runs. Past the bytes of the last datagram it
    // is always zero.
    alignas(8) unsigned char buffer[BUFFER_SIZE] = {};
    // Written by the receive thread, read by checkShutdown() from any thread. Saturates at 255.
    std::atomic<std::uint8_t> handlerErrorCount{0};
    const std::uint8_t handlerErrorLimit = 5;
    // Set by the receive thread under readyMutex once it is about to wait.
    std::atomic<bool> threadReady{false};
    // Guarded by stateMutex.
    bool running = false;
    std::atomic<bool> shutdownRequested{false};
    std::mutex readyMutex;
    std::condition_variable readyCondition;
    std::mutex stateMutex;
};
