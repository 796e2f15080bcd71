#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "common/SharedMemory.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "video_interface/ISPFrame.h"

namespace {

using vidapp::test::ChildResult;

constexpr const char* USAGE =
    "usage: vidapp-frame-dump [--slot N] [--channels 1|3] [--output FILE.png|FILE.pgm] | --help\n";

// The decoded file: OpenCV reads PNG as BGR (or grey), the slot's own byte order.
struct Png {
    unsigned width = 0;
    unsigned height = 0;
    unsigned channels = 0;
    std::vector<std::uint8_t> pixels; // rows of width x channels bytes
};

std::optional<Png> decodePng(const std::string& file) {
    const cv::Mat image = cv::imread(file, cv::IMREAD_UNCHANGED);
    if (image.empty() || image.depth() != CV_8U) {
        return std::nullopt;
    }
    const cv::Mat continuous = image.isContinuous() ? image : image.clone();
    Png png{static_cast<unsigned>(image.cols), static_cast<unsigned>(image.rows),
            static_cast<unsigned>(image.channels()), {}};
    png.pixels.assign(continuous.data, continuous.data + continuous.total() * continuous.elemSize());
    return png;
}

// The tool run as a child against an "IMAGE_FRAME" segment that the test creates and writes, in
// the sandbox's own /dev/shm; output files go to a directory of the test's own.
class VidappFrameDumpTest : public ::testing::Test {
protected:
    static constexpr std::uint32_t WIDTH = 40;
    static constexpr std::uint32_t HEIGHT = 30;

    void SetUp() override {
        VIDAPP_REQUIRE_SANDBOX();
        char pattern[] = "/tmp/vidapp-frame-dump-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
    }

    void TearDown() override {
        if (!directory.empty()) {
            std::filesystem::remove_all(directory);
        }
    }

    void createSegment(std::uint64_t slots = 10) {
        segment = std::make_unique<SharedMemory>("IMAGE_FRAME", false);
        segment->create(sizeof(ISPFrame_t), slots, false);
    }

    // Pixels where every byte differs from its neighbours in row, column and channel.
    static std::vector<std::uint8_t> pattern(std::uint32_t channels) {
        std::vector<std::uint8_t> pixels(std::size_t{WIDTH} * HEIGHT * channels);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const std::size_t x = i / channels % WIDTH;
            const std::size_t y = i / channels / WIDTH;
            pixels[i] = static_cast<std::uint8_t>(x * 3 + y * 7 + i % channels * 85);
        }
        return pixels;
    }

    void writeSlot(std::uint64_t slot, std::uint32_t width, std::uint32_t height,
                   const std::vector<std::uint8_t>& pixels) {
        auto* frame = static_cast<ISPFrame_t*>(segment->getAddress(slot));
        std::copy(pixels.begin(), pixels.end(), frame->pixels);
        frame->width = width;
        frame->height = height;
        frame->timestamp = 1700000000123456ULL;
        frame->sequenceNumber = 42;
    }

    static ChildResult dump(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv = {VIDAPP_BIN_DIR "/vidapp-frame-dump"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return vidapp::test::runProgram(argv);
    }

    static void expectContains(const std::string& text, const std::string& part) {
        EXPECT_NE(text.find(part), std::string::npos) << "missing: " << part << "\nin:\n" << text;
    }

    vidapp::test::LogCapture log; // keeps the segment's own log records off the console
    std::unique_ptr<SharedMemory> segment;
    std::string directory;
};

TEST_F(VidappFrameDumpTest, PngOfColourSlotDecodesToTheSamePixels) {
    createSegment();
    const std::vector<std::uint8_t> bgr = pattern(3);
    writeSlot(2, WIDTH, HEIGHT, bgr);
    const std::string file = directory + "/frame.png";

    const ChildResult result = dump({"--slot", "2", "--output", file});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out, "IMAGE_FRAME slot 2: width 40, height 30, sequence number 42, time stamp 1700000000123456\n"
                          "wrote " +
                              file + ": 40 x 30, colour\n");

    const std::optional<Png> png = decodePng(file);
    ASSERT_TRUE(png);
    ASSERT_EQ(png->width, WIDTH);
    ASSERT_EQ(png->height, HEIGHT);
    ASSERT_EQ(png->channels, 3U);
    EXPECT_EQ(png->pixels, bgr);
}

TEST_F(VidappFrameDumpTest, GreySlotToPngAndPgm) {
    createSegment();
    const std::vector<std::uint8_t> grey = pattern(1);
    writeSlot(9, WIDTH, HEIGHT, grey);
    const std::string png = directory + "/FRAME.PNG";
    const std::string pgm = directory + "/frame.pgm";

    const ChildResult toPng = dump({"--slot=9", "--channels=1", "--output=" + png});
    ASSERT_TRUE(toPng.exited && toPng.exitCode == 0) << toPng.describe();
    const std::optional<Png> decoded = decodePng(png);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->channels, 1U);
    EXPECT_EQ(decoded->pixels, grey);

    const ChildResult toPgm = dump({"--slot", "9", "--channels", "1", "--output", pgm});
    ASSERT_TRUE(toPgm.exited && toPgm.exitCode == 0) << toPgm.describe();
    EXPECT_EQ(vidapp::test::readFileBytes(pgm), vidapp::test::pgmBytes(WIDTH, HEIGHT, grey));
}

