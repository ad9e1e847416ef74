#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "PngReader.h"
#include "autoexposure/GreyPng.h"

namespace {

using aetest::Decoded;
using aetest::DecodeStoredPng;
using aetest::SlowAdler32;

TEST(ChecksumTest, KnownValues) {
    const std::string check = "123456789";
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(check.data());
    EXPECT_EQ(autoexposure::Crc32(bytes, check.size()), 0xCBF43926u);
    const std::string wiki = "Wikipedia";
    EXPECT_EQ(autoexposure::Adler32(reinterpret_cast<const std::uint8_t*>(wiki.data()), wiki.size()),
              0x11E60398u);
    // Long runs of 255 are where a missing modulo overflows.
    const std::vector<std::uint8_t> ones(100000, 255);
    EXPECT_EQ(autoexposure::Adler32(ones.data(), ones.size()), SlowAdler32(ones));
}

TEST(GreyPngTest, RoundTripsThroughStoredBlocks) {
    // 250 x 300 needs two stored blocks; a stride larger than the row must not leak padding.
    struct Size {
        std::int32_t rows, columns, stride;
    } sizes[] = {{1, 1, 1}, {3, 5, 8}, {300, 250, 256}};
    for (const Size& s : sizes) {
        std::vector<std::uint8_t> image(static_cast<std::size_t>(s.rows * s.stride), 0xEE);
        std::vector<std::uint8_t> expected;
        for (std::int32_t r = 0; r < s.rows; ++r) {
            for (std::int32_t c = 0; c < s.columns; ++c) {
                const auto value = static_cast<std::uint8_t>((r * 7 + c * 3) & 0xFF);
                image[static_cast<std::size_t>(r * s.stride + c)] = value;
                expected.push_back(value);
            }
        }
        const Decoded decoded =
            DecodeStoredPng(autoexposure::EncodeGreyPng(image.data(), s.rows, s.columns, s.stride));
        EXPECT_EQ(decoded.width, static_cast<std::uint32_t>(s.columns));
        EXPECT_EQ(decoded.height, static_cast<std::uint32_t>(s.rows));
        EXPECT_EQ(decoded.pixels, expected);
        const std::size_t rawSize = static_cast<std::size_t>(s.rows) * static_cast<std::size_t>(s.columns + 1);
        EXPECT_EQ(decoded.storedBlocks, static_cast<int>((rawSize + 65534) / 65535));
    }
}

}  // namespace

