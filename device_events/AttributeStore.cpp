#include "device_events/AttributeStore.h"

#include <cstring>

namespace device_events {

namespace {

uint32_t U32At(const std::string &blob, size_t at) {
  uint32_t value = 0;
  std::memcpy(&value, blob.data() + at, 4);
  return value;
}

void AppendUtf8(std::string &out, uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

}  // namespace

double Attribute::AsDouble() const {
  double value = 0;
  std::memcpy(&value, &number, sizeof(value));
  return value;
}

std::string Utf16ToUtf8(const uint8_t *bytes, size_t length) {
  std::string out;
  const size_t units = length / 2;
  for (size_t i = 0; i < units; ++i) {
    uint32_t code = static_cast<uint32_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    if (code == 0) break;
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < units) {
      const uint32_t low = static_cast<uint32_t>(bytes[2 * i + 2] | (bytes[2 * i + 3] << 8));
      if (low >= 0xDC00 && low < 0xE000) {
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    AppendUtf8(out, code);
  }
  return out;
}

bool DecodeAttributeStore(const std::string &blob, uint64_t base, std::vector<Attribute> &attributes,
                          ReadError &error) {
  attributes.clear();
  auto fail = [&](uint64_t at, const std::string &message) {
    error.offset = base + at;
    error.message = "attribute store: " + message;
    return false;
  };
  if (blob.size() < 8) return fail(0, "shorter than its 8-byte head");
  if (U32At(blob, 0) != kAttributeStoreTag) return fail(0, "no IMFA tag");
  const uint32_t count = U32At(blob, 4);
  if (count > (blob.size() - 8) / kAttributeItemSize) {
    return fail(4, std::to_string(count) + " items do not fit in " + std::to_string(blob.size()) + " bytes");
  }
  attributes.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const size_t at = 8 + static_cast<size_t>(i) * kAttributeItemSize;
    Attribute attribute;
    std::memcpy(&attribute.key, blob.data() + at, sizeof(Guid));
    const uint32_t type = U32At(blob, at + 16);
    attribute.type = static_cast<AttributeType>(type);
    std::memcpy(&attribute.number, blob.data() + at + 24, 8);
    switch (attribute.type) {
      case AttributeType::UInt32:
        attribute.number &= 0xFFFFFFFFu;
        break;
      case AttributeType::UInt64:
      case AttributeType::Double:
      case AttributeType::Unknown:
        break;
      case AttributeType::Guid:
      case AttributeType::String:
      case AttributeType::Blob: {
        const uint32_t size = U32At(blob, at + 24);
        const uint32_t offset = U32At(blob, at + 28);
        if (offset > blob.size() || size > blob.size() - offset) {
          return fail(at + 24, "value of " + std::to_string(size) + " bytes at " + std::to_string(offset) +
                                   " lies outside the store's " + std::to_string(blob.size()) + " bytes");
        }
        const auto *bytes = reinterpret_cast<const uint8_t *>(blob.data()) + offset;
        if (attribute.type == AttributeType::Guid) {
          if (size != sizeof(Guid)) return fail(at + 24, "GUID value of " + std::to_string(size) + " bytes");
          std::memcpy(&attribute.guid, bytes, sizeof(Guid));
        } else if (attribute.type == AttributeType::String) {
          attribute.text = Utf16ToUtf8(bytes, size);
        } else {
          attribute.bytes.assign(reinterpret_cast<const char *>(bytes), size);
        }
        break;
      }
      default:
        return fail(at + 16, "unknown attribute type " + std::to_string(type));
    }
    attributes.push_back(std::move(attribute));
  }
  return true;
}

const Attribute *FindAttribute(const std::vector<Attribute> &attributes, const Guid &key) {
  for (const Attribute &attribute : attributes) {
    if (attribute.key == key) return &attribute;
  }
  return nullptr;
}

}  // namespace device_events
