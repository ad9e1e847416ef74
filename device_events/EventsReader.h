// Reads a recording back: the header, then one record at a time. Every length in the file is checked
// against what is left of it; damage is reported as a ReadError naming the file offset, never by
// reading outside the bytes given. Portable: no Windows dependency.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device_events/EventsEncoder.h"
#include "device_events/EventsFormat.h"

namespace device_events {

struct ReadError {
  uint64_t offset = 0;
  std::string message;
  // The file ends inside a record that reads well as far as it goes: its writer ended there (Status::Cut).
  bool cut = false;
  // "offset 1234: record length 70000000 exceeds the 812 bytes left"
  std::string Text() const;
};

struct SampleValue;

struct Value {
  ValueTag tag = ValueTag::Null;
  uint64_t offset = 0;  // of the tag byte in the file
  uint64_t number = 0;  // U32, U64, I64 (as bits)
  Guid guid;
  std::string bytes;  // String, Bytes, Attributes, MediaType: the payload
  std::shared_ptr<const SampleValue> sample;

  bool IsNull() const { return tag == ValueTag::Null; }
  int64_t Signed() const { return static_cast<int64_t>(number); }
};

// A sample as recorded: its time, duration, flags and attributes; the capture metadata (an attribute
// store of its own) and the raw metadata stream it carries; pixel data only when asked for.
struct SampleValue {
  int64_t time = 0;
  int64_t duration = 0;
  uint32_t present = 0;  // kSampleHasTime, kSampleHasDuration
  uint32_t flags = 0;
  uint32_t totalLength = 0;
  uint32_t bufferCount = 0;
  Value attributes;       // Attributes
  Value captureMetadata;  // Attributes or Null
  Value rawMetadata;      // Bytes or Null
  Value pixels;           // Bytes or Null
};

struct Record {
  uint64_t offset = 0;  // of the record's length field
  uint16_t kind = 0;    // a RecordKind; unknown kinds are kept for the caller to skip
  uint64_t time = 0;    // 100 ns units since the header's start time
  uint32_t threadId = 0;
  uint32_t result = 0;  // an HRESULT
  std::vector<Value> values;

  RecordKind Kind() const { return static_cast<RecordKind>(kind); }
};

class EventsReader {
 public:
  // Cut: the file ends inside its last record, which is not returned; the records before it are whole.
  enum class Status { Record, End, Error, Cut };

  // The bytes are borrowed: they must outlive the reader.
  EventsReader(const uint8_t *data, size_t size) : data(data), size(size) {}

  bool ReadHeader(FileHeader &header, ReadError &error);
  Status Next(Record &record, ReadError &error);
  uint64_t Position() const { return position; }
  // One record on its own (as an encoder wrote it), outside a file.
  static bool ReadRecord(const uint8_t *data, size_t size, Record &record, ReadError &error);

 private:
  const uint8_t *data;
  size_t size;
  size_t position = 0;
  bool headerRead = false;
};

// A whole file in memory, for the tools.
bool ReadFileBytes(const std::string &path, std::vector<uint8_t> &bytes, std::string &error);

}  // namespace device_events
