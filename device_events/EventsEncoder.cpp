#include "device_events/EventsEncoder.h"

#include <cstdio>

namespace device_events {

// The file is little-endian; so are the machines the recorder runs on.
static_assert(sizeof(uint32_t) == 4 && sizeof(uint64_t) == 8, "fixed-width integers");

std::string GuidText(const Guid &guid) {
  char text[40];
  std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned>(guid.data1), guid.data2, guid.data3, guid.data4[0], guid.data4[1],
                guid.data4[2], guid.data4[3], guid.data4[4], guid.data4[5], guid.data4[6], guid.data4[7]);
  return text;
}

void EncodeHeader(const FileHeader &header, std::vector<uint8_t> &out) {
  out.insert(out.end(), kMagic, kMagic + sizeof(kMagic));
  const uint32_t version = header.formatVersion;
  out.insert(out.end(), reinterpret_cast<const uint8_t *>(&version), reinterpret_cast<const uint8_t *>(&version) + 4);
  const size_t lengthAt = out.size();
  out.resize(out.size() + 4);
  // The header fields are typed values, so that a later version can append fields that older readers skip.
  RecordEncoder fields(out);
  fields.String(header.moduleVersion);
  fields.GuidValue(header.transformClass);
  fields.String(header.transformName);
  fields.U64(header.startTime);
  fields.U32(header.options);
  const uint32_t length = static_cast<uint32_t>(out.size() - lengthAt - 4);
  std::memcpy(out.data() + lengthAt, &length, 4);
}

void RecordEncoder::Begin(RecordKind kind, uint64_t time, uint32_t threadId, uint32_t result) {
  recordStart = out.size();
  valueCount = 0;
  depth = 0;
  PutU32(0);  // length, patched by End
  RawScalar(static_cast<uint16_t>(kind));
  RawScalar(time);
  RawScalar(threadId);
  RawScalar(result);
  RawScalar(static_cast<uint16_t>(0));  // value count, patched by End
}

void RecordEncoder::End() {
  const uint32_t length = static_cast<uint32_t>(out.size() - recordStart - 4);
  std::memcpy(out.data() + recordStart, &length, 4);
  const uint16_t count = static_cast<uint16_t>(valueCount);
  std::memcpy(out.data() + recordStart + 4 + kRecordPrefixSize - 2, &count, 2);
}

void RecordEncoder::SetResult(uint32_t result) { std::memcpy(out.data() + recordStart + 4 + 2 + 8 + 4, &result, 4); }

void RecordEncoder::GuidValue(const Guid &value) {
  Tag(ValueTag::Guid);
  Raw(&value, sizeof(value));
}

void RecordEncoder::String(const char *text, size_t length) {
  Tag(ValueTag::String);
  PutU32(static_cast<uint32_t>(length));
  Raw(text, length);
}

void RecordEncoder::Bytes(const void *data, size_t length) {
  Tag(ValueTag::Bytes);
  PutU32(static_cast<uint32_t>(length));
  Raw(data, length);
}

size_t RecordEncoder::BeginBlob(ValueTag tag) {
  Tag(tag);
  const size_t position = out.size();
  PutU32(0);
  ++depth;
  return position;
}

void RecordEncoder::EndBlob(size_t position) {
  --depth;
  const uint32_t length = static_cast<uint32_t>(out.size() - position - 4);
  std::memcpy(out.data() + position, &length, 4);
}

void RecordEncoder::Raw(const void *data, size_t length) {
  if (length == 0) return;
  const auto *bytes = static_cast<const uint8_t *>(data);
  out.insert(out.end(), bytes, bytes + length);
}

}  // namespace device_events
