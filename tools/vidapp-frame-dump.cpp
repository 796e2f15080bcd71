// vidapp-frame-dump: shows what vidapp last wrote into a slot of the shared frame segment
// "IMAGE_FRAME": the slot's header, and on request its pixels as a PNG or PGM file. It only
// attaches, read-only, so it can look at a running vidapp without disturbing it.

#include <cstdint>
#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/OVRAException.h"
#include "tools/FrameSlotReader.h"
#include "tools/ToolSupport.h"
#include "video_interface/ISPFrame.h"
#include "video_interface/Image.h"

namespace {

using namespace vidapp::tools;

constexpr const char* USAGE =
    "usage: vidapp-frame-dump [--slot N] [--channels 1|3] [--output FILE.png|FILE.pgm] | --help\n";
// A writer that is storing a frame while it is copied out gets this many more tries.
constexpr int COPY_ATTEMPTS = 5;

void printToolHelp() {
    std::printf("%s", USAGE);
    std::printf("Prints the header of one slot of the shared frame segment %s (width, height, sequence\n"
                "number, time stamp) and writes its pixels to a file.\n"
                "\n"
                "  --slot N         the slot, 0..%llu (default 0, the one vidapp writes)\n"
                "  --channels 1|3   bytes per pixel: 3 for the camera's BGR (default), 1 for grey\n"
                "  --output FILE    write the pixels: FILE.png (grey or colour) or FILE.pgm (grey; a\n"
                "                   3-channel slot is converted); without it only the header is printed\n"
                "  --help           print this text\n"
                "\n"
                "Exit status: 0 done, 1 no segment, a slot never written or a header that does not fit\n"
                "the slot, or the file could not be written; 2 usage error.\n",
                FRAME_SEGMENT, static_cast<unsigned long long>(FRAME_SLOTS - 1));
}

enum class Format { None, Png, Pgm };

struct Options {
    std::uint64_t slot = 0;
    std::uint64_t channels = 3;
    std::string output;
    Format format = Format::None;
    bool help = false;
};

// The file format from the output file's extension, in any case.
Format formatOf(const std::string& file) {
    const std::size_t dot = file.rfind('.');
    if (dot == std::string::npos || file.find('/', dot) != std::string::npos) {
        return Format::None;
    }
    std::string extension = file.substr(dot + 1);
    for (char& c : extension) {
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    if (extension == "png") {
        return Format::Png;
    }
    if (extension == "pgm") {
        return Format::Pgm;
    }
    return Format::None;
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const OptionText option = splitOption(argv[i]);
        const bool takesValue = option.name == "--slot" || option.name == "--channels" || option.name == "--output";
        std::string value;
        if (!readOptionValue(option, takesValue, argc, argv, i, value, error)) {
            return false;
        }

        if (option.name == "--slot") {
            const std::optional<std::uint64_t> slot = parseUnsigned(value, 0, FRAME_SLOTS - 1);
            if (!slot) {
                error = "--slot takes 0.." + std::to_string(FRAME_SLOTS - 1) + ", not '" + value + "'";
                return false;
            }
            options.slot = *slot;
        } else if (option.name == "--channels") {
            const std::optional<std::uint64_t> channels = parseUnsigned(value, 1, 3);
            if (!channels || *channels == 2) {
                error = "--channels takes 1 or 3, not '" + value + "'";
                return false;
            }
            options.channels = *channels;
        } else if (option.name == "--output") {
            options.format = formatOf(value);
            if (options.format == Format::None) {
                error = "--output needs a file name ending in .png or .pgm, not '" + value + "'";
                return false;
            }
            options.output = value;
        } else if (option.name == "--help" || option.name == "-h") {
            options.help = true;
        } else {
            error = "unknown argument '" + option.name + "'";
            return false;
        }
    }
    return true;
}

// After a failed attach: which object is missing or too small, since the error names none.
void explainAttachFailure(const OVRAException& e) {
    std::fprintf(stderr, "vidapp-frame-dump: cannot attach the frame segment %s (%llu slots of %zu bytes): %s\n",
                 FRAME_SEGMENT, static_cast<unsigned long long>(FRAME_SLOTS), sizeof(ISPFrame_t), e.what());
    const std::string missing = explainMissingSlots();
    if (!missing.empty()) {
        std::fprintf(stderr, "vidapp-frame-dump: %s\n", missing.c_str());
    }
}

// Writes the pixels in the format of the file name; false with the reason on standard error.
bool writeImage(const Options& options, const FrameHeader& frame, std::vector<std::uint8_t>& bytes) {
    const int type = options.channels == 3 ? CV_8UC3 : CV_8UC1;
    const cv::Mat pixels(static_cast<int>(frame.height), static_cast<int>(frame.width), type, bytes.data());
    try {
        if (options.format == Format::Png) {
            if (!cv::imwrite(options.output, pixels)) {
                std::fprintf(stderr, "vidapp-frame-dump: cannot write %s\n", options.output.c_str());
                return false;
            }
        } else {
            cv::Mat grey = pixels;
            if (options.channels == 3) {
                cv::cvtColor(pixels, grey, cv::COLOR_BGR2GRAY);
            }
            Image::save(grey.data, frame.width, frame.height, options.output.c_str());
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vidapp-frame-dump: cannot write %s: %s\n", options.output.c_str(), e.what());
        return false;
    }
    const char* kind = options.channels == 1 ? "grey" : (options.format == Format::Png ? "colour" : "grey from colour");
    std::printf("wrote %s: %u x %u, %s\n", options.output.c_str(), frame.width, frame.height, kind);
    return true;
}

int dump(const Options& options) {
    FrameSlotReader reader(options.slot);
    try {
        reader.attach();
    } catch (const OVRAException& e) {
        explainAttachFailure(e);
        return EXIT_FAILED;
    }
    // Copied out of shared memory first, so that encoding works on bytes the writer no longer changes.
    std::vector<std::uint8_t> pixels;
    const SlotCopy copy = copyPixels(reader.frame(), options.channels, COPY_ATTEMPTS, pixels);
    const FrameHeader& frame = copy.header;
    if (!copy.consistent) {
        std::fprintf(stderr, "vidapp-frame-dump: the slot kept changing while it was copied; the pixels may mix "
                             "two frames\n");
    }

    std::printf("%s slot %llu: width %u, height %u, sequence number %u, time stamp %llu\n", FRAME_SEGMENT,
                static_cast<unsigned long long>(options.slot), frame.width, frame.height, frame.sequenceNumber,
                static_cast<unsigned long long>(frame.timestamp));
    if (!frame.written()) {
        std::fprintf(stderr, "vidapp-frame-dump: slot %llu was never written (width or height 0)\n",
                     static_cast<unsigned long long>(options.slot));
        return EXIT_FAILED;
    }
    if (!frame.fits(options.channels)) {
        std::fprintf(stderr,
                     "vidapp-frame-dump: the header of slot %llu does not fit the slot: %u x %u x %llu bytes are more "
                     "than the %zu pixel bytes of a slot\n",
                     static_cast<unsigned long long>(options.slot), frame.width, frame.height,
                     static_cast<unsigned long long>(options.channels), ISPFrame_t::PIXELS_SIZE);
        return EXIT_FAILED;
    }
    if (options.format == Format::None) {
        return EXIT_OK;
    }
    return writeImage(options, frame, pixels) ? EXIT_OK : EXIT_FAILED;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status =
            startTool("vidapp-frame-dump", USAGE, argc, argv, options, parseOptions, printToolHelp)) {
        return *status;
    }
    return dump(options);
}