TEST_F(VidappFrameDumpTest, PgmOfColourSlotIsItsGrey) {
    createSegment();
    const std::vector<std::uint8_t> bgr = pattern(3);
    writeSlot(0, WIDTH, HEIGHT, bgr);
    const std::string file = directory + "/frame.pgm";

    const ChildResult result = dump({"--output", file});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    expectContains(result.out, "wrote " + file + ": 40 x 30, grey from colour\n");
    const std::string bytes = vidapp::test::readFileBytes(file);
    const std::string header = "P5\n40 30\n255\n";
    ASSERT_EQ(bytes.size(), header.size() + WIDTH * HEIGHT);
    ASSERT_EQ(bytes.substr(0, header.size()), header);
    for (std::size_t i = 0; i < std::size_t{WIDTH} * HEIGHT; ++i) {
        // ITU-R BT.601 luma; a converter may round either way.
        const double luma = 0.114 * bgr[3 * i] + 0.587 * bgr[3 * i + 1] + 0.299 * bgr[3 * i + 2];
        const auto written = static_cast<std::uint8_t>(bytes[header.size() + i]);
        ASSERT_NEAR(written, luma, 1.0) << "pixel " << i;
    }
}

TEST_F(VidappFrameDumpTest, HeaderOnlyForAFrameFillingTheSlot) {
    createSegment();
    writeSlot(0, 800, 1280, {}); // 800 x 1280 x 3 bytes: exactly the slot
    const ChildResult result = dump({});
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_EQ(result.out,
              "IMAGE_FRAME slot 0: width 800, height 1280, sequence number 42, time stamp 1700000000123456\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(VidappFrameDumpTest, SlotNeverWrittenFails) {
    createSegment();
    writeSlot(4, WIDTH, 0, {});
    for (const char* slot : {"3", "4"}) {
        SCOPED_TRACE(slot);
        const ChildResult result = dump({"--slot", slot, "--output", directory + "/frame.png"});
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        expectContains(result.err,
                       std::string("vidapp-frame-dump: slot ") + slot + " was never written (width or height 0)\n");
    }
    EXPECT_FALSE(std::filesystem::exists(directory + "/frame.png"));
}

TEST_F(VidappFrameDumpTest, HeaderLargerThanTheSlotFails) {
    createSegment();
    writeSlot(1, 800, 1281, {});
    const ChildResult colour = dump({"--slot", "1"});
    EXPECT_TRUE(colour.exited && colour.exitCode == 1) << colour.describe();
    expectContains(colour.err, "vidapp-frame-dump: the header of slot 1 does not fit the slot: 800 x 1281 x 3 bytes "
                               "are more than the 3072000 pixel bytes of a slot\n");
    // The same frame as grey fits.
    const ChildResult grey = dump({"--slot", "1", "--channels", "1"});
    EXPECT_TRUE(grey.exited && grey.exitCode == 0) << grey.describe();

    writeSlot(1, 0xFFFFFFFFU, 0xFFFFFFFFU, {});
    const ChildResult huge = dump({"--slot", "1"});
    EXPECT_TRUE(huge.exited && huge.exitCode == 1) << "no overflow in the size check\n" << huge.describe();
}

TEST_F(VidappFrameDumpTest, MissingSegmentFails) {
    const ChildResult none = dump({});
    EXPECT_TRUE(none.exited && none.exitCode == 1) << none.describe();
    expectContains(none.err,
                   "vidapp-frame-dump: cannot attach the frame segment IMAGE_FRAME (10 slots of 3072024 "
                   "bytes): SharedMemory::attach(): shm_open failed with error:[No such file or directory]\n");
    expectContains(none.err, "IMAGE_FRAME1: No such file or directory (0 of 10 slots exist; is vidapp running?)\n");
    EXPECT_EQ(none.out, "");

    createSegment(6);
    const ChildResult partial = dump({});
    EXPECT_TRUE(partial.exited && partial.exitCode == 1) << partial.describe();
    expectContains(partial.err, "IMAGE_FRAME7: No such file or directory (6 of 10 slots exist; is vidapp running?)\n");
}

TEST_F(VidappFrameDumpTest, UnwritableOutputFails) {
    createSegment();
    writeSlot(0, WIDTH, HEIGHT, pattern(3));
    for (const char* name : {"/missing/frame.png", "/missing/frame.pgm"}) {
        SCOPED_TRACE(name);
        const ChildResult result = dump({"--output", directory + name});
        EXPECT_TRUE(result.exited && result.exitCode == 1) << result.describe();
        expectContains(result.err, "vidapp-frame-dump: cannot write " + directory + name);
    }
}

TEST_F(VidappFrameDumpTest, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {"--slot", "10"},    {"--slot", "-1"},
        {"--slot"},          {"--channels", "2"},
        {"--channels", "4"}, {"--output", "frame.jpg"},
        {"--output", "png"}, {"--output", "dir.png/frame"},
        {"--help=1"},        {"0"},
    };
    for (const auto& arguments : wrong) {
        SCOPED_TRACE(arguments[0] + (arguments.size() > 1 ? " " + arguments[1] : ""));
        const ChildResult result = dump(arguments);
        EXPECT_TRUE(result.exited && result.exitCode == 2) << result.describe();
        expectContains(result.err, USAGE);
        EXPECT_EQ(result.out, "");
    }
    const ChildResult help = dump({"--help"});
    EXPECT_TRUE(help.exited && help.exitCode == 0) << help.describe();
    expectContains(help.out, USAGE);
}

} // namespace
