// Test-side PNG reader for the files the engine writes: checks the signature,
// every chunk CRC, the zlib header, the stored blocks and the Adler-32, with
// its own bit-at-a-time checksums (independent of the writer's tables).
// Failures are reported as GoogleTest failures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace aetest {

struct Decoded {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> pixels;
    int storedBlocks = 0;
};

std::uint32_t SlowCrc32(const std::uint8_t* data, std::size_t size);
std::uint32_t SlowAdler32(const std::vector<std::uint8_t>& data);
Decoded DecodeStoredPng(const std::vector<std::uint8_t>& png);
Decoded DecodeStoredPngFile(const std::string& path);

}  // namespace aetest
