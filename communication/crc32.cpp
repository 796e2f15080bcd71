#include "communication/crc32.h"

#include <array>

#if defined(__x86_64__)
#include <immintrin.h>
#define VIDAPP_CRC32_CLMUL 1
#elif defined(__aarch64__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#include <arm_acle.h>
#include <asm/hwcap.h>
#include <cstring>
#include <sys/auxv.h>
#define VIDAPP_CRC32_ARMV8 1
#endif

namespace OVRA {

namespace {

constexpr std::uint32_t POLYNOMIAL = 0xEDB88320U;
constexpr std::size_t SLICES = 16;

using Table = std::array<std::array<std::uint32_t, 256>, SLICES>;

// TABLE[0][b] is the register after feeding byte b into a zero register; TABLE[k][b] is that
// register pushed through k more zero bytes, so 16 bytes can be folded in one step (slicing-by-16).
constexpr Table makeTable() {
    Table table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t r = byte;
        for (int bit = 0; bit < 8; ++bit) {
            r = (r & 1U) != 0 ? (r >> 1) ^ POLYNOMIAL : r >> 1;
        }
        table[0][byte] = r;
    }
    for (std::size_t slice = 1; slice < SLICES; ++slice) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t previous = table[slice - 1][byte];
            table[slice][byte] = (previous >> 8) ^ table[0][previous & 0xFFU];
        }
    }
    return table;
}

constexpr Table TABLE = makeTable();

inline std::uint32_t feedByte(std::uint32_t r, std::uint8_t byte) {
    return (r >> 8) ^ TABLE[0][(r ^ byte) & 0xFFU];
}

// The four bytes of a little-endian 32-bit word, each pushed through `after` further bytes.
inline std::uint32_t fold32(std::uint32_t word, std::size_t after) {
    return TABLE[after + 3][word & 0xFFU] ^ TABLE[after + 2][(word >> 8) & 0xFFU] ^
           TABLE[after + 1][(word >> 16) & 0xFFU] ^ TABLE[after][word >> 24];
}

// Byte order independent; compilers turn it into one load on little-endian machines.
inline std::uint32_t loadLittleEndian32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// Slicing-by-16 over whole blocks, then byte by byte.
std::uint32_t crc32Portable(std::uint32_t r, const std::uint8_t* p, std::size_t size) {
    for (; size >= SLICES; size -= SLICES, p += SLICES) {
        r = fold32(r ^ loadLittleEndian32(p), 12) ^ fold32(loadLittleEndian32(p + 4), 8) ^
            fold32(loadLittleEndian32(p + 8), 4) ^ fold32(loadLittleEndian32(p + 12), 0);
    }
    for (; size > 0; --size, ++p) {
        r = feedByte(r, *p);
    }
    return r;
}

#if defined(VIDAPP_CRC32_CLMUL)

constexpr std::size_t CLMUL_MINIMUM_SIZE = 64;

#define VIDAPP_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

