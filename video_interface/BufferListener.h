#pragma once

#include <cstddef>

// Told by the buffer manager that a shared frame slot holds a new frame for the consumers. The
// manager calls it on the capture thread while it holds its registry mutex, so an implementation
// must not call back into the manager's registry operations.
class BufferListener {
public:
    virtual ~BufferListener() = default;

    virtual void bufferReady(std::size_t bufferIndex) = 0;
};
