#include "communication/crc32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

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

TEST_F(Crc32Test, ValuesOfEveryWidthMatchTheBitwiseDefinitionInBothModes) {
    for (unsigned i = 0; i < 4096; ++i) {
        const bool single = (i & 0x100U) != 0; // every byte value in both modes; single mode ignores r
        const auto r = static_cast<std::uint32_t>(random());
        const std::uint64_t v = random();
        const auto v8 = static_cast<std::uint8_t>(i);
        SCOPED_TRACE(i);
        EXPECT_EQ(crc32Size8Bit(v8, single, r), referenceValue(v8, 1, single, r));
        EXPECT_EQ(crc32SizeChar(static_cast<char>(v8), single, r), referenceValue(v8, 1, single, r));
        EXPECT_EQ(crc32Size16Bit(static_cast<std::uint16_t>(v), single, r), referenceValue(v, 2, single, r));
        EXPECT_EQ(crc32Size32Bit(static_cast<std::uint32_t>(v), single, r), referenceValue(v, 4, single, r));
        EXPECT_EQ(crc32Size64Bit(v, single, r), referenceValue(v, 8, single, r));
    }
}

TEST_F(Crc32Test, BuffersMatchTheBitwiseDefinitionAndZlibAtEveryAlignmentOnEveryPath) {
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
            EXPECT_EQ(crc32Buffer(&bytes[offset], length, false, r), reference(&bytes[offset], length, r));
            EXPECT_EQ(crc32Buffer(&bytes[offset], length, true, r), crc32(0, &bytes[offset], length));
            // The table path on its own, as a machine without the instruction path runs it.
            EXPECT_EQ(crc32BufferPortable(&bytes[offset], length, false, r), reference(&bytes[offset], length, r));
            EXPECT_EQ(crc32BufferPortable(&bytes[offset], length, true, r), crc32(0, &bytes[offset], length));
        }
    }
}

} // namespace
