#pragma once

#include <cstddef>
#include <cstdint>

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
// what crc32Buffer itself runs for short buffers and the tail of long ones.
std::uint32_t crc32BufferPortable(const void* data, std::size_t size, bool single, std::uint32_t crc);

} // namespace OVRA
