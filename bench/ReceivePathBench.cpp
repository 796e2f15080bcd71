// Datagrams per second through InputIPC into a callback, against a plain blocking recvfrom() loop
// on a thread of its own, both fed by the same sender on the machine's loopback and counting each
// datagram the same way.
//
// Streaming: the sender (the benchmark thread) sends batches small enough for the default socket
// receive buffer and waits for each batch to be delivered, so nothing is dropped; a batch that
// does not complete within a second fails the run instead of inflating the rate. The rate depends
// on how sender and receiver wake each other, as in the running system.
//
// Backlog: the receive thread is held after the first datagram of each batch until the rest of the
// batch waits in the socket, then drains it; the time is taken on the receive thread from release
// to the last datagram. This is the cost of the receive path itself, without wake-ups.
//
// rx_cpu_ns is the receive thread's CPU time per datagram over the whole run.

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <netinet/in.h>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "communication/InputIPC.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t DATAGRAMS_PER_ITERATION = 20000;
// 64 datagrams of 1024 bytes fit the default receive buffer (212992 bytes) with room to spare.
constexpr std::size_t BATCH = 64;
constexpr auto BATCH_DEADLINE = std::chrono::seconds(1);

enum Mode : std::int64_t { STREAMING = 0, BACKLOG = 1 };

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

sockaddr_in address(std::uint32_t host, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(host);
    result.sin_port = htons(port);
    return result;
}

std::uint16_t boundPort(int fd) {
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        fail("getsockname");
    }
    return ntohs(bound.sin_port);
}

// A port on all local addresses that nobody holds right now (the system's choice of a free one).
std::uint16_t freePort() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in any = address(INADDR_ANY, 0);
    if (fd == -1 || bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0) {
        fail("probe socket");
    }
    const std::uint16_t port = boundPort(fd);
    close(fd);
    return port;
}

double threadCpuNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Shared by the receive thread (delivered()) and the benchmark thread (the rest). Per datagram it
// costs one atomic increment and two atomic loads, the same for both receivers; the mutex is
// taken once or twice per batch only.
class DeliveryCounter {
public:
    void delivered() {
        const std::size_t count = deliveredCount.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (count == gateAt.load(std::memory_order_acquire)) {
            park();
        }
        if (count >= target.load(std::memory_order_acquire)) {
            const auto end = Clock::now();
            std::lock_guard<std::mutex> lock(mutex);
            if (draining) {
                drainTime += end - drainStart;
                draining = false;
            }
            changed.notify_all();
        }
    }

    // The next batch ends at total; with hold, the receive thread waits after datagram holdAt.
    void arm(std::size_t total, std::size_t holdAt) {
        target.store(total, std::memory_order_release);
        gateAt.store(holdAt, std::memory_order_release);
    }

    bool waitUntilHeld() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, BATCH_DEADLINE, [&] { return held; });
    }

    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            held = false;
        }
        changed.notify_all();
    }

    bool waitFor(std::size_t total) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, BATCH_DEADLINE,
                                [&] { return deliveredCount.load(std::memory_order_acquire) >= total && !draining; });
    }

    std::size_t count() const { return deliveredCount.load(std::memory_order_acquire); }

    Clock::duration totalDrainTime() {
        std::lock_guard<std::mutex> lock(mutex);
        return drainTime;
    }

private:
    void park() {
        std::unique_lock<std::mutex> lock(mutex);
        held = true;
        changed.notify_all();
        changed.wait(lock, [&] { return !held; });
        draining = true;
        drainStart = Clock::now();
    }

    std::atomic<std::size_t> deliveredCount{0};
    std::atomic<std::size_t> target{SIZE_MAX};
    std::atomic<std::size_t> gateAt{0};
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    bool held = false;
    bool draining = false;
    Clock::time_point drainStart;
    Clock::duration drainTime{};
};

class Sender {
public:
    Sender(std::uint16_t port, std::size_t size) : payload(size, 0x5a) {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_in destination = address(INADDR_LOOPBACK, port);
        if (fd == -1 || connect(fd, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)) != 0) {
            fail("sender socket");
        }
    }
    ~Sender() { close(fd); }

    void sendOne() {
        if (send(fd, payload.data(), payload.size(), 0) != static_cast<ssize_t>(payload.size())) {
            fail("send");
        }
    }

private:
    int fd = -1;
    std::vector<unsigned char> payload;
};

