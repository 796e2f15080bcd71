#pragma once

#include <cstddef>

namespace OVRA {

// Lets the process write into a shared mapping that another process may shrink under it. A store to
// a page beyond the end of a shrunken object raises SIGBUS, which would kill the process; while a
// guard stands, such a fault inside its range (on any thread, the library's workers included) is
// answered by putting a private zero page in place of the lost one, so the store goes on harmlessly,
// and the guard reports it. The mapping then no longer shows the object: its owner must stop using
// it. A fault outside the range kills the process as before (or goes to the handler that was there
// first). One guard at a time in a process; the thread that builds it destroys it.
class MappingFaultGuard {
public:
    MappingFaultGuard(void* address, std::size_t size);
    ~MappingFaultGuard();

    MappingFaultGuard(const MappingFaultGuard&) = delete;
    MappingFaultGuard& operator=(const MappingFaultGuard&) = delete;

    // True when a store inside the range met the end of the object since the guard was built.
    bool faulted() const;
};

} // namespace OVRA
