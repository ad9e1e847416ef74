// The self-describing event encoding that trace tools decode without a manifest: a provider-traits blob,
// an event-metadata blob naming the event and its typed fields, then one data descriptor per value.
// Building an event allocates nothing: the blobs live in fixed buffers on the caller's stack.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {
namespace tracelogging {

// In-types of the fields this system writes (the platform's TDH values).
enum InType : uint8_t {
  InUnicodeString = 1,
  InAnsiString = 2,
  InInt32 = 7,
  InUInt32 = 8,
  InInt64 = 9,
  InUInt64 = 10,
  InGuid = 15,
};
constexpr uint8_t kOutTypeUtf8 = 35;
constexpr uint8_t kOutTypeFollows = 0x80;

enum Opcode : uint8_t { OpcodeInfo = 0, OpcodeStart = 1, OpcodeStop = 2 };

// One field: its name, its type and where its value lies (a string's value includes its nul).
struct Field {
  const char *name;
  uint8_t inType;
  uint8_t outType;  // 0: none
  const void *data;
  uint32_t size;
};

// Provider traits: UINT16 total size, then the provider name as nul-terminated UTF-8.
class ProviderTraits {
 public:
  explicit ProviderTraits(const char *providerName);
  const uint8_t *Data() const { return bytes; }
  uint16_t Size() const { return size; }

 private:
  uint8_t bytes[128];
  uint16_t size;
};

// Event metadata: UINT16 total size, tag byte 0, event name, then per field its name and in-type (high
// bit set when an out-type byte follows). Names that do not fit are cut; the result stays well formed.
class EventMetadata {
 public:
  EventMetadata(const char *eventName, const Field *fields, size_t count);
  const uint8_t *Data() const { return bytes; }
  uint16_t Size() const { return size; }
  bool Complete() const { return complete; }

 private:
  bool Append(const void *data, size_t length);
  uint8_t bytes[256];
  uint16_t size = 2;
  bool complete = true;
};

constexpr size_t kMaxFields = 8;

// The data descriptors of one event: traits (type 2), metadata (type 1), then the values (type 0).
// Returns the descriptor count, or 0 when `capacity` is too small.
ULONG FillDescriptors(const ProviderTraits &traits, const EventMetadata &metadata, const Field *fields, size_t count,
                      EVENT_DATA_DESCRIPTOR *descriptors, size_t capacity);

// The event descriptor of a self-describing event.
EVENT_DESCRIPTOR MakeDescriptor(UCHAR level, UCHAR opcode, ULONGLONG keyword);

}  // namespace tracelogging
}  // namespace user_space_frameworks
