#include "PngReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace aetest {

// Independent, bit-at-a-time checksums, so that a wrong table in the writer shows.
std::uint32_t SlowCrc32(const std::uint8_t* data, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::uint32_t SlowAdler32(const std::vector<std::uint8_t>& data) {
    std::uint32_t a = 1, b = 0;
    for (std::uint8_t byte : data) {
        a = (a + byte) % 65521u;
        b = (b + a) % 65521u;
    }
    return (b << 16) | a;
}

namespace {
std::uint32_t BigEndian(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}
}  // namespace

// Decodes the subset of PNG the writer produces, checking every checksum.
Decoded DecodeStoredPng(const std::vector<std::uint8_t>& png) {
    Decoded out;
    const std::uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    EXPECT_GE(png.size(), 8u);
    EXPECT_TRUE(std::equal(signature, signature + 8, png.begin()));

    std::vector<std::uint8_t> zlib;
    std::vector<std::string> chunkTypes;
    std::size_t at = 8;
    while (at + 12 <= png.size()) {
        const std::uint32_t length = BigEndian(&png[at]);
        EXPECT_LE(at + 12 + length, png.size());
        if (at + 12 + length > png.size()) return out;
        const std::string type(png.begin() + static_cast<std::ptrdiff_t>(at + 4),
                               png.begin() + static_cast<std::ptrdiff_t>(at + 8));
        chunkTypes.push_back(type);
        EXPECT_EQ(BigEndian(&png[at + 8 + length]), SlowCrc32(&png[at + 4], length + 4)) << type;
        const std::uint8_t* payload = &png[at + 8];
        if (type == "IHDR") {
            EXPECT_EQ(length, 13u);
            out.width = BigEndian(payload);
            out.height = BigEndian(payload + 4);
            EXPECT_EQ(payload[8], 8);  // bit depth
            EXPECT_EQ(payload[9], 0);  // greyscale
            EXPECT_EQ(payload[12], 0); // not interlaced
        } else if (type == "IDAT") {
            zlib.insert(zlib.end(), payload, payload + length);
        }
        at += 12 + length;
    }
    EXPECT_EQ(at, png.size());
    EXPECT_EQ(chunkTypes, (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));

    EXPECT_GE(zlib.size(), 6u);
    if (zlib.size() < 6) return out;
    EXPECT_EQ((zlib[0] * 256 + zlib[1]) % 31, 0);
    EXPECT_EQ(zlib[0] & 0x0F, 8);  // deflate
    std::vector<std::uint8_t> raw;
    std::size_t pos = 2;
    bool final = false;
    while (!final && pos + 5 <= zlib.size()) {
        final = (zlib[pos] & 1) != 0;
        EXPECT_EQ((zlib[pos] >> 1) & 3, 0) << "only stored blocks expected";
        const std::uint32_t len = zlib[pos + 1] | (zlib[pos + 2] << 8);
        const std::uint32_t nlen = zlib[pos + 3] | (zlib[pos + 4] << 8);
        EXPECT_EQ(len ^ 0xFFFFu, nlen);
        pos += 5;
        if (pos + len > zlib.size()) {
            ADD_FAILURE() << "block runs past the stream";
            return out;
        }
        raw.insert(raw.end(), zlib.begin() + static_cast<std::ptrdiff_t>(pos),
                   zlib.begin() + static_cast<std::ptrdiff_t>(pos + len));
        pos += len;
        ++out.storedBlocks;
    }
    EXPECT_TRUE(final);
    EXPECT_EQ(pos + 4, zlib.size());
    if (pos + 4 == zlib.size()) {
        EXPECT_EQ(BigEndian(&zlib[pos]), SlowAdler32(raw));
    }

    const std::size_t line = out.width + 1;
    EXPECT_EQ(raw.size(), line * out.height);
    for (std::uint32_t r = 0; r < out.height && (r + 1) * line <= raw.size(); ++r) {
        EXPECT_EQ(raw[r * line], 0) << "filter byte of row " << r;
        out.pixels.insert(out.pixels.end(), raw.begin() + static_cast<std::ptrdiff_t>(r * line + 1),
                          raw.begin() + static_cast<std::ptrdiff_t>((r + 1) * line));
    }
    return out;
}

Decoded DecodeStoredPngFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    const std::vector<std::uint8_t> png((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return DecodeStoredPng(png);
}

}  // namespace aetest
