#pragma once

// Reading vidapp's frames out of the shared segment "IMAGE_FRAME", for the tools that look at them
// (vidapp-frame-dump once, vidapp-view for as long as it runs). Only ever attaches read-only.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/SharedMemory.h"
#include "video_interface/ISPFrame.h"

namespace vidapp::tools {

constexpr const char* FRAME_SEGMENT = "IMAGE_FRAME";
constexpr std::uint64_t FRAME_SLOTS = 10;

// The header fields of a slot; a frame is new when any of them changed.
struct FrameHeader {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint64_t timestamp = 0;
    std::uint32_t sequenceNumber = 0;

    bool operator==(const FrameHeader&) const = default;
    bool written() const { return width != 0 && height != 0; }
    // Whether width x height pixels of bytesPerPixel fit the slot (computed without overflow).
    bool fits(std::size_t bytesPerPixel) const {
        return static_cast<std::uint64_t>(width) * height <= ISPFrame_t::PIXELS_SIZE / bytesPerPixel;
    }
    std::size_t pixelBytes(std::size_t bytesPerPixel) const {
        return static_cast<std::size_t>(width) * height * bytesPerPixel;
    }
};

// The header as it stands now; the writer may change it at any time.
FrameHeader readHeader(const ISPFrame_t& slot);

// The result of copying a frame's pixels out of a slot that vidapp may be writing meanwhile.
struct SlotCopy {
    FrameHeader header;      // the frame the pixels belong to
    bool copied = false;     // false: the slot was never written or its header does not fit the slot
    bool consistent = false; // the header was the same before and after the last copy
    unsigned retries = 0;    // copies made again because a frame was stored meanwhile
};

// Copies the pixels of the frame in the slot into pixels (resized to fit). vidapp stores the
// pixels first and the header last, so a header that changed while the pixels were copied means
// they may mix two frames: the copy is made again, up to attempts copies in all.
SlotCopy copyPixels(const ISPFrame_t& slot, std::size_t bytesPerPixel, int attempts, std::vector<std::uint8_t>& pixels);

// Why the segment cannot be attached: the first slot object that is missing or too small, as
// "IMAGE_FRAME3: No such file or directory (2 of 10 slots exist; is vidapp running?)". Empty when
// every object is there and large enough.
std::string explainMissingSlots();

// The segment attached read-only as the system's consumers attach it (every slot, each at least
// one ISPFrame_t), with a watch on one slot's object: when vidapp stops, the objects go; when it
// starts again, new ones are made under the same names, and the mapping held here would show the
// old frame for ever. replaced() tells, so that the reader can attach anew.
// Used by one thread.
class FrameSlotReader {
public:
    explicit FrameSlotReader(std::uint64_t slotIndex = 0) : slot(slotIndex) {}

    // Attaches; throws what SharedMemory::attach throws (OVRAException).
    void attach();
    // Attaches only when every object is there and large enough (so that a segment vidapp is
    // still making is not caught half made); otherwise false with the reason in problem.
    bool attachWhenComplete(std::string& problem);
    void detach();
    bool attached() const { return segment != nullptr; }

    // True when the watched object is gone or is no longer the one mapped.
    bool replaced() const;

    const ISPFrame_t& frame() const;

private:
    struct Identity {
        dev_t device;
        ino_t inode;
        bool operator==(const Identity&) const = default;
    };
    static std::optional<Identity> identityOf(std::uint64_t slotIndex);

    std::uint64_t slot;
    std::unique_ptr<SharedMemory> segment;
    std::optional<Identity> mapped;
};

} // namespace vidapp::tools
