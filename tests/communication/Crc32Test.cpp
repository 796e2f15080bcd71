#include "communication/crc32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

using namespace OVRA;

// The definition the fast forms must reproduce: eight shift-and-XOR steps per byte.
std::uint32_t referenceBytes(const std::uint8_t* data, std::size_t size, std::uint32_t r) {
    for (std::size_t i = 0; i < size; ++i) {
        r ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            r = (r & 1U) != 0 ? (r >> 1) ^ 0xEDB88320U : r >> 1;
        }
    }
    return r;
}

// The low `width` bytes of value, least significant first.
std::uint32_t referenceValue(std::uint64_t value, std::size_t width, std::uint32_t r) {
    std::uint8_t bytes[8];
    for (std::size_t i = 0; i < width; ++i) {
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    return referenceBytes(bytes, width, r);
}

std::uint32_t zlibCrc(const std::uint8_t* data, std::size_t size) {
    return static_cast<std::uint32_t>(crc32(0L, data, static_cast<uInt>(size)));
}

class Crc32Test : public ::testing::Test {
protected:
    std::uint32_t randomRegister() { return static_cast<std::uint32_t>(generator()); }

    std::vector<std::uint8_t> randomBytes(std::size_t size) {
        std::vector<std::uint8_t> bytes(size);
        for (auto& byte : bytes) {
            byte = static_cast<std::uint8_t>(generator());
        }
        return bytes;
    }

    std::mt19937_64 generator{0xC0FFEEU};
};

TEST_F(Crc32Test, KnownValues) {
    std::uint32_t r = CRC32_INITIAL_VALUE;
    for (const char c : std::string("123456789")) {
        r = crc32SizeChar(c, false, r);
    }
    EXPECT_EQ(~r, 0xCBF43926U);
    EXPECT_EQ(crc32Buffer("123456789", 9, true, 0), 0xCBF43926U);
    EXPECT_EQ(crc32Size8Bit(0x00, true, 0x12345678U), 0xD202EF8DU);
    EXPECT_EQ(crc32Size16Bit(0x3231, false, CRC32_INITIAL_VALUE),
              crc32Size8Bit(0x32, false, crc32Size8Bit(0x31, false, CRC32_INITIAL_VALUE)));
    EXPECT_EQ(crc32Buffer(nullptr, 0, false, 0x12345678U), 0x12345678U);
}

TEST_F(Crc32Test, ValuesOfEveryWidthMatchTheBitwiseDefinitionInBothModes) {
    for (int byte = 0; byte < 256; ++byte) {
        const auto value = static_cast<std::uint8_t>(byte);
        const std::uint32_t r = randomRegister();
        EXPECT_EQ(crc32Size8Bit(value, false, r), referenceValue(value, 1, r)) << byte;
        EXPECT_EQ(crc32Size8Bit(value, true, r), ~referenceValue(value, 1, CRC32_INITIAL_VALUE)) << byte;
        EXPECT_EQ(crc32SizeChar(static_cast<char>(value), false, r), crc32Size8Bit(value, false, r)) << byte;
        EXPECT_EQ(crc32SizeChar(static_cast<char>(value), true, r), crc32Size8Bit(value, true, r)) << byte;
    }
    for (int i = 0; i < 2000; ++i) {
        const std::uint32_t r = randomRegister();
        const std::uint64_t value = generator();
        const auto v16 = static_cast<std::uint16_t>(value);
        const auto v32 = static_cast<std::uint32_t>(value);
        EXPECT_EQ(crc32Size16Bit(v16, false, r), referenceValue(v16, 2, r));
        EXPECT_EQ(crc32Size32Bit(v32, false, r), referenceValue(v32, 4, r));
        EXPECT_EQ(crc32Size64Bit(value, false, r), referenceValue(value, 8, r));
        // Single mode ignores the given register.
        EXPECT_EQ(crc32Size16Bit(v16, true, r), ~referenceValue(v16, 2, CRC32_INITIAL_VALUE));
        EXPECT_EQ(crc32Size32Bit(v32, true, r), ~referenceValue(v32, 4, CRC32_INITIAL_VALUE));
        EXPECT_EQ(crc32Size64Bit(value, true, r), ~referenceValue(value, 8, CRC32_INITIAL_VALUE));
    }
}

TEST_F(Crc32Test, BuffersOfEveryLengthUpTo64AtEveryAlignment) {
    const auto bytes = randomBytes(64 + 16);
    for (std::size_t length = 0; length <= 64; ++length) {
        for (std::size_t offset = 0; offset < 16; ++offset) {
            const std::uint8_t* data = bytes.data() + offset;
            const std::uint32_t r = randomRegister();
            EXPECT_EQ(crc32Buffer(data, length, false, r), referenceBytes(data, length, r)) << length << "@" << offset;
            EXPECT_EQ(crc32Buffer(data, length, true, r), zlibCrc(data, length)) << length << "@" << offset;
        }
    }
}

TEST_F(Crc32Test, LongBuffersMatchTheBitwiseDefinitionAndZlib) {
    const auto bytes = randomBytes(64000 + 16);
    for (const std::size_t length : {65U, 80U, 127U, 128U, 129U, 191U, 1000U, 4097U, 63999U, 64000U}) {
        for (std::size_t offset = 0; offset < 16; offset += 5) {
            const std::uint8_t* data = bytes.data() + offset;
            const std::uint32_t r = randomRegister();
            EXPECT_EQ(crc32Buffer(data, length, false, r), referenceBytes(data, length, r)) << length << "@" << offset;
            EXPECT_EQ(crc32Buffer(data, length, true, r), zlibCrc(data, length)) << length << "@" << offset;
        }
    }
}

TEST_F(Crc32Test, RunningModeChainsAcrossAnySplit) {
    const auto bytes = randomBytes(300);
    const std::uint32_t whole = zlibCrc(bytes.data(), bytes.size());
    for (std::size_t split = 0; split <= bytes.size(); ++split) {
        const std::uint32_t r = crc32Buffer(bytes.data(), split, false, CRC32_INITIAL_VALUE);
        EXPECT_EQ(~crc32Buffer(bytes.data() + split, bytes.size() - split, false, r), whole) << split;
    }
}

} // namespace
