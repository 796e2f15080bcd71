#include "video_interface/ImageFile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "video_interface/Image.h"

// The largest allocation while tracking is on (only the test's thread allocates then): a hostile
// header must not make the reader allocate what its file could never fill.
static std::atomic<bool> tracking{false};
static std::atomic<std::size_t> largest{0};

void* operator new(std::size_t size) {
    if (tracking && size > largest) {
        largest = size;
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
// Out of line, so that the compiler does not pair the inlined free() with a new expression.
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

// The reader is also checked against a model of the format by the fuzz target pgm_reader_fuzz.
namespace {

using namespace vidapp::test;

// Works in the sandbox's private /dev/shm.
class ImageFileTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    // Writes the bytes to `file` and returns the text of the ImageException 1051 that loading it
    // throws ("" when it loads). No allocation while loading may be larger than the stream buffer.
    std::string loadError(const std::string& bytes) {
        writeFileBytes(file, bytes);
        largest = 0;
        tracking = true;
        const std::string failure = failureOf<ImageException>([&] { ImageFile image(file.c_str()); });
        tracking = false;
        EXPECT_LT(largest.load(), 65536U) << "an allocation the file could not fill";
        return failure == "none" ? "" : failure.starts_with("1051 ") ? failure.substr(5) : failure;
    }

    vidapp::test::LogCapture log;
    const std::string file = "/dev/shm/image.pgm";
};

TEST_F(ImageFileTest, LoadsAFileAndSaveReproducesItByteForByte) {
    const auto pixels = pgmTestPattern(1001, 700); // more than one read block, an odd width
    writePgm(file, 1001, 700, pixels);
    writeFileBytes("/dev/shm/out.pgm", std::string(800000, 'x')); // to be replaced
    const ImageFile image(file.c_str());
    EXPECT_EQ(image.getImageWidth(), 1001U);
    EXPECT_EQ(image.getImageHeight(), 700U);
    EXPECT_EQ(std::vector<std::uint8_t>(image.getPixelsArray(), image.getPixelsArray() + pixels.size()), pixels);
    EXPECT_EQ(image.getImageFilename(), file);
    Image::save(image.getPixelsArray(), 1001, 700, "/dev/shm/out.pgm");
    EXPECT_EQ(readFileBytes("/dev/shm/out.pgm"), readFileBytes(file));
    EXPECT_EQ(failureOf<ImageException>([&] { Image::save(pixels.data(), 2, 2, "/dev/shm/missing/out.pgm"); }),
              "1051 Image::save(): error opening file:[/dev/shm/missing/out.pgm]. error:[No such file or directory]");
}

TEST_F(ImageFileTest, EachMalformedHeaderLineIsRejectedWithItsText) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"P5", {"P5 \n2 2\n255\nabcd", "P6\n2 2\n255\nabcd", ""}},
        {"width height",
         {"P5\n2\n255\nabcd", "P5\n2 2 x\n255\nabcd", "P5\n4294967296 1\n255\nabcd", "P5\n",
          "P5\n# comment\n255\nabcd"}},
        {"255", {"P5\n2 2\n256\nabcd", "P5\n2 2\n255 \nabcd", "P5\n2 2\n"}},
    };
    for (const auto& [header, files] : rows) {
        for (const std::string& bytes : files) {
            EXPECT_EQ(loadError(bytes), "ImageFile ctor(): Invalid File Format. File:[" + file + "] should have \"" +
                                            header + "\\n\" header")
                << bytes;
        }
    }
    EXPECT_EQ(log.countErrors(1045), 11U);
    EXPECT_TRUE(
        log.contains("Error Message:      vidapp: General STL exception: ImageFile ctor(): Invalid File Format."));
    EXPECT_EQ(loadError("P5\n 2\t 2 \n255\nabcd"), "") << "blanks around the sizes are accepted";
}

TEST_F(ImageFileTest, WrongPixelCountsFailWithoutAllocatingWhatTheFileCannotFill) {
    for (const auto& [bytes, counts] : std::vector<std::pair<std::string, std::string>>{
             {pgmBytes(2, 2, {1, 2, 3, 4, 5}), "4 pixels. Found:[5]"},
             {pgmBytes(2, 2, {1, 2, 3}), "4 pixels. Found:[3]"},
             {pgmBytes(100000, 100000, {1, 2, 3, 4}), "10000000000 pixels. Found:[4]"},
             {pgmBytes(2, 2, std::vector<std::uint8_t>(300000, 7)), "4 pixels. Found:[300000]"}}) {
        EXPECT_EQ(loadError(bytes),
                  "ImageFile ctor(): Invalid File Length. File:[" + file + "] should have " + counts + " pixels");
    }
    std::filesystem::remove(file);
    EXPECT_EQ(failureOf<ImageException>([&] { ImageFile image(file.c_str()); }),
              "1051 ImageFile ctor(): error openning file:[" + file + "]. error:[No such file or directory]");
}

} // namespace
