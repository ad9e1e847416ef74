// The device events recording ("events.bin"): constants of the file layout shared by the recorder,
// the reader and the tools. Portable: no Windows dependency. docs/events-format.md describes the
// layout for anyone writing another reader.
#pragma once

#include <cstddef>
#include <cstdint>

namespace device_events {

// "WQEVENTS", then the format version and the length of the header fields that follow.
constexpr char kMagic[8] = {'W', 'Q', 'E', 'V', 'E', 'N', 'T', 'S'};
constexpr uint32_t kFormatVersion = 1;
constexpr size_t kFixedHeaderSize = 16;
// Body bytes of one record before its values: kind, time, thread, result, value count.
constexpr size_t kRecordPrefixSize = 2 + 8 + 4 + 4 + 2;
// No honest record is near this; a longer one means a damaged file.
constexpr uint32_t kMaxRecordLength = 64u * 1024 * 1024;
// Nested values (a sample holds attribute stores) never go deeper than this.
constexpr int kMaxNesting = 4;

enum class RecordKind : uint16_t {
  CallEntry = 1,             // a guarded call of the transform, with its arguments
  CallExit = 2,              // the same call's result and what it handed out
  ApplicationKsRequest = 3,  // a KS request an application made to the transform
  DriverKsRequest = 4,       // a KS request the transform made to the driver, with the answer
  DriverEvent = 5,           // a driver event the listener delivered
  MediaEvent = 6,            // a media event the transform queued for the frame server
  Dropped = 7,               // records that were not written
  Filter = 8,                // the driver filter as the transform found it at initialisation
  End = 9,                   // the recording was closed cleanly
  RingDump = 10,             // first of a flight-recorder dump: why it was written, what the ring lost
  State = 11,                // in a flight-recorder dump, between the set-up records kept aside and the ring's
};

enum class ValueTag : uint8_t {
  Null = 1,        // an empty pointer
  U32 = 2,         // 4 bytes
  U64 = 3,         // 8 bytes
  I64 = 4,         // 8 bytes, two's complement
  Guid = 5,        // 16 bytes: Data1 (u32), Data2 (u16), Data3 (u16), Data4 (8 bytes)
  String = 6,      // u32 length, UTF-8 bytes
  Bytes = 7,       // u32 length, bytes
  Attributes = 8,  // u32 length, an attribute store as the platform serialises it to a stream
  MediaType = 9,   // u32 length, the media type's attribute store, serialised the same way
  Sample = 10,     // u32 length, a sample (see SampleValue)
};

// What made the flight recorder write its ring out.
enum class DumpTrigger : uint32_t {
  FailedCall = 1,      // a guarded call failed with a result that is not part of a normal exchange
  FirmwareEvent = 2,   // the camera's firmware event or a thermal-state event
  DriverRequest = 3,   // a request to the driver failed, after the not-ready retries
  Requested = 4,       // an engineer asked for it (the named event, or a tool)
};
const char *DumpTriggerName(DumpTrigger trigger);

// Why records were dropped.
enum class DropReason : uint32_t { QueueFull = 1, SizeCap = 2 };

// KS request kinds as recorded (the framework's KsControlType numbering).
enum class KsKind : uint32_t { Event = 0, Property = 1, Method = 2 };

// Bits of a sample value's `present` field.
constexpr uint32_t kSampleHasTime = 0x1;
constexpr uint32_t kSampleHasDuration = 0x2;

// Header `options` bits.
constexpr uint32_t kOptionPixelData = 0x1;

const char *RecordKindName(RecordKind kind);
const char *ValueTagName(ValueTag tag);

}  // namespace device_events
