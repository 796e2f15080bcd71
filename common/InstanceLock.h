#pragma once

#include <string>

namespace OVRA {

// Holds a machine-wide name for the life of the process, so that a second copy of a process can
// refuse to start before it touches anything the first one uses. The name is an address in the
// abstract AF_UNIX namespace: the kernel releases it when the process ends, however it ends, and
// nothing is left in the file system. It is private to the network namespace, as the process's
// UDP ports are. Main thread only; the destructor releases the name and never throws.
class InstanceLock {
public:
    explicit InstanceLock(const std::string& name);
    ~InstanceLock();

    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // Takes the name; false with reason filled when another process holds it or a call failed.
    bool acquire(std::string& reason);

private:
    const std::string mName;
    int mSocket = -1;
};

} // namespace OVRA
