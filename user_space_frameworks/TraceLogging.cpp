#include "user_space_frameworks/TraceLogging.h"

#include <cstring>

namespace user_space_frameworks {
namespace tracelogging {

namespace {

void StoreSize(uint8_t *bytes, uint16_t size) {
  bytes[0] = static_cast<uint8_t>(size & 0xFF);
  bytes[1] = static_cast<uint8_t>(size >> 8);
}

void Describe(EVENT_DATA_DESCRIPTOR &descriptor, const void *data, ULONG size, ULONG type) {
  descriptor.Ptr = reinterpret_cast<ULONGLONG>(data);
  descriptor.Size = size;
  descriptor.Reserved = type;  // the type byte is the low byte
}

}  // namespace

ProviderTraits::ProviderTraits(const char *providerName) {
  size_t length = std::strlen(providerName);
  if (length > sizeof(bytes) - 3) length = sizeof(bytes) - 3;
  std::memcpy(bytes + 2, providerName, length);
  bytes[2 + length] = 0;
  size = static_cast<uint16_t>(length + 3);
  StoreSize(bytes, size);
}

bool EventMetadata::Append(const void *data, size_t length) {
  if (size + length > sizeof(bytes)) {
    complete = false;
    return false;
  }
  std::memcpy(bytes + size, data, length);
  size = static_cast<uint16_t>(size + length);
  return true;
}

EventMetadata::EventMetadata(const char *eventName, const Field *fields, size_t count) {
  const uint8_t tag = 0;
  Append(&tag, 1);
  Append(eventName, std::strlen(eventName) + 1);
  for (size_t i = 0; i < count && complete; ++i) {
    const uint8_t types[2] = {static_cast<uint8_t>(fields[i].inType | (fields[i].outType ? kOutTypeFollows : 0)),
                              fields[i].outType};
    const size_t nameLength = std::strlen(fields[i].name) + 1;
    if (size + nameLength + (fields[i].outType ? 2 : 1) > sizeof(bytes)) {
      complete = false;
      break;
    }
    Append(fields[i].name, nameLength);
    Append(types, fields[i].outType ? 2 : 1);
  }
  StoreSize(bytes, size);
}

ULONG FillDescriptors(const ProviderTraits &traits, const EventMetadata &metadata, const Field *fields, size_t count,
                      EVENT_DATA_DESCRIPTOR *descriptors, size_t capacity) {
  if (capacity < count + 2) return 0;
  Describe(descriptors[0], traits.Data(), traits.Size(), EVENT_DATA_DESCRIPTOR_TYPE_PROVIDER_METADATA);
  Describe(descriptors[1], metadata.Data(), metadata.Size(), EVENT_DATA_DESCRIPTOR_TYPE_EVENT_METADATA);
  for (size_t i = 0; i < count; ++i) {
    Describe(descriptors[2 + i], fields[i].data, fields[i].size, EVENT_DATA_DESCRIPTOR_TYPE_NONE);
  }
  return static_cast<ULONG>(count + 2);
}

EVENT_DESCRIPTOR MakeDescriptor(UCHAR level, UCHAR opcode, ULONGLONG keyword) {
  EVENT_DESCRIPTOR descriptor = {};
  descriptor.Id = 0;
  descriptor.Version = 0;
  descriptor.Channel = WINEVENT_CHANNEL_TRACELOGGING;
  descriptor.Level = level;
  descriptor.Opcode = opcode;
  descriptor.Task = 0;
  descriptor.Keyword = keyword;
  return descriptor;
}

}  // namespace tracelogging
}  // namespace user_space_frameworks
