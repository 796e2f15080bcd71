#include "common/InstanceLock.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace OVRA {

InstanceLock::InstanceLock(const std::string& name) : mName(name) {}

InstanceLock::~InstanceLock() {
    if (mSocket >= 0) {
        ::close(mSocket);
    }
}

bool InstanceLock::acquire(std::string& reason) {
    if (mSocket >= 0) {
        return true;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // A leading NUL puts the name in the abstract namespace.
    if (mName.size() + 1 > sizeof(address.sun_path)) {
        reason = "the instance name \"" + mName + "\" is too long";
        return false;
    }
    std::memcpy(address.sun_path + 1, mName.data(), mName.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + mName.size());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        reason = std::string("socket() for the instance lock failed: ") + std::strerror(errno);
        return false;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        const int error = errno;
        ::close(fd);
        reason = error == EADDRINUSE
                     ? "another " + mName + " is already running (instance lock \"@" + mName + "\" is held)"
                     : "bind() of the instance lock \"@" + mName + "\" failed: " + std::strerror(error);
        return false;
    }
    mSocket = fd;
    return true;
}

} // namespace OVRA
