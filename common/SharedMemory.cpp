#include "common/SharedMemory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/OVRAException.h"
#include "common/SystemCall.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

// The text of a system call failure, or the fixed fallback when it could not be formatted.
template <typename... Args> OVRAExceptionText failureText(const char* fallback, const char* format, Args... args) {
    OVRAExceptionText result = formatExceptionText(format, args...);
    if (result.text[0] == '\0') {
        std::snprintf(result.text, sizeof(result.text), "%s", fallback);
    }
    return result;
}

// Most failures are first logged as a bare error record carrying only the code.
void logCode(std::uint32_t code) {
    ovraLogImplementErrorPrintf(code, "%s", "");
}

} // namespace

SharedMemory::SharedMemory(const char* name, bool keep) : mKeep(keep) {
    const char* given = name != nullptr ? name : "";
    std::strncpy(mName, given, sizeof(mName) - 1);
    mName[sizeof(mName) - 1] = '\0';
    if (std::strlen(given) > MAX_NAME_LENGTH) {
        logCode(1108);
    }
}

SharedMemory::~SharedMemory() {
    if (!mKeep) {
        // Both log their failures before throwing; a destructor can only go on.
        try {
            detach();
        } catch (const SharedMemoryException&) {
        }
        try {
            destroy();
        } catch (const SharedMemoryException&) {
        }
    }
    // Mappings and descriptors are this process's own, so they go even when the objects stay.
    std::lock_guard<std::mutex> lock(mMutex);
    char text[128];
    release(mCreated, text);
    release(mAttached, text);
}

bool SharedMemory::formatObjectName(char (&objectName)[OBJECT_NAME_SIZE], std::uint64_t number) const {
    const int length = std::snprintf(objectName, sizeof(objectName), "%s%lu", mName, number);
    return length > 0 && static_cast<std::size_t>(length) < sizeof(objectName);
}

std::uint32_t SharedMemory::release(BufferSet& set, char (&failureText)[128]) {
    std::uint32_t failure = 0;
    for (std::size_t i = 0; i < MAX_BUFFERS; ++i) {
        if (i < set.mapped && ::munmap(set.addresses[i], set.bufferSize) != 0) {
            std::snprintf(failureText, sizeof(failureText), "SharedMemory::detach(): munmap() failed with error:[%d]",
                          errno);
            ovraLogImplementErrorPrintf(1102, "%s", failureText);
            failure = 1102;
        }
        set.addresses[i] = nullptr;
        if (set.fds[i] != -1 && ::close(set.fds[i]) != 0) {
            std::snprintf(failureText, sizeof(failureText), "SharedMemory::detach(): close() failed with error:[%d]",
                          errno);
            ovraLogImplementErrorPrintf(1103, "%s", failureText);
            failure = 1103;
        }
        set.fds[i] = -1;
    }
    set.mapped = 0;
    return failure;
}

