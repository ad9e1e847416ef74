// The byte-level walk over the camera's metadata items. Plain C++ with no platform dependency, so that
// it is built and fuzzed natively as well as inside the transform.
//
// Each item is a head (u32 id, u32 size, where size counts the 8-byte head) followed by size - 8 bytes
// of payload. The walk never reads outside [items, items + remaining).
#pragma once

#include <cstdint>
#include <cstring>

namespace mft_core {

// A payload found in the metadata buffer; points into the buffer it was found in.
struct MetadataItemView {
  uint32_t size = 0;
  const uint8_t *data = nullptr;
  explicit operator bool() const { return data != nullptr; }
};

enum class MetadataWalkEnd {
  Found,
  NotFound,   // walked to the end of the buffer
  ZeroSize,   // an item claimed size 0 and would never advance
  Overrun,    // an item claimed more bytes than the buffer holds
  Truncated,  // fewer bytes left than an item head needs
};

struct MetadataWalkResult {
  MetadataItemView item;
  MetadataWalkEnd end = MetadataWalkEnd::NotFound;
  uint32_t itemId = 0;    // id of the item that ended the walk (ZeroSize, Overrun)
  uint32_t itemSize = 0;  // its size
};

constexpr uint32_t kMetadataItemHeadSize = 8;

inline uint32_t ReadLittleU32(const uint8_t *bytes) {
  uint32_t value;
  std::memcpy(&value, bytes, sizeof(value));
  return value;
}

// Finds the first item with `metadataId` whose payload size lies within minSize..maxSize; items with
// the id but another payload size are skipped.
inline MetadataWalkResult FindMetadataItem(const uint8_t *items, int32_t remaining, uint32_t metadataId,
                                           uint32_t minSize, uint32_t maxSize) {
  MetadataWalkResult result;
  const uint8_t *item = items;
  while (remaining > 0) {
    if (remaining < static_cast<int32_t>(kMetadataItemHeadSize)) {
      result.end = MetadataWalkEnd::Truncated;
      return result;
    }
    const uint32_t id = ReadLittleU32(item);
    const uint32_t size = ReadLittleU32(item + 4);
    if (size == 0) {
      result.end = MetadataWalkEnd::ZeroSize;
      result.itemId = id;
      return result;
    }
    if (size > static_cast<uint32_t>(remaining)) {
      result.end = MetadataWalkEnd::Overrun;
      result.itemId = id;
      result.itemSize = size;
      return result;
    }
    // A size below the head's own cannot carry a payload: never a match, but still a step forward.
    if (id == metadataId && size >= kMetadataItemHeadSize) {
      const uint32_t payloadSize = size - kMetadataItemHeadSize;
      if (payloadSize >= minSize && payloadSize <= maxSize) {
        result.item.size = payloadSize;
        result.item.data = item + kMetadataItemHeadSize;
        result.end = MetadataWalkEnd::Found;
        return result;
      }
    }
    item += size;
    remaining -= static_cast<int32_t>(size);
  }
  return result;
}

}  // namespace mft_core
