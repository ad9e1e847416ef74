#include "autoexposure/GreyPng.h"

#include <array>
#include <fstream>

namespace autoexposure {

namespace {

std::array<std::uint32_t, 256> MakeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int k = 0; k < 8; ++k) c = (c & 1u) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}

void PutU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 24));
    out.push_back(static_cast<std::uint8_t>(value >> 16));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void PutChunk(std::vector<std::uint8_t>& out, const char type[4],
              const std::vector<std::uint8_t>& payload) {
    PutU32(out, static_cast<std::uint32_t>(payload.size()));
    const std::size_t typeAt = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), payload.begin(), payload.end());
    PutU32(out, Crc32(out.data() + typeAt, out.size() - typeAt));
}

}  // namespace

std::uint32_t Crc32(const std::uint8_t* data, std::size_t size, std::uint32_t crc) {
    static const std::array<std::uint32_t, 256> table = MakeCrcTable();
    crc = ~crc;
    for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
    return ~crc;
}

std::uint32_t Adler32(const std::uint8_t* data, std::size_t size, std::uint32_t adler) {
    const std::uint32_t mod = 65521u;
    std::uint32_t a = adler & 0xFFFFu;
    std::uint32_t b = adler >> 16;
    while (size > 0) {
        // 5552 bytes is the longest run before b can overflow 32 bits.
        const std::size_t run = size < 5552 ? size : 5552;
        for (std::size_t i = 0; i < run; ++i) {
            a += data[i];
            b += a;
        }
        a %= mod;
        b %= mod;
        data += run;
        size -= run;
    }
    return (b << 16) | a;
}

std::vector<std::uint8_t> EncodeGreyPng(const std::uint8_t* data, std::int32_t rows,
                                        std::int32_t columns, std::int32_t stride) {
    if (data == nullptr || rows <= 0 || columns <= 0 || stride < columns) return {};

    // Filtered scan lines: filter byte 0, then the row as it is.
    const std::size_t line = static_cast<std::size_t>(columns) + 1;
    std::vector<std::uint8_t> raw(line * static_cast<std::size_t>(rows));
    for (std::int32_t r = 0; r < rows; ++r) {
        std::uint8_t* dst = raw.data() + line * static_cast<std::size_t>(r);
        const std::uint8_t* src = data + static_cast<std::size_t>(r) * static_cast<std::size_t>(stride);
        dst[0] = 0;
        for (std::int32_t c = 0; c < columns; ++c) dst[c + 1] = src[c];
    }

    // zlib stream: header (deflate, 32K window, no dictionary, fastest), stored blocks, Adler-32.
    std::vector<std::uint8_t> zlib;
    zlib.reserve(raw.size() + raw.size() / 65535 * 5 + 16);
    zlib.push_back(0x78);
    zlib.push_back(0x01);
    std::size_t at = 0;
    do {
        const std::size_t left = raw.size() - at;
        const std::size_t len = left < 65535 ? left : 65535;
        const bool final = at + len == raw.size();
        zlib.push_back(final ? 1 : 0);  // BFINAL, BTYPE 00 (stored)
        zlib.push_back(static_cast<std::uint8_t>(len));
        zlib.push_back(static_cast<std::uint8_t>(len >> 8));
        zlib.push_back(static_cast<std::uint8_t>(~len));
        zlib.push_back(static_cast<std::uint8_t>(~len >> 8));
        zlib.insert(zlib.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                    raw.begin() + static_cast<std::ptrdiff_t>(at + len));
        at += len;
    } while (at < raw.size());
    PutU32(zlib, Adler32(raw.data(), raw.size()));

    std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<std::uint8_t> header;
    PutU32(header, static_cast<std::uint32_t>(columns));
    PutU32(header, static_cast<std::uint32_t>(rows));
    header.push_back(8);  // bit depth
    header.push_back(0);  // colour type: greyscale
    header.push_back(0);  // compression: deflate
    header.push_back(0);  // filter method
    header.push_back(0);  // no interlace
    PutChunk(png, "IHDR", header);
    PutChunk(png, "IDAT", zlib);
    PutChunk(png, "IEND", {});
    return png;
}

bool WriteGreyPng(const std::string& path, const std::uint8_t* data, std::int32_t rows,
                  std::int32_t columns, std::int32_t stride) {
    const std::vector<std::uint8_t> png = EncodeGreyPng(data, rows, columns, stride);
    if (png.empty()) return false;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) return false;
    file.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
    return static_cast<bool>(file);
}

}  // namespace autoexposure
