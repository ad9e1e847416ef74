#include "device_events/EventsReader.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

namespace device_events {

namespace {

// A window [begin, end) of the file; `base` is the file offset of `begin`. A window that ends where the
// file ends before its record does (`fileEnd`) reports running out of bytes as a cut, not as damage.
class Cursor {
 public:
  Cursor(const uint8_t *begin, size_t length, uint64_t base, bool fileEnd = false)
      : begin(begin), length(length), base(base), fileEnd(fileEnd) {}

  uint64_t Offset() const { return base + at; }
  size_t Left() const { return length - at; }
  bool AtFileEnd() const { return fileEnd; }

  bool Fail(ReadError &error, const std::string &message) const {
    error.offset = Offset();
    error.message = message;
    return false;
  }

  bool Short(ReadError &error, const std::string &message) const {
    error.cut = fileEnd;
    return Fail(error, message);
  }

  template <typename T>
  bool Scalar(T &value, const char *what, ReadError &error) {
    if (Left() < sizeof(T)) {
      return Short(error, std::string(what) + " needs " + std::to_string(sizeof(T)) + " bytes, " +
                             std::to_string(Left()) + " left");
    }
    std::memcpy(&value, begin + at, sizeof(T));
    at += sizeof(T);
    return true;
  }

  bool Take(size_t count, const uint8_t *&out, const char *what, ReadError &error) {
    if (Left() < count) {
      return Short(error, std::string(what) + " of " + std::to_string(count) + " bytes exceeds the " +
                             std::to_string(Left()) + " bytes left");
    }
    out = begin + at;
    at += count;
    return true;
  }

  // A window over the next `count` bytes, which this cursor then skips.
  bool Sub(size_t count, Cursor &sub, const char *what, ReadError &error) {
    const uint8_t *start = nullptr;
    const uint64_t offset = Offset();
    if (!Take(count, start, what, error)) return false;
    sub = Cursor(start, count, offset);
    return true;
  }