// The benchmark loop shared by both receivers.
void sendAndCount(benchmark::State& state, Sender& sender, DeliveryCounter& counter, clockid_t receiverClock) {
    const bool backlog = state.range(1) == BACKLOG;
    std::size_t sent = counter.count();
    std::int64_t datagrams = 0;
    const double cpuBefore = threadCpuNs(receiverClock);
    for (auto _ : state) {
        const auto drainBefore = counter.totalDrainTime();
        for (std::size_t done = 0; done < DATAGRAMS_PER_ITERATION; done += BATCH) {
            counter.arm(sent + BATCH, backlog ? sent + 1 : 0);
            for (std::size_t i = 0; i < BATCH; ++i) {
                sender.sendOne();
            }
            sent += BATCH;
            if (backlog) {
                if (!counter.waitUntilHeld()) {
                    state.SkipWithError("the first datagram of a batch was dropped");
                    return;
                }
                counter.release();
            }
            if (!counter.waitFor(sent)) {
                state.SkipWithError("datagrams were dropped");
                return;
            }
        }
        if (backlog) {
            state.SetIterationTime(std::chrono::duration<double>(counter.totalDrainTime() - drainBefore).count());
            datagrams += static_cast<std::int64_t>(DATAGRAMS_PER_ITERATION / BATCH * (BATCH - 1));
        } else {
            datagrams += static_cast<std::int64_t>(DATAGRAMS_PER_ITERATION);
        }
    }
    state.SetItemsProcessed(datagrams);
    state.SetBytesProcessed(datagrams * state.range(0));
    state.counters["rx_cpu_ns"] =
        (threadCpuNs(receiverClock) - cpuBefore) / static_cast<double>(state.iterations() * DATAGRAMS_PER_ITERATION);
}

clockid_t ownCpuClock() {
    clockid_t own{};
    pthread_getcpuclockid(pthread_self(), &own);
    return own;
}

void BM_PlainRecvfrom(benchmark::State& state) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in local = address(INADDR_LOOPBACK, 0);
    if (fd == -1 || bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        fail("receiver socket");
    }
    DeliveryCounter counter;
    std::atomic<clockid_t> receiverClock{};
    std::atomic<bool> clockKnown{false};
    std::thread receiver([&] {
        pthread_setname_np(pthread_self(), "plainRecv");
        receiverClock = ownCpuClock();
        clockKnown = true;
        clockKnown.notify_one();
        std::vector<unsigned char> buffer(InputIPC::BUFFER_SIZE);
        for (;;) {
            sockaddr_in source{};
            socklen_t sourceLength = sizeof(source);
            const ssize_t received = recvfrom(fd, buffer.data(), buffer.size(), MSG_TRUNC,
                                              reinterpret_cast<sockaddr*>(&source), &sourceLength);
            if (received == 0) {
                return; // the empty datagram that ends the run
            }
            if (received > 0) {
                counter.delivered();
            }
        }
    });
    clockKnown.wait(false);

    {
        Sender sender(boundPort(fd), static_cast<std::size_t>(state.range(0)));
        sendAndCount(state, sender, counter, receiverClock.load());
    }

    const sockaddr_in self = address(INADDR_LOOPBACK, boundPort(fd));
    sendto(fd, "", 0, 0, reinterpret_cast<const sockaddr*>(&self), sizeof(self));
    receiver.join();
    close(fd);
}

class CountingCallback : public CallbackHelper {
public:
    explicit CountingCallback(DeliveryCounter& deliveries) : counter(deliveries) {}

    void messageHandler(void*, unsigned long) override {
        if (!clockKnown.load(std::memory_order_relaxed)) {
            receiverClock = ownCpuClock();
            clockKnown.store(true, std::memory_order_release);
        }
        counter.delivered();
    }

    std::atomic<clockid_t> receiverClock{};
    std::atomic<bool> clockKnown{false};

private:
    DeliveryCounter& counter;
};

void BM_InputIPC(benchmark::State& state) {
    DeliveryCounter counter;
    CountingCallback callback(counter);
    const std::uint16_t port = freePort();
    InputIPC channel(callback, "bench", port);
    channel.start();
    Sender sender(port, static_cast<std::size_t>(state.range(0)));

    // One datagram first, so that the callback knows the receive thread's clock.
    counter.arm(1, 0);
    sender.sendOne();
    if (!counter.waitFor(1)) {
        state.SkipWithError("first datagram lost");
        return;
    }
    sendAndCount(state, sender, counter, callback.receiverClock.load());
    channel.stop();
}

void streaming(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"bytes", "backlog"})->Args({48, STREAMING})->Args({1024, STREAMING});
    benchmark->UseRealTime()->MinTime(1.0);
}

void backlog(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"bytes", "backlog"})->Args({48, BACKLOG})->Args({1024, BACKLOG});
    benchmark->UseManualTime()->MinTime(1.0);
}

BENCHMARK(BM_PlainRecvfrom)->Apply(streaming);
BENCHMARK(BM_InputIPC)->Apply(streaming);
BENCHMARK(BM_PlainRecvfrom)->Apply(backlog);
BENCHMARK(BM_InputIPC)->Apply(backlog);

} // namespace

BENCHMARK_MAIN();
