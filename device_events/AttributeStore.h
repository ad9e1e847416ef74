// Decodes an attribute store as the platform lays it out with MFGetAttributesAsBlob: a "IMFA" tag and
// a count, then one 32-byte item per attribute (key, value type, inline value or size and offset of
// the value's bytes), then the bytes of strings, GUIDs and blobs. Portable: lets the tools show
// attribute stores without Media Foundation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device_events/EventsEncoder.h"
#include "device_events/EventsReader.h"

namespace device_events {

// The platform's attribute types (variant type numbers).
enum class AttributeType : uint32_t {
  UInt32 = 0x13,
  UInt64 = 0x15,
  Double = 0x5,
  Guid = 0x48,
  String = 0x1F,
  Blob = 0x1011,
  Unknown = 0xD,
};

struct Attribute {
  Guid key;
  AttributeType type = AttributeType::UInt32;
  uint64_t number = 0;  // UInt32, UInt64, and Double as bits
  Guid guid;
  std::string text;   // String, as UTF-8
  std::string bytes;  // Blob
  double AsDouble() const;
};

constexpr uint32_t kAttributeStoreTag = 0x494D4641;  // "AFMI" in the file: 'IMFA' as a 32-bit value
constexpr size_t kAttributeItemSize = 32;

// `base` is the blob's offset in the file, for errors.
bool DecodeAttributeStore(const std::string &blob, uint64_t base, std::vector<Attribute> &attributes,
                          ReadError &error);

// The attribute with this key, or null.
const Attribute *FindAttribute(const std::vector<Attribute> &attributes, const Guid &key);

std::string Utf16ToUtf8(const uint8_t *bytes, size_t length);

}  // namespace device_events
