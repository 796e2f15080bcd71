#pragma once

// The capture loop's view of a frame store: ask for the buffer the next frame goes into, fill
// it, then hand it back. Both calls come from the one capture thread.
template <typename T> class BufferWriter {
public:
    virtual ~BufferWriter() = default;

    // The buffer the next frame is to be written into; valid until receiveBufferContents().
    virtual T* getWriteBuffer() = 0;
    // Stores the buffer just written and announces it. True when stored.
    virtual bool receiveBufferContents() = 0;
};