VIDAPP_CLMUL_TARGET inline __m128i load128(const std::uint8_t* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// Moves a 128-bit lane forward by the distance its constants encode (each 64-bit half multiplied by
// its own power of x mod P) and adds the data found there.
VIDAPP_CLMUL_TARGET inline __m128i fold(__m128i lane, __m128i next, __m128i constants) {
    return _mm_xor_si128(
        _mm_xor_si128(_mm_clmulepi64_si128(lane, constants, 0x11), _mm_clmulepi64_si128(lane, constants, 0x00)), next);
}

// Carry-less multiplication folding for the reflected polynomial: four 128-bit lanes are folded 64
// bytes at a time, then into one lane, then reduced to 32 bits (Barrett). size is a multiple of 16,
// at least 64. Bit-reflected constants: k1/k2 fold by 512 bits, k3/k4 by 128 bits, k5 from 64 to 32
// bits; poly holds P(x) and the Barrett quotient x^64 / P(x).
VIDAPP_CLMUL_TARGET std::uint32_t crc32Clmul(std::uint32_t r, const std::uint8_t* p, std::size_t size) {
    const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
    const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
    const __m128i k5k0 = _mm_set_epi64x(0, 0x0163cd6124);
    const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
    const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);

    __m128i x1 = _mm_xor_si128(load128(p), _mm_cvtsi32_si128(static_cast<int>(r)));
    __m128i x2 = load128(p + 16);
    __m128i x3 = load128(p + 32);
    __m128i x4 = load128(p + 48);
    p += 64;
    size -= 64;
    for (; size >= 64; size -= 64, p += 64) {
        x1 = fold(x1, load128(p), k1k2);
        x2 = fold(x2, load128(p + 16), k1k2);
        x3 = fold(x3, load128(p + 32), k1k2);
        x4 = fold(x4, load128(p + 48), k1k2);
    }

    x1 = fold(x1, x2, k3k4);
    x1 = fold(x1, x3, k3k4);
    x1 = fold(x1, x4, k3k4);
    for (; size >= 16; size -= 16, p += 16) {
        x1 = fold(x1, load128(p), k3k4);
    }

    // 128 to 64 bits.
    __m128i x = _mm_xor_si128(_mm_srli_si128(x1, 8), _mm_clmulepi64_si128(x1, k3k4, 0x10));
    // 64 to 32 bits plus the remainder to reduce.
    x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, low32), k5k0, 0x00), _mm_srli_si128(x, 4));
    // Barrett reduction.
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x, low32), poly, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), poly, 0x00);
    return static_cast<std::uint32_t>(_mm_extract_epi32(_mm_xor_si128(x, t), 1));
}

bool clmulAvailable() {
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    }();
    return available;
}

#endif

inline std::uint32_t start(bool single, std::uint32_t crc) {
    return single ? CRC32_INITIAL_VALUE : crc;
}
inline std::uint32_t finish(bool single, std::uint32_t r) {
    return single ? ~r : r;
}

std::uint32_t tableSize8Bit(std::uint8_t value, bool single, std::uint32_t crc) {
    return finish(single, feedByte(start(single, crc), value));
}

std::uint32_t tableSize16Bit(std::uint16_t value, bool single, std::uint32_t crc) {
    std::uint32_t r = start(single, crc);
    r = feedByte(r, static_cast<std::uint8_t>(value & 0xFFU));
    r = feedByte(r, static_cast<std::uint8_t>(value >> 8));
    return finish(single, r);
}

std::uint32_t tableSize32Bit(std::uint32_t value, bool single, std::uint32_t crc) {
    return finish(single, fold32(start(single, crc) ^ value, 0));
}

std::uint32_t tableSize64Bit(std::uint64_t value, bool single, std::uint32_t crc) {
    const std::uint32_t low = start(single, crc) ^ static_cast<std::uint32_t>(value);
    const auto high = static_cast<std::uint32_t>(value >> 32);
    return finish(single, fold32(low, 4) ^ fold32(high, 0));
}

#if defined(VIDAPP_CRC32_ARMV8)

// CRC32B/H/W/X feed 1, 2, 4 or 8 bytes, least significant first, through the standard reflected
// polynomial (the CRC32C forms would be Castagnoli's). Only this code may use them: the rest of the
// program is built for plain ARMv8.0, where they are optional.
#define VIDAPP_ARMV8_CRC_TARGET __attribute__((target("+crc")))

