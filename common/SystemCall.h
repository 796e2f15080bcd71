#pragma once

#include <cerrno>

namespace OVRA {

// Calls a system call again when a signal interrupted it, a bounded number of times, and leaves
// errno as the last attempt set it. Never use it for close(): a retried close may close a
// descriptor that another thread has just been given.
template <typename Call>
auto retryOnEintr(Call&& call) -> decltype(call()) {
    constexpr int MAX_ATTEMPTS = 1000;
    int attempts = 0;
    auto result = call();
    while (result == -1 && errno == EINTR && ++attempts < MAX_ATTEMPTS) {
        result = call();
    }
    return result;
}

} // namespace OVRA
