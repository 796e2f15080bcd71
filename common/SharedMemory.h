#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

// A fixed set of equally sized buffers that other processes of the machine can map: one POSIX
// shared memory object per buffer, named "<base name><number>" with numbers counted from 1
// ("IMAGE_FRAME" gives IMAGE_FRAME1, IMAGE_FRAME2, ...). The producer creates the set; consumers
// attach to it by the same base name, buffer size and count.
//
// Any thread may call any operation: each one holds mMutex for its whole duration. The buffer
// contents are not guarded; the frame ring orders access to them.
//
// Failures throw SharedMemoryException with codes 1100 to 1107 (1023 for a call in the wrong
// state); after a throw the created/attached state is as before the call, except that detach()
// always ends detached and destroy() always ends not created. create() reserves every object's
// pages, refuses an object that is not a regular shared memory object of this process's user, and
// when it fails half way removes the objects it opened and releases what it mapped. An attach that
// fails half way releases its mappings when this object goes (or at the next attach). destroy()
// tries every name before it reports the first failure. The destructor unlinks the created objects
// unless the object was built with keep true, and always releases every mapping and descriptor it
// holds; it never throws.
class SharedMemory {
public:
    static constexpr std::size_t MAX_BUFFERS = 10;
    static constexpr std::size_t MAX_NAME_LENGTH = 25;
    // Objects are created with this mode whatever the umask.
    static constexpr unsigned OBJECT_MODE = 0640;

    // No system call. A name longer than 25 characters is cut to 25 and logged with error 1108.
    SharedMemory(const char* name, bool keep);
    ~SharedMemory();

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Creates, sizes and maps every buffer read-write. Without reuseExisting an object left by
    // an earlier run makes it fail (1100); with it that object is reused and resized. More than
    // 10 buffers creates the first 10 and then throws std::out_of_range.
    void create(std::uint64_t bufferSize, std::uint64_t numBuffers, bool reuseExisting);
    // Opens and maps existing buffers, read-only unless writable. A bufferSize larger than an
    // object throws 1104.
    void attach(std::uint64_t bufferSize, std::uint64_t numBuffers, bool writable);
    // The mapping of buffer index (from 0) of the later of create and attach that is in effect.
    void* getAddress(std::uint64_t index);
    // Unmaps and closes what attach opened; goes on past failures and throws the last one.
    void detach();
    // Removes the object names that create made; the creator's own mappings stay usable until
    // this object is destroyed.
    void destroy();

    const char* getName() const { return mName; }

private:
    static constexpr std::uint8_t STATE_CREATED = 0x1;
    static constexpr std::uint8_t STATE_ATTACHED = 0x2;
    static constexpr std::size_t OBJECT_NAME_SIZE = 28;

    // The descriptors and mappings of one create or attach call. mapped counts the leading
    // entries of addresses that hold a mapping; fds holds -1 where nothing is open.
    struct BufferSet {
        std::uint64_t bufferSize = 0;
        std::uint64_t numBuffers = 0;
        std::size_t mapped = 0;
        std::array<int, MAX_BUFFERS> fds{};
        std::array<void*, MAX_BUFFERS> addresses{};

        BufferSet() { fds.fill(-1); }
    };

    // Throws 1100 unless fd is a shared memory object of this process's user.
    void refuseForeignObject(int fd, const char* objectName) const;
    // Formats the name of buffer number (from 1); false when it does not fit.
    bool formatObjectName(char (&objectName)[OBJECT_NAME_SIZE], std::uint64_t number) const;
    // Releases every mapping and descriptor of set, logging failures; returns the last failure's
    // code (0 when none) and leaves its text in failureText.
    static std::uint32_t release(BufferSet& set, char (&failureText)[128]);

    std::uint8_t mState = 0;           // guarded by mMutex
    char mName[MAX_NAME_LENGTH + 1]{}; // set once by the constructor
    std::mutex mMutex;
    BufferSet mCreated;  // guarded by mMutex
    BufferSet mAttached; // guarded by mMutex
    // Which set getAddress reads when both are in effect: the later call's.
    bool mAttachedIsLater = false; // guarded by mMutex
    const bool mKeep;
};