// Read before main. A CRC computed during another file's static initialisation may find it still
// false and take the table path: slower, the same result.
const bool ARMV8_CRC_AVAILABLE = (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;

VIDAPP_ARMV8_CRC_TARGET std::uint32_t crc32Armv8(std::uint32_t r, const std::uint8_t* p, std::size_t size) {
    // Bytes up to an 8-byte boundary first, so that the 8-byte loads never straddle one.
    for (; size > 0 && (reinterpret_cast<std::uintptr_t>(p) & 7U) != 0; --size, ++p) {
        r = __crc32b(r, *p);
    }
    for (; size >= 8; size -= 8, p += 8) {
        std::uint64_t word;
        std::memcpy(&word, p, sizeof word);
        r = __crc32d(r, word);
    }
    if (size >= 4) {
        std::uint32_t word;
        std::memcpy(&word, p, sizeof word);
        r = __crc32w(r, word);
        p += 4;
        size -= 4;
    }
    for (; size > 0; --size, ++p) {
        r = __crc32b(r, *p);
    }
    return r;
}

VIDAPP_ARMV8_CRC_TARGET std::uint32_t armv8Size8Bit(std::uint8_t value, bool single, std::uint32_t crc) {
    return finish(single, __crc32b(start(single, crc), value));
}

VIDAPP_ARMV8_CRC_TARGET std::uint32_t armv8Size16Bit(std::uint16_t value, bool single, std::uint32_t crc) {
    return finish(single, __crc32h(start(single, crc), value));
}

VIDAPP_ARMV8_CRC_TARGET std::uint32_t armv8Size32Bit(std::uint32_t value, bool single, std::uint32_t crc) {
    return finish(single, __crc32w(start(single, crc), value));
}

VIDAPP_ARMV8_CRC_TARGET std::uint32_t armv8Size64Bit(std::uint64_t value, bool single, std::uint32_t crc) {
    return finish(single, __crc32d(start(single, crc), value));
}

std::uint32_t armv8Buffer(const void* data, std::size_t size, bool single, std::uint32_t crc) {
    return finish(single, crc32Armv8(start(single, crc), static_cast<const std::uint8_t*>(data), size));
}

#endif

} // namespace

std::uint32_t crc32Size8Bit(std::uint8_t value, bool single, std::uint32_t crc) {
#if defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        return armv8Size8Bit(value, single, crc);
    }
#endif
    return tableSize8Bit(value, single, crc);
}

std::uint32_t crc32SizeChar(char value, bool single, std::uint32_t crc) {
    return crc32Size8Bit(static_cast<std::uint8_t>(value), single, crc);
}

std::uint32_t crc32Size16Bit(std::uint16_t value, bool single, std::uint32_t crc) {
#if defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        return armv8Size16Bit(value, single, crc);
    }
#endif
    return tableSize16Bit(value, single, crc);
}

std::uint32_t crc32Size32Bit(std::uint32_t value, bool single, std::uint32_t crc) {
#if defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        return armv8Size32Bit(value, single, crc);
    }
#endif
    return tableSize32Bit(value, single, crc);
}

std::uint32_t crc32Size64Bit(std::uint64_t value, bool single, std::uint32_t crc) {
#if defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        return armv8Size64Bit(value, single, crc);
    }
#endif
    return tableSize64Bit(value, single, crc);
}

std::uint32_t crc32Buffer(const void* data, std::size_t size, bool single, std::uint32_t crc) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    std::uint32_t r = start(single, crc);
#if defined(VIDAPP_CRC32_CLMUL)
    if (size >= CLMUL_MINIMUM_SIZE && clmulAvailable()) {
        const std::size_t blocks = size & ~std::size_t{15};
        r = crc32Clmul(r, p, blocks);
        p += blocks;
        size -= blocks;
    }
#elif defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        return finish(single, crc32Armv8(r, p, size));
    }
#endif
    return finish(single, crc32Portable(r, p, size));
}

std::uint32_t crc32BufferPortable(const void* data, std::size_t size, bool single, std::uint32_t crc) {
    return finish(single, crc32Portable(start(single, crc), static_cast<const std::uint8_t*>(data), size));
}

std::vector<Crc32Path> crc32Paths() {
    std::vector<Crc32Path> paths{
        {"table", tableSize8Bit, tableSize16Bit, tableSize32Bit, tableSize64Bit, crc32BufferPortable}};
#if defined(VIDAPP_CRC32_CLMUL)
    if (clmulAvailable()) {
        paths.push_back({"carry-less multiplication", tableSize8Bit, tableSize16Bit, tableSize32Bit, tableSize64Bit,
                         crc32Buffer});
    }
#elif defined(VIDAPP_CRC32_ARMV8)
    if (ARMV8_CRC_AVAILABLE) {
        paths.push_back(
            {"ARMv8 CRC32 instructions", armv8Size8Bit, armv8Size16Bit, armv8Size32Bit, armv8Size64Bit, armv8Buffer});
    }
#endif
    return paths;
}

} // namespace OVRA