void SharedMemory::create(std::uint64_t bufferSize, std::uint64_t numBuffers, bool reuseExisting) {
    std::lock_guard<std::mutex> lock(mMutex);
    if ((mState & STATE_CREATED) != 0) {
        throw SharedMemoryException(1023, "SharedMemory::create(): already created");
    }
    // What a create that failed half way still holds.
    char text[128];
    release(mCreated, text);
    mCreated.bufferSize = bufferSize;
    mCreated.numBuffers = numBuffers;
    mAttachedIsLater = false;
    if (numBuffers == 0) {
        mState |= STATE_CREATED;
        return;
    }

    // O_NONBLOCK: a FIFO of the same name must not hold up the start in its open.
    const int flags = O_RDWR | O_CREAT | O_NONBLOCK | (reuseExisting ? 0 : O_EXCL);
    // The objects this call has opened as its own: a create that fails half way removes them again.
    std::array<bool, MAX_BUFFERS> owned{};
    try {
        for (std::uint64_t number = 1;; ++number) {
            char objectName[OBJECT_NAME_SIZE];
            if (!formatObjectName(objectName, number)) {
                logCode(1023);
                throw OVRAException(1023, "SharedMemory::create(): snprintf() failed");
            }
            int& fd = mCreated.fds.at(number - 1);
            fd = OVRA::retryOnEintr([&] { return ::shm_open(objectName, flags, OBJECT_MODE); });
            if (fd == -1) {
                const int error = errno;
                logCode(1100);
                throw SharedMemoryException(
                    1100, failureText("SharedMemory::create(): shm_open() failed. snprintf() "
                                      "failed",
                                      "SharedMemory::create(): shm_open() failed with error:[%s]", std::strerror(error))
                              .text);
            }
            refuseForeignObject(fd, objectName);
            owned[number - 1] = true;
            // shm_open applies the umask; other processes rely on the group read bit.
            ::fchmod(fd, OBJECT_MODE);
            if (OVRA::retryOnEintr([&] { return ::ftruncate(fd, static_cast<off_t>(bufferSize)); }) == -1) {
                const int error = errno;
                logCode(1101);
                throw SharedMemoryException(1101,
                                            failureText("SharedMemory::create(): ftruncate() failed. snprintf() failed",
                                                        "SharedMemory::create(): ftruncate() failed with error:[%s]",
                                                        std::strerror(error))
                                                .text);
            }
            // The pages are taken now: a /dev/shm too small for the set fails here, at the start, rather
            // than as SIGBUS at the first store into a page that cannot be had.
            int reserved = 0;
            do {
                if (bufferSize == 0) {
                    break; // nothing to reserve (and mmap refuses the size below)
                }
                reserved = ::posix_fallocate(fd, 0, static_cast<off_t>(bufferSize));
            } while (reserved == EINTR);
            if (reserved != 0) {
                logCode(1101);
                throw SharedMemoryException(
                    1101, failureText("SharedMemory::create(): posix_fallocate() failed. snprintf() failed",
                                      "SharedMemory::create(): posix_fallocate() failed with error:[%s]",
                                      std::strerror(reserved))
                              .text);
            }
            void* address = ::mmap(nullptr, bufferSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (address == MAP_FAILED) {
                const int error = errno;
                logCode(1102);
                throw SharedMemoryException(1102, failureText("SharedMemory::create(): mmap() failed. snprinf failed.",
                                                              "SharedMemory::create(): mmap() failed with error:[%s]",
                                                              std::strerror(error))
                                                      .text);
            }
            mCreated.addresses[number - 1] = address;
            mCreated.mapped = number;
            if (number == numBuffers) {
                mState |= STATE_CREATED;
                return;
            }
        }
    } catch (...) {
        for (std::uint64_t number = 1; number <= MAX_BUFFERS; ++number) {
            char objectName[OBJECT_NAME_SIZE];
            if (owned[number - 1] && formatObjectName(objectName, number)) {
                (void)::shm_unlink(objectName);
            }
        }
        release(mCreated, text);
        throw;
    }
}

void SharedMemory::refuseForeignObject(int fd, const char* objectName) const {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        const int error = errno;
        logCode(1100);
        throw SharedMemoryException(1100, formatExceptionText("SharedMemory::create(): fstat() of %s failed with "
                                                              "error:[%s]",
                                                              objectName, std::strerror(error))
                                              .text);
    }
    if (!S_ISREG(status.st_mode)) {
        logCode(1100);
        throw SharedMemoryException(
            1100,
            formatExceptionText("SharedMemory::create(): %s is not a shared memory object: refused", objectName).text);
    }
    // An object another user made could be shrunk or read by that user at will.
    if (status.st_uid != ::geteuid()) {
        logCode(1100);
        throw SharedMemoryException(1100, formatExceptionText("SharedMemory::create(): %s is owned by user %u, not by "
                                                              "this process's user %u: refused",
                                                              objectName, static_cast<unsigned>(status.st_uid),
                                                              static_cast<unsigned>(::geteuid()))
                                              .text);
    }
}

