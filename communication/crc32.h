#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// The standard CRC-32 (reflected polynomial 0xEDB88320, initial value 0xFFFFFFFF, final
// inversion; the one of zlib and Ethernet), fed one value of a given width at a time. Pure
// functions: callable from any thread.
//
// Every function takes (value, single, crc):
// - single == false (running mode): crc is the register left by the previous call (start it at
//   0xFFFFFFFF); the register after the value's bytes is returned without inversion, and the
//   caller inverts once at the end.
// - single == true: crc is ignored; the result is the complete CRC-32 of the value's bytes.
// Wider values are fed least significant byte first, whatever the machine's byte order.
namespace OVRA {

constexpr std::uint32_t CRC32_INITIAL_VALUE = 0xFFFFFFFFU;

std::uint32_t crc32Size8Bit(std::uint8_t value, bool single, std::uint32_t crc);
// The same as crc32Size8Bit for the byte of value.
std::uint32_t crc32SizeChar(char value, bool single, std::uint32_t crc);
std::uint32_t crc32Size16Bit(std::uint16_t value, bool single, std::uint32_t crc);
std::uint32_t crc32Size32Bit(std::uint32_t value, bool single, std::uint32_t crc);
std::uint32_t crc32Size64Bit(std::uint64_t value, bool single, std::uint32_t crc);

// Feeds size bytes from data in address order, with the same modes; what the message CRC uses
// for the payload. data may be null only when size is 0.
std::uint32_t crc32Buffer(const void* data, std::size_t size, bool single, std::uint32_t crc);
// crc32Buffer by the table path alone: what a machine without a faster instruction path runs, and
// what crc32Buffer itself runs on x86-64 for short buffers and the tail of long ones.
std::uint32_t crc32BufferPortable(const void* data, std::size_t size, bool single, std::uint32_t crc);

// One way of computing the functions above, so that tests and benchmarks can reach each directly.
// Every machine has the table path. The functions above take the instruction path where the
// machine has one: carry-less multiplication for buffers on x86-64; the CRC32 instructions for
// every width on AArch64 (optional in ARMv8.0, so chosen by the kernel's AT_HWCAP report).
struct Crc32Path {
    const char* name;
    std::uint32_t (*size8Bit)(std::uint8_t value, bool single, std::uint32_t crc);
    std::uint32_t (*size16Bit)(std::uint16_t value, bool single, std::uint32_t crc);
    std::uint32_t (*size32Bit)(std::uint32_t value, bool single, std::uint32_t crc);
    std::uint32_t (*size64Bit)(std::uint64_t value, bool single, std::uint32_t crc);
    std::uint32_t (*buffer)(const void* data, std::size_t size, bool single, std::uint32_t crc);
};

// The table path, then the instruction path when this machine has one.
std::vector<Crc32Path> crc32Paths();

} // namespace OVRA
