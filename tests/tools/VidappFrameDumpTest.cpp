#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "common/SharedMemory.h"
#include "tests/support/Child.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "video_interface/ISPFrame.h"

namespace {

using testing::HasSubstr;
using namespace vidapp::test;

constexpr const char* USAGE =
    "usage: vidapp-frame-dump [--slot N] [--channels 1|3] [--output FILE.png|FILE.pgm] | --help\n";
constexpr int WIDTH = 40;
constexpr int HEIGHT = 30;

// The tool against an "IMAGE_FRAME" segment the test writes; output files go to the private /dev/shm.
class VidappFrameDumpTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }
    void writeSlot(std::uint64_t slot, std::uint32_t width, std::uint32_t height,
                   const std::vector<std::uint8_t>& pixels = {}) {
        auto* frame = static_cast<ISPFrame_t*>(segment.getAddress(slot));
        std::copy(pixels.begin(), pixels.end(), frame->pixels);
        frame->width = width;
        frame->height = height;
        frame->timestamp = 1700000000123456ULL;
        frame->sequenceNumber = 42;
    }

    // Runs the tool with the words of arguments; checks its exit status and its errors (or none).
    static ChildResult dump(const std::string& arguments, int exitCode = 0, const std::string& errPart = "") {
        std::istringstream words(arguments);
        std::vector<std::string> argv(std::istream_iterator<std::string>(words), {});
        argv.insert(argv.begin(), VIDAPP_BIN_DIR "/vidapp-frame-dump");
        const ChildResult result = runProgram(argv);
        EXPECT_TRUE(result.exited && result.exitCode == exitCode) << arguments << "\n" << result.describe();
        EXPECT_TRUE(errPart.empty() ? result.err.empty() : result.err.find(errPart) != std::string::npos)
            << arguments << ": " << result.err;
        return result;
    }

    LogCapture log; // keeps the segment's own log records off the console
    SharedMemory segment{"IMAGE_FRAME", false};
};

TEST_F(VidappFrameDumpTest, SlotsWrittenByTheTestReachPngAndPgmFilesPixelForPixel) {
    segment.create(sizeof(ISPFrame_t), 10, false);
    const std::vector<std::uint8_t> bgr = pgmTestPattern(WIDTH * 3, HEIGHT);
    const std::vector<std::uint8_t> grey = pgmTestPattern(WIDTH, HEIGHT);
    writeSlot(2, WIDTH, HEIGHT, bgr);
    writeSlot(9, WIDTH, HEIGHT, grey);
    EXPECT_EQ(dump("--slot 2 --output /dev/shm/frame.png").out,
              "IMAGE_FRAME slot 2: width 40, height 30, sequence number 42, time stamp 1700000000123456\n"
              "wrote /dev/shm/frame.png: 40 x 30, colour\n");
    const cv::Mat png = cv::imread("/dev/shm/frame.png", cv::IMREAD_UNCHANGED); // BGR: the slot's own order
    EXPECT_EQ(png.size(), cv::Size(WIDTH, HEIGHT));
    EXPECT_EQ(std::vector<std::uint8_t>(png.datastart, png.dataend), bgr);
    dump("--slot=9 --channels=1 --output=/dev/shm/FRAME.PGM");
    EXPECT_EQ(readFileBytes("/dev/shm/FRAME.PGM"), pgmBytes(WIDTH, HEIGHT, grey));
    EXPECT_THAT(dump("--slot 2 --output /dev/shm/grey.pgm").out, HasSubstr("40 x 30, grey from colour\n"));
}

TEST_F(VidappFrameDumpTest, MissingSegmentUnfitHeadersUnwritableFilesAndBadUsageFail) {
    EXPECT_EQ(dump("", 1,
                   "vidapp-frame-dump: cannot attach the frame segment IMAGE_FRAME (10 slots of 3072024 bytes): "
                   "SharedMemory::attach(): shm_open failed with error:[No such file or directory]\n")
                  .out,
              "");
    dump("", 1, "IMAGE_FRAME1: No such file or directory (0 of 10 slots exist; is vidapp running?)\n");
    segment.create(sizeof(ISPFrame_t), 10, false);
    writeSlot(1, 800, 1280); // exactly the slot's pixel bytes: the header alone is printed
    EXPECT_EQ(dump("--slot 1").out,
              "IMAGE_FRAME slot 1: width 800, height 1280, sequence number 42, time stamp 1700000000123456\n");
    const std::string unwritten = "vidapp-frame-dump: slot 1 was never written (width or height 0)\n";
    const std::tuple<std::uint32_t, std::uint32_t, const char*, int, std::string> rows[] = {
        {0, 0, "--output /dev/shm/frame.png", 1, unwritten},
        {WIDTH, 0, "", 1, unwritten},
        {800, 1281, "", 1,
         "vidapp-frame-dump: the header of slot 1 does not fit the slot: 800 x 1281 x 3 bytes are more than the "
         "3072000 pixel bytes of a slot\n"},
        {800, 1281, "--channels 1", 0, ""},
        {0xFFFFFFFFU, 0xFFFFFFFFU, "", 1, "does not fit the slot"}, // no overflow in the size check
        {WIDTH, HEIGHT, "--output /dev/shm/no/f.png", 1, "vidapp-frame-dump: cannot write /dev/shm/no/f.png"},
        {WIDTH, HEIGHT, "--output /dev/shm/no/f.pgm", 1, "vidapp-frame-dump: cannot write /dev/shm/no/f.pgm"}};
    for (const auto& [width, height, arguments, exitCode, err] : rows) {
        writeSlot(1, width, height);
        dump(std::string("--slot 1 ") + arguments, exitCode, err);
    }
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/frame.png"));
    EXPECT_EQ(dump("--slot 10", 2, USAGE).out, "");
    EXPECT_EQ(dump("--output frame.jpg", 2, USAGE).out, "");
    EXPECT_THAT(dump("--help").out, HasSubstr(USAGE));
}

} // namespace