void SharedMemory::attach(std::uint64_t bufferSize, std::uint64_t numBuffers, bool writable) {
    std::lock_guard<std::mutex> lock(mMutex);
    if ((mState & STATE_ATTACHED) != 0) {
        throw SharedMemoryException(1023, "SharedMemory::attach(): already attached");
    }
    char text[128];
    release(mAttached, text);
    mAttached.bufferSize = bufferSize;
    mAttached.numBuffers = numBuffers;
    mAttachedIsLater = true;
    if (numBuffers == 0) {
        mState |= STATE_ATTACHED;
        return;
    }

    for (std::uint64_t number = 1;; ++number) {
        char objectName[OBJECT_NAME_SIZE];
        if (!formatObjectName(objectName, number)) {
            logCode(1023);
            throw OVRAException(1023, "ShareMemory::attach():snprintf() failed.");
        }
        int& fd = mAttached.fds.at(number - 1);
        fd = OVRA::retryOnEintr([&] { return ::shm_open(objectName, writable ? O_RDWR : O_RDONLY, 0); });
        if (fd == -1) {
            throw SharedMemoryException(
                1100, failureText("SharedMemory::attach(): shm_open() failed: snprinf() failed.",
                                  "SharedMemory::attach(): shm_open failed with error:[%s]", std::strerror(errno))
                          .text);
        }
        const off_t objectSize = ::lseek(fd, 0, SEEK_END);
        if (objectSize == -1) {
            const int error = errno;
            logCode(1106);
            throw SharedMemoryException(1106, failureText("SharedMemory::attach(): lseek() failed: snprintf() failed.",
                                                          "SharedMemory::attach(): lseek() failed with error:[%s]",
                                                          std::strerror(error))
                                                  .text);
        }
        // An equal size is accepted although the text says less than.
        if (bufferSize > static_cast<std::uint64_t>(objectSize)) {
            logCode(1104);
            throw SharedMemoryException(
                1104, formatExceptionText("SharedMemory::attach(): invalid buffer size: %zu. Must be less than %zu.",
                                          static_cast<std::size_t>(bufferSize), static_cast<std::size_t>(objectSize))
                          .text);
        }
        const int protection = writable ? (PROT_READ | PROT_WRITE) : PROT_READ;
        void* address = ::mmap(nullptr, bufferSize, protection, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) {
            const int error = errno;
            logCode(1102);
            throw SharedMemoryException(1102, failureText("SharedMemory::attach(): mmap() failed. snprintf() failed.",
                                                          "SharedMemory::attach(): mmap() failed with error:[%s]",
                                                          std::strerror(error))
                                                  .text);
        }
        mAttached.addresses[number - 1] = address;
        mAttached.mapped = number;
        if (number == numBuffers) {
            mState |= STATE_ATTACHED;
            return;
        }
    }
}

void* SharedMemory::getAddress(std::uint64_t index) {
    std::lock_guard<std::mutex> lock(mMutex);
    const bool created = (mState & STATE_CREATED) != 0;
    const bool attached = (mState & STATE_ATTACHED) != 0;
    if (!created && !attached) {
        throw SharedMemoryException(1023, "SharedMemory::getAddress() error: shared memory must be created or "
                                          "attached before accessing it.");
    }
    const BufferSet& set = (attached && (!created || mAttachedIsLater)) ? mAttached : mCreated;
    if (index >= set.numBuffers) {
        // Other processes' log readers know this fixed text, so it is logged even though the
        // formatted one below works.
        ovraLogImplementErrorPrintf(1107, "SharedMemory::getAddress(): invalid buffer index. snprintf() failed");
        throw SharedMemoryException(
            1107, formatExceptionText("SharedMemory::getAddress(): invalid buffer index:[%zu]. Must be in [0,%zu)",
                                      static_cast<std::size_t>(index), static_cast<std::size_t>(set.numBuffers))
                      .text);
    }
    return set.addresses.at(index);
}

void SharedMemory::detach() {
    std::lock_guard<std::mutex> lock(mMutex);
    if ((mState & STATE_ATTACHED) == 0) {
        return;
    }
    char text[128];
    const std::uint32_t failure = release(mAttached, text);
    mState &= static_cast<std::uint8_t>(~STATE_ATTACHED);
    if (failure != 0) {
        throw SharedMemoryException(failure, text);
    }
}

void SharedMemory::destroy() {
    std::lock_guard<std::mutex> lock(mMutex);
    if ((mState & STATE_CREATED) == 0) {
        return;
    }
    // Every name is tried: one removed from outside must not keep the others.
    int firstError = 0;
    for (std::uint64_t number = 1; number <= mCreated.numBuffers; ++number) {
        char objectName[OBJECT_NAME_SIZE];
        if (!formatObjectName(objectName, number)) {
            logCode(1023);
            throw OVRAException(1023, "SharedMemory::destroy(): snprintf() failed.");
        }
        if (::shm_unlink(objectName) == -1 && firstError == 0) {
            firstError = errno;
        }
    }
    mState &= static_cast<std::uint8_t>(~STATE_CREATED);
    if (firstError != 0) {
        logCode(1105);
        throw SharedMemoryException(
            1105, failureText("SharedMemory::destroy(): shm_unlink() failed. snprintf() failed.",
                              "SharedMemory::destroy(): shm_unlink() failed with error:[%s]", std::strerror(firstError))
                      .text);
    }
}
