#include "communication/crc32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace {

using namespace OVRA;

// The definition the fast forms must reproduce: eight shift-and-XOR steps per byte.
std::uint32_t reference(const void* data, std::size_t size, std::uint32_t r) {
    for (std::size_t i = 0; i < size; ++i) {
        r ^= static_cast<const std::uint8_t*>(data)[i];
        for (int bit = 0; bit < 8; ++bit) {
            r = (r & 1U) != 0 ? (r >> 1) ^ 0xEDB88320U : r >> 1;
        }
    }
    return r;
}

// The low `width` bytes of value (in memory order: this machine is little-endian) in either mode.
std::uint32_t referenceValue(std::uint64_t value, std::size_t width, bool single, std::uint32_t r) {
    return single ? ~reference(&value, width, CRC32_INITIAL_VALUE) : reference(&value, width, r);
}

class Crc32Test : public ::testing::Test {
protected:
    std::mt19937_64 random{0xC0FFEEU};
};

TEST_F(Crc32Test, KnownValues) {
    std::uint32_t r = CRC32_INITIAL_VALUE;
    for (const char c : {'1', '2', '3', '4', '5', '6', '7', '8', '9'}) {
        r = crc32SizeChar(c, false, r);
    }
    EXPECT_EQ(~r, 0xCBF43926U);
    EXPECT_EQ(crc32Buffer("123456789", 9, true, 0), 0xCBF43926U);
    EXPECT_EQ(crc32Size8Bit(0x00, true, 0x12345678U), 0xD202EF8DU);
    EXPECT_EQ(crc32Buffer(nullptr, 0, false, 0x12345678U), 0x12345678U);
}

// Every path this machine has, each reached directly, and the public functions, which take the
// fastest of them.
std::vector<Crc32Path> pathsUnderTest() {
    std::vector<Crc32Path> paths = crc32Paths();
    paths.push_back({"public", crc32Size8Bit, crc32Size16Bit, crc32Size32Bit, crc32Size64Bit, crc32Buffer});
    return paths;
}

TEST_F(Crc32Test, ValuesOfEveryWidthMatchTheBitwiseDefinitionInBothModesOnEveryPath) {
    const std::vector<Crc32Path> paths = pathsUnderTest();
    for (unsigned i = 0; i < 4096; ++i) {
        const bool single = (i & 0x100U) != 0; // every byte value in both modes; single mode ignores r
        const auto r = static_cast<std::uint32_t>(random());
        const std::uint64_t v = random();
        const auto v8 = static_cast<std::uint8_t>(i);
        SCOPED_TRACE(i);
        EXPECT_EQ(crc32SizeChar(static_cast<char>(v8), single, r), referenceValue(v8, 1, single, r));
        for (const Crc32Path& path : paths) {
            SCOPED_TRACE(path.name);
            EXPECT_EQ(path.size8Bit(v8, single, r), referenceValue(v8, 1, single, r));
            EXPECT_EQ(path.size16Bit(static_cast<std::uint16_t>(v), single, r), referenceValue(v, 2, single, r));
            EXPECT_EQ(path.size32Bit(static_cast<std::uint32_t>(v), single, r), referenceValue(v, 4, single, r));
            EXPECT_EQ(path.size64Bit(v, single, r), referenceValue(v, 8, single, r));
        }
    }
}

TEST_F(Crc32Test, BuffersMatchTheBitwiseDefinitionAndZlibAtEveryAlignmentOnEveryPath) {
    const std::vector<Crc32Path> paths = pathsUnderTest();
    std::vector<std::uint8_t> bytes(65537 + 16);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    // Every length up to 65, then lengths that leave 0 to 63 bytes after the last 64-byte block.
    std::vector<std::size_t> lengths = {80, 127, 128, 191, 1000, 4097, 63999, 64000, 65537};
    for (std::size_t length = 0; length <= 65; ++length) {
        lengths.push_back(length);
    }
    for (const std::size_t length : lengths) {
        for (std::size_t offset = 0; offset < 16; ++offset) {
            SCOPED_TRACE(testing::Message() << length << "@" << offset);
            const auto r = static_cast<std::uint32_t>(random());
            const std::uint32_t running = reference(&bytes[offset], length, r);
            const auto complete = static_cast<std::uint32_t>(crc32(0, &bytes[offset], static_cast<uInt>(length)));
            for (const Crc32Path& path : paths) {
                SCOPED_TRACE(path.name);
                EXPECT_EQ(path.buffer(&bytes[offset], length, false, r), running);
                EXPECT_EQ(path.buffer(&bytes[offset], length, true, r), complete);
            }
        }
    }
}

// A build that left the instruction path out would pass every check above on the table path alone.
TEST_F(Crc32Test, TheInstructionPathIsThereWhereTheMachineHasIt) {
#if defined(__x86_64__)
    __builtin_cpu_init();
    const bool machineHasIt = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
#elif defined(__aarch64__)
    const bool machineHasIt = (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;
#else
    const bool machineHasIt = false;
#endif
    EXPECT_EQ(crc32Paths().size(), machineHasIt ? 2U : 1U);
}

} // namespace
