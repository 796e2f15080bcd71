#include "common/MappingFaultGuard.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

namespace OVRA {

namespace {

std::atomic<std::uintptr_t> guardedBegin{0};
std::atomic<std::uintptr_t> guardedEnd{0};
std::atomic<bool> guardedFault{false};
std::uintptr_t pageSize = 4096;
struct sigaction previousAction {};

void onSigbus(int signalNumber, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    if (address >= guardedBegin.load() && address < guardedEnd.load()) {
        const std::uintptr_t page = address & ~(pageSize - 1);
        void* replaced = ::mmap(reinterpret_cast<void*>(page), pageSize, PROT_READ | PROT_WRITE,
                                MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (replaced != MAP_FAILED) {
            guardedFault.store(true);
            return; // the store is tried again, on the new page
        }
    }
    if ((previousAction.sa_flags & SA_SIGINFO) != 0 && previousAction.sa_sigaction != nullptr) {
        previousAction.sa_sigaction(signalNumber, info, context);
        return;
    }
    if (previousAction.sa_handler != SIG_DFL && previousAction.sa_handler != SIG_IGN) {
        previousAction.sa_handler(signalNumber);
        return;
    }
    // Not ours: the faulting store is tried again and ends the process as it always did.
    ::signal(SIGBUS, SIG_DFL);
}

void installHandler() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
        struct sigaction action {};
        action.sa_sigaction = onSigbus;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGBUS, &action, &previousAction);
    });
}

} // namespace

MappingFaultGuard::MappingFaultGuard(void* address, std::size_t size) {
    installHandler();
    guardedFault.store(false);
    const auto begin = reinterpret_cast<std::uintptr_t>(address);
    guardedBegin.store(begin);
    guardedEnd.store(begin + size);
}

MappingFaultGuard::~MappingFaultGuard() {
    guardedEnd.store(0);
    guardedBegin.store(0);
}

bool MappingFaultGuard::faulted() const {
    return guardedFault.load();
}

} // namespace OVRA