 private:
  const uint8_t *begin;
  size_t length;
  uint64_t base;
  bool fileEnd;
  size_t at = 0;
};

bool ReadValue(Cursor &cursor, Value &value, int depth, ReadError &error);

bool ReadSample(Cursor &cursor, SampleValue &sample, int depth, ReadError &error) {
  if (!cursor.Scalar(sample.time, "sample time", error) || !cursor.Scalar(sample.duration, "sample duration", error) ||
      !cursor.Scalar(sample.present, "sample fields", error) || !cursor.Scalar(sample.flags, "sample flags", error) ||
      !cursor.Scalar(sample.totalLength, "sample length", error) ||
      !cursor.Scalar(sample.bufferCount, "sample buffer count", error)) {
    return false;
  }
  struct Part {
    Value *value;
    const char *name;
    ValueTag expected;
  } parts[] = {{&sample.attributes, "sample attributes", ValueTag::Attributes},
               {&sample.captureMetadata, "capture metadata", ValueTag::Attributes},
               {&sample.rawMetadata, "raw metadata", ValueTag::Bytes},
               {&sample.pixels, "pixel data", ValueTag::Bytes}};
  for (const Part &part : parts) {
    const uint64_t offset = cursor.Offset();
    if (!ReadValue(cursor, *part.value, depth + 1, error)) return false;
    const bool allowNull = part.expected != ValueTag::Attributes || part.value != &sample.attributes;
    if (part.value->tag != part.expected && !(allowNull && part.value->IsNull())) {
      error.offset = offset;
      error.message = std::string(part.name) + " is a " + ValueTagName(part.value->tag) + " value, expected " +
                      ValueTagName(part.expected);
      return false;
    }
  }
  if (cursor.Left() != 0) return cursor.Fail(error, std::to_string(cursor.Left()) + " bytes after the sample's values");
  return true;
}

bool ReadValue(Cursor &cursor, Value &value, int depth, ReadError &error) {
  value = Value();
  value.offset = cursor.Offset();
  uint8_t tag = 0;
  if (!cursor.Scalar(tag, "value tag", error)) return false;
  value.tag = static_cast<ValueTag>(tag);
  switch (value.tag) {
    case ValueTag::Null:
      return true;
    case ValueTag::U32: {
      uint32_t v = 0;
      if (!cursor.Scalar(v, "32-bit value", error)) return false;
      value.number = v;
      return true;
    }
    case ValueTag::U64:
    case ValueTag::I64:
      return cursor.Scalar(value.number, "64-bit value", error);
    case ValueTag::Guid: {
      const uint8_t *bytes = nullptr;
      if (!cursor.Take(sizeof(Guid), bytes, "GUID", error)) return false;
      std::memcpy(&value.guid, bytes, sizeof(Guid));
      return true;
    }
    case ValueTag::String:
    case ValueTag::Bytes:
    case ValueTag::Attributes:
    case ValueTag::MediaType:
    case ValueTag::Sample:
      break;
    default:
      // Tags from a later version carry a length, so they can be skipped; this version has none.
      if (tag >= 16) break;
      error.offset = value.offset;
      error.message = "unknown value tag " + std::to_string(tag);
      return false;
  }
  uint32_t length = 0;
  if (!cursor.Scalar(length, "value length", error)) return false;
  Cursor payload(nullptr, 0, 0);
  if (!cursor.Sub(length, payload, ValueTagName(value.tag), error)) return false;
  if (value.tag != ValueTag::Sample) {
    const uint8_t *bytes = nullptr;
    payload.Take(length, bytes, "payload", error);
    value.bytes.assign(reinterpret_cast<const char *>(bytes), length);
    return true;
  }
  if (depth >= kMaxNesting) {
    error.offset = value.offset;
    error.message = "values nested deeper than " + std::to_string(kMaxNesting);
    return false;
  }
  auto sample = std::make_shared<SampleValue>();
  if (!ReadSample(payload, *sample, depth, error)) return false;
  value.sample = std::move(sample);
  return true;
}

}  // namespace

std::string ReadError::Text() const { return "offset " + std::to_string(offset) + ": " + message; }

bool EventsReader::ReadHeader(FileHeader &header, ReadError &error) {
  Cursor cursor(data, size, 0);
  const uint8_t *magic = nullptr;
  if (!cursor.Take(sizeof(kMagic), magic, "file signature", error)) return false;
  if (std::memcmp(magic, kMagic, sizeof(kMagic)) != 0) {
    error.offset = 0;
    error.message = "not a device events recording (no \"WQEVENTS\" signature)";
    return false;
  }
  if (!cursor.Scalar(header.formatVersion, "format version", error)) return false;
  if (header.formatVersion == 0 || header.formatVersion > kFormatVersion) {
    return cursor.Fail(error, "format version " + std::to_string(header.formatVersion) +
                                  " is not one this reader knows (it reads up to " +
                                  std::to_string(kFormatVersion) + ")");
  }
  uint32_t headerLength = 0;
  if (!cursor.Scalar(headerLength, "header length", error)) return false;
  Cursor fields(nullptr, 0, 0);
  if (!cursor.Sub(headerLength, fields, "header", error)) return false;

  Value moduleVersion, transformClass, transformName, startTime, options;
  struct Field {
    Value *value;
    ValueTag tag;
    const char *name;
  } expected[] = {{&moduleVersion, ValueTag::String, "module version"},
                  {&transformClass, ValueTag::Guid, "transform class"},
                  {&transformName, ValueTag::String, "transform name"},
                  {&startTime, ValueTag::U64, "start time"},
                  {&options, ValueTag::U32, "options"}};
  for (const Field &field : expected) {
    const uint64_t offset = fields.Offset();
    if (!ReadValue(fields, *field.value, kMaxNesting, error)) return false;
    if (field.value->tag != field.tag) {
      error.offset = offset;
      error.message = std::string("header field ") + field.name + " is a " + ValueTagName(field.value->tag) +
                      " value, expected " + ValueTagName(field.tag);
      return false;
    }
  }
  header.moduleVersion = moduleVersion.bytes;
  header.transformClass = transformClass.guid;
  header.transformName = transformName.bytes;
  header.startTime = startTime.number;
  header.options = static_cast<uint32_t>(options.number);
  position = static_cast<size_t>(cursor.Offset());
  headerRead = true;
  return true;
}

namespace {

// The record's fixed fields and values from `body`, which holds the record after its length field.
bool ReadBody(Cursor &body, Record &record, ReadError &error) {
  uint16_t valueCount = 0;
  if (!body.Scalar(record.kind, "record kind", error) || !body.Scalar(record.time, "record time", error) ||
      !body.Scalar(record.threadId, "thread id", error) || !body.Scalar(record.result, "result", error) ||
      !body.Scalar(valueCount, "value count", error)) {
    return false;
  }
  // Each value takes at least one byte, so the count cannot ask for more memory than the record holds.
  if (valueCount > body.Left() && !body.AtFileEnd()) {
    error.offset = body.Offset() - 2;
    error.message = "value count " + std::to_string(valueCount) + " exceeds the record's " +
                    std::to_string(body.Left()) + " bytes";
    return false;
  }
  record.values.resize(std::min<size_t>(valueCount, body.Left() + 1));
  for (Value &value : record.values) {
    if (!ReadValue(body, value, 0, error)) return false;
  }
  if (record.values.size() != valueCount) return body.Short(error, "value count " + std::to_string(valueCount));
  if (body.Left() != 0) {
    return body.Fail(error, std::to_string(body.Left()) + " bytes after the record's " + std::to_string(valueCount) +
                                " values");
  }
  return true;
}

}  // namespace

EventsReader::Status EventsReader::Next(Record &record, ReadError &error) {
  error = ReadError();
  if (!headerRead) {
    error.offset = 0;
    error.message = "records read before the header";
    return Status::Error;
  }
  if (position == size) return Status::End;
  Cursor cursor(data + position, size - position, position, true);
  record = Record();
  record.offset = position;
  uint32_t length = 0;
  auto cut = [&](const std::string &what) {
    error.cut = true;
    error.offset = record.offset;
    error.message = "the recording ends inside the record at offset " + std::to_string(record.offset) + " (" + what +
                    "): the process writing it ended there";
    return Status::Cut;
  };
  if (cursor.Left() < sizeof(length)) {
    return cut(std::to_string(cursor.Left()) + " of its 4 length bytes present");
  }
  cursor.Scalar(length, "record length", error);
  if (length < kRecordPrefixSize || length > kMaxRecordLength) {
    error.offset = record.offset;
    error.message = "record length " + std::to_string(length) + " is outside " +
                    std::to_string(kRecordPrefixSize) + ".." + std::to_string(kMaxRecordLength);
    return Status::Error;
  }
  if (length > cursor.Left()) {
    // A cut only when what is there reads as the start of a record; anything else is damage.
    const size_t present = cursor.Left();
    Cursor body(data + position + 4, present, position + 4, true);
    Record partial;
    if (ReadBody(body, partial, error) || !error.cut) {
      if (error.message.empty()) {
        error.offset = record.offset + 4;
        error.message = "record of " + std::to_string(length) + " bytes exceeds the " + std::to_string(present) +
                        " bytes left";
      }
      error.cut = false;
      return Status::Error;
    }
    return cut(std::to_string(present) + " of its " + std::to_string(length) + " bytes present");
  }
  Cursor body(nullptr, 0, 0);
  cursor.Sub(length, body, "record", error);
  if (!ReadBody(body, record, error)) return Status::Error;
  position = static_cast<size_t>(cursor.Offset());
  return Status::Record;
}

bool EventsReader::ReadRecord(const uint8_t *data, size_t size, Record &record, ReadError &error) {
  EventsReader reader(data, size);
  reader.headerRead = true;
  if (reader.Next(record, error) != Status::Record) {
    if (error.message.empty()) error.message = "no record";
    return false;
  }
  return true;
}

bool ReadFileBytes(const std::string &path, std::vector<uint8_t> &bytes, std::string &error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot open " + path;
    return false;
  }
  bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  if (file.bad()) {
    error = "cannot read " + path;
    return false;
  }
  return true;
}

}  // namespace device_events
