#include "video_interface/ImageFile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/OVRAException.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pgm.h"
#include "tests/support/Sandbox.h"
#include "video_interface/Image.h"
#include "video_interface/ImageReady.h"

namespace {

// The largest single allocation made while tracking is on: a hostile header must not make the
// reader allocate what its file could never fill.
std::atomic<bool> trackingAllocations{false};
std::atomic<std::size_t> largestAllocation{0};

} // namespace

void* operator new(std::size_t size) {
    if (trackingAllocations.load(std::memory_order_relaxed)) {
        std::size_t seen = largestAllocation.load(std::memory_order_relaxed);
        while (size > seen && !largestAllocation.compare_exchange_weak(seen, size)) {
        }
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

namespace {

using vidapp::test::pgmBytes;
using vidapp::test::pgmTestPattern;
using vidapp::test::readFileBytes;
using vidapp::test::writeFileBytes;
using vidapp::test::writePgm;

class ImageFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ImageFileTest-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    std::string path(const std::string& name) const { return directory + "/" + name; }

    // The ImageException text for a file, or "" when it loaded.
    static std::string loadError(const std::string& file) {
        try {
            ImageFile image(file.c_str());
        } catch (const ImageException& e) {
            EXPECT_EQ(e.getCode(), 1051U);
            return e.what();
        }
        return "";
    }

    std::string formatError(const std::string& file, const std::string& header) const {
        return "ImageFile ctor(): Invalid File Format. File:[" + file + "] should have \"" + header + "\\n\" header";
    }

    vidapp::test::LogCapture log;
    std::string directory;
};

TEST_F(ImageFileTest, LoadsAFileAndSaveReproducesItByteForByte) {
    // Larger than one read block, with an odd width.
    const unsigned width = 1001;
    const unsigned height = 700;
    const auto pixels = pgmTestPattern(width, height);
    writePgm(path("in.pgm"), width, height, pixels);

    const ImageFile image(path("in.pgm").c_str());
    EXPECT_EQ(image.getImageWidth(), width);
    EXPECT_EQ(image.getImageHeight(), height);
    EXPECT_EQ(std::vector<std::uint8_t>(image.getPixelsArray(), image.getPixelsArray() + pixels.size()), pixels);
    EXPECT_EQ(std::string(image.getImageFilename()), path("in.pgm"));

    Image::save(image.getPixelsArray(), image.getImageWidth(), image.getImageHeight(), path("out.pgm").c_str());
    EXPECT_EQ(readFileBytes(path("out.pgm")), readFileBytes(path("in.pgm")));
    EXPECT_EQ(log.countErrors(1045), 0U);
}

TEST_F(ImageFileTest, AnImageArrivingThroughAPipeLoads) {
    const unsigned width = 300;
    const unsigned height = 200;
    const auto pixels = pgmTestPattern(width, height);
    const std::string bytes = vidapp::test::pgmBytes(width, height, pixels);
    ASSERT_EQ(::mkfifo(path("in.pgm").c_str(), 0600), 0);
    std::thread writer([&] {
        const int fd = ::open(path("in.pgm").c_str(), O_WRONLY);
        for (std::size_t at = 0; fd >= 0 && at < bytes.size();) {
            const ssize_t written = ::write(fd, bytes.data() + at, bytes.size() - at);
            if (written <= 0) {
                break;
            }
            at += static_cast<std::size_t>(written);
        }
        ::close(fd);
    });

    const std::string error = loadError(path("in.pgm"));
    writer.join();
    EXPECT_EQ(error, "");
}

TEST_F(ImageFileTest, SaveReplacesAnExistingFile) {
    writeFileBytes(path("out.pgm"), std::string(5000, 'x'));
    const std::vector<std::uint8_t> pixels{1, 2, 3, 4, 5, 6};
    Image::save(pixels.data(), 3, 2, path("out.pgm").c_str());
    EXPECT_EQ(readFileBytes(path("out.pgm")), std::string("P5\n3 2\n255\n\x01\x02\x03\x04\x05\x06"));
}

TEST_F(ImageFileTest, AFirstLineOtherThanP5IsRejected) {
    const std::vector<std::string> files{"P5 \n2 2\n255\nabcd",
                                         "P2\n2 2\n255\nabcd",
                                         "P6\n2 2\n255\nabcd",
                                         "",
                                         std::string(300, 'P') + "\n2 2\n255\nabcd",
                                         "p5\n2 2\n255\nabcd"};
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string file = path("bad" + std::to_string(i) + ".pgm");
        writeFileBytes(file, files[i]);
        EXPECT_EQ(loadError(file), formatError(file, "P5")) << "case " << i;
    }
    EXPECT_EQ(log.countErrors(1045), files.size());
    EXPECT_TRUE(
        log.contains("Error Message:      vidapp: General STL exception: ImageFile ctor(): Invalid File Format."))
        << log.dump();
}

TEST_F(ImageFileTest, ASizeLineThatIsNotTwoUnsignedNumbersIsRejected) {
    const std::vector<std::string> sizeLines{"2\n",   "a b\n",          "-1 2\n", "2 -2\n",     "2 2 x\n",
                                             "2,2\n", "4294967296 1\n", "\n",     "# comment\n"};
    for (std::size_t i = 0; i < sizeLines.size(); ++i) {
        const std::string file = path("size" + std::to_string(i) + ".pgm");
        writeFileBytes(file, "P5\n" + sizeLines[i] + "255\nabcd");
        EXPECT_EQ(loadError(file), formatError(file, "width height")) << "case " << i;
    }
    const std::string truncated = path("truncated.pgm");
    writeFileBytes(truncated, "P5\n");
    EXPECT_EQ(loadError(truncated), formatError(truncated, "width height"));
}

TEST_F(ImageFileTest, BlanksAroundTheSizesAreAccepted) {
    writeFileBytes(path("blanks.pgm"), "P5\n 2\t 2 \n255\nabcd");
    const ImageFile image(path("blanks.pgm").c_str());
    EXPECT_EQ(image.getImageWidth(), 2U);
    EXPECT_EQ(image.getImageHeight(), 2U);
}

TEST_F(ImageFileTest, AMaximumOtherThan255IsRejected) {
    const std::vector<std::string> maximumLines{"256\n", "65535\n", "255 \n", "0255\n", ""};
    for (std::size_t i = 0; i < maximumLines.size(); ++i) {
        const std::string file = path("max" + std::to_string(i) + ".pgm");
        writeFileBytes(file, "P5\n2 2\n" + maximumLines[i]);
        EXPECT_EQ(loadError(file), formatError(file, "255")) << "case " << i;
    }
}

TEST_F(ImageFileTest, FiveBytesForATwoByTwoImageAreAsFatalAsThree) {
    writeFileBytes(path("long.pgm"), pgmBytes(2, 2, {1, 2, 3, 4, 5}));
    writeFileBytes(path("short.pgm"), pgmBytes(2, 2, {1, 2, 3}));

    EXPECT_EQ(loadError(path("long.pgm")), "ImageFile ctor(): Invalid File Length. File:[" + path("long.pgm") +
                                               "] should have 4 pixels. Found:[5] pixels");
    EXPECT_EQ(loadError(path("short.pgm")), "ImageFile ctor(): Invalid File Length. File:[" + path("short.pgm") +
                                                "] should have 4 pixels. Found:[3] pixels");
}

TEST_F(ImageFileTest, HostileSizesFailWithoutAllocatingWhatTheFileCannotFill) {
    struct Case {
        unsigned width, height;
        std::size_t dataBytes;
        const char* counts;
    };
    for (const Case& c :
         {Case{100000, 100000, 4, "10000000000 pixels. Found:[4]"}, Case{2, 2, 300000, "4 pixels. Found:[300000]"}}) {
        const std::string file = path("hostile.pgm");
        writeFileBytes(file, pgmBytes(c.width, c.height, std::vector<std::uint8_t>(c.dataBytes, 7)));

        largestAllocation = 0;
        trackingAllocations = true;
        const std::string error = loadError(file);
        trackingAllocations = false;

        EXPECT_EQ(error,
                  "ImageFile ctor(): Invalid File Length. File:[" + file + "] should have " + c.counts + " pixels");
        EXPECT_LT(largestAllocation.load(), 65536U) << "the stream buffer is the largest allocation";
    }
}

TEST_F(ImageFileTest, AMissingFileNamesTheFileAndTheReason) {
    const std::string missing = path("missing.pgm");
    EXPECT_EQ(loadError(missing),
              "ImageFile ctor(): error openning file:[" + missing + "]. error:[No such file or directory]");
    EXPECT_EQ(log.countErrors(1045), 1U);
}

TEST_F(ImageFileTest, AnImageOnAReadOnlyFileSystemLoads) {
    VIDAPP_REQUIRE_NFS();
    const auto pixels = pgmTestPattern(16, 9);
    writePgm("/NFS/frame.pgm", 16, 9, pixels);
    ASSERT_EQ(::mount("none", "/NFS", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << std::strerror(errno);
    ASSERT_EQ(::open("/NFS/frame.pgm", O_RDWR), -1);
    ASSERT_EQ(errno, EROFS);

    const ImageFile image("/NFS/frame.pgm");

    EXPECT_EQ(std::vector<std::uint8_t>(image.getPixelsArray(), image.getPixelsArray() + pixels.size()), pixels);
}

TEST_F(ImageFileTest, AnImageFromAReadyMessageCarriesItsBufferIndexAndNoPixelsInThisBuild) {
    auto ready = std::make_unique<OVRA::ImageSupport::ImageReady_t>();
    ready->bufferIndex = 7;
    ready->sequenceNumber = 99;

    const Image image(*ready);
    EXPECT_EQ(image.getImageId(), 7U);
    EXPECT_EQ(image.width(), 0U);
    EXPECT_EQ(image.height(), 0U);
    EXPECT_EQ(image.getPixelsArray(), nullptr);

    image.save(path("empty.pgm").c_str());
    EXPECT_EQ(readFileBytes(path("empty.pgm")), "P5\n0 0\n255\n");
}

TEST_F(ImageFileTest, SaveFailuresThrow1051) {
    const std::string unwritable = path("no-such-directory/out.pgm");
    const std::vector<std::uint8_t> pixels{1, 2, 3, 4};
    try {
        Image::save(pixels.data(), 2, 2, unwritable.c_str());
        FAIL();
    } catch (const ImageException& e) {
        EXPECT_EQ(e.getCode(), 1051U);
        EXPECT_EQ(std::string(e.what()),
                  "Image::save(): error opening file:[" + unwritable + "]. error:[No such file or directory]");
    }
    EXPECT_THROW(Image::save(nullptr, 2, 2, path("null.pgm").c_str()), ImageException);
}

} // namespace
