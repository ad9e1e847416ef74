// The item walk over arbitrary bytes, natively under the address and undefined-behaviour sanitizers:
// every buffer is a heap block of exactly its length, so one byte read past it is caught.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "product/metadata/MetadataItemWalk.h"

namespace mft_core {
namespace {

MetadataWalkResult Walk(const std::vector<uint8_t> &bytes, uint32_t id, uint32_t minSize, uint32_t maxSize) {
  std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), exact.get());
  const MetadataWalkResult result =
      FindMetadataItem(exact.get(), static_cast<int32_t>(bytes.size()), id, minSize, maxSize);
  if (result.item) {
    EXPECT_GE(result.item.data, exact.get() + 8);
    EXPECT_LE(result.item.data + result.item.size, exact.get() + bytes.size());
  }
  return result;
}

std::vector<uint8_t> Items(std::initializer_list<uint32_t> words) {
  std::vector<uint8_t> bytes(words.size() * 4);
  std::memcpy(bytes.data(), std::data(words), bytes.size());
  return bytes;
}

TEST(MetadataItemWalk, TellsHowTheWalkEnded) {
  EXPECT_EQ(MetadataWalkEnd::NotFound, Walk({}, 1, 0, 100).end);
  EXPECT_EQ(MetadataWalkEnd::Found, Walk(Items({7, 12, 0xAAAA}), 7, 4, 4).end);
  EXPECT_EQ(MetadataWalkEnd::NotFound, Walk(Items({7, 12, 0xAAAA}), 7, 5, 5).end);
  EXPECT_EQ(MetadataWalkEnd::ZeroSize, Walk(Items({9, 0, 7, 12, 1}), 7, 4, 4).end);
  const auto overrun = Walk(Items({9, 13, 1}), 7, 0, 100);
  EXPECT_EQ(MetadataWalkEnd::Overrun, overrun.end);
  EXPECT_EQ(9u, overrun.itemId);
  EXPECT_EQ(13u, overrun.itemSize);
  // Three bytes left after an item: not enough for a head.
  std::vector<uint8_t> trailing = Items({9, 8});
  trailing.resize(11, 0);
  EXPECT_EQ(MetadataWalkEnd::Truncated, Walk(trailing, 7, 0, 100).end);
}

TEST(MetadataItemWalk, BoundsPickTheFirstItemOfTheIdWithinThemAndAHeadTooSmallNeverMatches) {
  // Three items of id 7 with 12, 16 and 20 payload bytes.
  const auto three = Items({7, 20, 1, 1, 1, 7, 24, 2, 2, 2, 2, 7, 28, 3, 3, 3, 3, 3});
  const struct {
    uint32_t minSize, maxSize, expected;  // 0: not found
  } cases[] = {{16, 16, 16}, {12, 12, 12}, {20, 20, 20}, {13, 19, 16}, {0, 0xFFFFFFFF, 12}, {17, 19, 0}, {21, 100, 0}};
  for (const auto &c : cases) {
    const auto result = Walk(three, 7, c.minSize, c.maxSize);
    EXPECT_EQ(c.expected != 0, static_cast<bool>(result.item)) << c.minSize << ".." << c.maxSize;
    if (result.item) EXPECT_EQ(c.expected, result.item.size) << c.minSize << ".." << c.maxSize;
  }
  EXPECT_FALSE(Walk(three, 8, 0, 0xFFFFFFFF).item);
  // [7, size 4] steps 4 bytes on, where its size field reads as id 4 with the next word, 8, as its size;
  // the real item of 4 payload bytes follows at 12.
  const auto small = Walk(Items({7, 4, 8, 7, 12, 0xAA}), 7, 0, 0xFFFFFFFF);
  ASSERT_TRUE(small.item);
  EXPECT_EQ(4u, small.item.size);
}

TEST(MetadataItemWalk, NeverReadsOutsideRandomBuffers) {
  std::mt19937 random(99);
  for (int round = 0; round < 20000; ++round) {
    std::vector<uint8_t> bytes(random() % 200);
    for (auto &byte : bytes) byte = static_cast<uint8_t>(random());
    for (size_t at = 0; at + 8 <= bytes.size() && random() % 6 != 0;) {
      const uint32_t id = random() % 4;
      const uint32_t size = random() % 5 == 0 ? random() : random() % 48;
      std::memcpy(bytes.data() + at, &id, 4);
      std::memcpy(bytes.data() + at + 4, &size, 4);
      at += size == 0 ? 8 : size;
    }
    const uint32_t minSize = random() % 40;
    const uint32_t maxSize = minSize + random() % 40;
    const MetadataWalkResult result = Walk(bytes, random() % 4, minSize, maxSize);
    if (result.item) {
      EXPECT_GE(result.item.size, minSize);
      EXPECT_LE(result.item.size, maxSize);
    }
  }
}

}  // namespace
}  // namespace mft_core
