// Minimal writer of 8-bit greyscale PNG files, used to save the engine's
// weight image so that it can be looked at in any picture viewer.
//
// The pixel data is stored uncompressed: a zlib stream of stored blocks, each
// row preceded by filter type 0. Checksums: CRC-32 per chunk, Adler-32 over the
// filtered rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace autoexposure {

std::uint32_t Crc32(const std::uint8_t* data, std::size_t size, std::uint32_t crc = 0);
std::uint32_t Adler32(const std::uint8_t* data, std::size_t size, std::uint32_t adler = 1);

// Encodes rows x columns bytes (rows `stride` bytes apart) as a PNG file image.
// Returns an empty vector for a geometry that cannot be encoded (non-positive
// size, stride < columns, null data).
std::vector<std::uint8_t> EncodeGreyPng(const std::uint8_t* data, std::int32_t rows,
                                        std::int32_t columns, std::int32_t stride);

// Encodes and writes to `path`. Returns false when encoding or writing fails.
bool WriteGreyPng(const std::string& path, const std::uint8_t* data, std::int32_t rows,
                  std::int32_t columns, std::int32_t stride);

}  // namespace autoexposure
