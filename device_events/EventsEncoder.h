// Encodes the header and the records of a recording into bytes. Portable; the recorder fills records
// on the calling thread and hands the bytes to its writer.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "device_events/EventsFormat.h"

namespace device_events {

// The layout of a Windows GUID, so that one converts to the other by copying.
struct Guid {
  uint32_t data1 = 0;
  uint16_t data2 = 0;
  uint16_t data3 = 0;
  uint8_t data4[8] = {};
  bool operator==(const Guid &other) const {
    return data1 == other.data1 && data2 == other.data2 && data3 == other.data3 &&
           std::memcmp(data4, other.data4, sizeof(data4)) == 0;
  }
  bool operator!=(const Guid &other) const { return !(*this == other); }
};
static_assert(sizeof(Guid) == 16, "GUID layout");

// "{7CCF1517-DB56-4C60-853B-1D410539B47F}"
std::string GuidText(const Guid &guid);

struct FileHeader {
  uint32_t formatVersion = kFormatVersion;
  std::string moduleVersion;
  Guid transformClass;
  std::string transformName;
  uint64_t startTime = 0;  // UTC, 100 ns units since 1601-01-01 (a Windows FILETIME)
  uint32_t options = 0;    // kOption* bits
};

void EncodeHeader(const FileHeader &header, std::vector<uint8_t> &out);

// Appends one record to a byte vector: Begin, values, End. Blob values (attribute stores, media types,
// samples) are opened with BeginBlob, filled with raw bytes or nested values, and closed with EndBlob.
class RecordEncoder {
 public:
  explicit RecordEncoder(std::vector<uint8_t> &out) : out(out) {}

  void Begin(RecordKind kind, uint64_t time, uint32_t threadId, uint32_t result);
  void End();
  // The result is often known only once the record's values are written.
  void SetResult(uint32_t result);

  void Null() { Tag(ValueTag::Null); }
  void U32(uint32_t value) {
    Tag(ValueTag::U32);
    RawScalar(value);
  }
  void U64(uint64_t value) {
    Tag(ValueTag::U64);
    RawScalar(value);
  }
  void I64(int64_t value) {
    Tag(ValueTag::I64);
    RawScalar(value);
  }
  void GuidValue(const Guid &value);
  void String(const char *text, size_t length);
  void String(const std::string &text) { String(text.data(), text.size()); }
  void Bytes(const void *data, size_t length);

  // Returns the position to give to EndBlob.
  size_t BeginBlob(ValueTag tag);
  void EndBlob(size_t position);
  void Raw(const void *data, size_t length);
  // Byte by byte: with room in the buffer each byte is a store, where a range insertion is a call.
  template <typename T>
  void RawScalar(T value) {
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    for (uint8_t byte : bytes) out.push_back(byte);
  }
  // Where raw bytes of a blob go (for writers that append directly).
  std::vector<uint8_t> &Buffer() { return out; }

 private:
  void Tag(ValueTag tag) {
    if (depth == 0) ++valueCount;
    out.push_back(static_cast<uint8_t>(tag));
  }
  void PutU32(uint32_t value) { RawScalar(value); }

  std::vector<uint8_t> &out;
  size_t recordStart = 0;
  uint32_t valueCount = 0;
  int depth = 0;
};

}  // namespace device_events
