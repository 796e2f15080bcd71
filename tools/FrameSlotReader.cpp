#include "tools/FrameSlotReader.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/SystemCall.h"

namespace vidapp::tools {

namespace {

// Another process writes the header: every field is read from memory, at the time asked.
template <typename T> T readShared(const T& field) {
    return *static_cast<const volatile T*>(&field);
}

// Keeps the loads before it ahead of the loads after it (the pixels before the header's second
// read). g++ refuses fences under ThreadSanitizer, which cannot see the other process anyway: there
// the compiler is held alone, enough on x86-64, where loads keep their order.
void loadFence() {
#if defined(__SANITIZE_THREAD__)
    std::atomic_signal_fence(std::memory_order_acquire);
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
}

std::string objectName(std::uint64_t number) {
    return FRAME_SEGMENT + std::to_string(number);
}

} // namespace

FrameHeader readHeader(const ISPFrame_t& slot) {
    FrameHeader header;
    header.width = readShared(slot.width);
    header.height = readShared(slot.height);
    header.timestamp = readShared(slot.timestamp);
    header.sequenceNumber = readShared(slot.sequenceNumber);
    loadFence();
    return header;
}

SlotCopy copyPixels(const ISPFrame_t& slot, std::size_t bytesPerPixel, int attempts,
                    std::vector<std::uint8_t>& pixels) {
    SlotCopy result;
    result.header = readHeader(slot);
    for (int attempt = 1;; ++attempt) {
        if (!result.header.written() || !result.header.fits(bytesPerPixel)) {
            result.copied = false;
            result.consistent = true;
            return result;
        }
        pixels.resize(result.header.pixelBytes(bytesPerPixel));
        std::memcpy(pixels.data(), slot.pixels, pixels.size());
        loadFence();
        const FrameHeader after = readHeader(slot);
        result.copied = true;
        result.consistent = after == result.header;
        if (result.consistent || attempt >= attempts) {
            return result;
        }
        ++result.retries;
        result.header = after;
    }
}

std::string explainMissingSlots() {
    for (std::uint64_t number = 1; number <= FRAME_SLOTS; ++number) {
        const std::string object = objectName(number);
        const int fd = OVRA::retryOnEintr([&] { return shm_open(object.c_str(), O_RDONLY, 0); });
        if (fd == -1) {
            return object + ": " + std::strerror(errno) + " (" + std::to_string(number - 1) + " of " +
                   std::to_string(FRAME_SLOTS) + " slots exist; is vidapp running?)";
        }
        const off_t size = lseek(fd, 0, SEEK_END);
        close(fd);
        if (size >= 0 && static_cast<std::uint64_t>(size) < sizeof(ISPFrame_t)) {
            return object + " has " + std::to_string(size) + " bytes, a slot needs " +
                   std::to_string(sizeof(ISPFrame_t));
        }
    }
    return "";
}

void FrameSlotReader::attach() {
    detach();
    // The object is looked at before and after the attach: the same both times, it is the one
    // mapped (a replacement in between would show as a different one).
    const std::optional<Identity> before = identityOf(slot);
    auto attaching = std::make_unique<SharedMemory>(FRAME_SEGMENT, true);
    attaching->attach(sizeof(ISPFrame_t), FRAME_SLOTS, false);
    const std::optional<Identity> after = identityOf(slot);
    segment = std::move(attaching);
    mapped = before == after ? after : std::nullopt;
}

bool FrameSlotReader::attachWhenComplete(std::string& problem) {
    problem = explainMissingSlots();
    if (!problem.empty()) {
        return false;
    }
    try {
        attach();
    } catch (const std::exception& e) {
        problem = e.what();
        detach();
        return false;
    }
    if (!mapped) {
        problem = objectName(slot + 1) + " was replaced while it was attached";
        detach();
        return false;
    }
    return true;
}

void FrameSlotReader::detach() {
    segment.reset(); // built with keep: only the mappings go, never vidapp's objects
    mapped.reset();
}

bool FrameSlotReader::replaced() const {
    return !mapped || identityOf(slot) != mapped;
}

const ISPFrame_t& FrameSlotReader::frame() const {
    return *static_cast<const ISPFrame_t*>(segment->getAddress(slot));
}

std::optional<FrameSlotReader::Identity> FrameSlotReader::identityOf(std::uint64_t slotIndex) {
    const std::string object = objectName(slotIndex + 1);
    const int fd = OVRA::retryOnEintr([&] { return shm_open(object.c_str(), O_RDONLY, 0); });
    if (fd == -1) {
        return std::nullopt;
    }
    struct stat status {};
    const bool known = fstat(fd, &status) == 0;
    close(fd);
    if (!known) {
        return std::nullopt;
    }
    return Identity{status.st_dev, status.st_ino};
}

} // namespace vidapp::tools
