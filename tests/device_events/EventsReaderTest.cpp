// The recording's reader over well-formed, damaged and random files, natively under the address and
// undefined-behaviour sanitizers: each input is a heap block of exactly its length, so one byte read
// past it is caught.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "device_events/AttributeStore.h"
#include "device_events/EventsEncoder.h"
#include "device_events/EventsReader.h"
#include "device_events/Timeline.h"

namespace device_events {
namespace {

constexpr Guid kKey = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr Guid kSubtypeKey = {0xF7E34C9A, 0x42E8, 0x4714, {0xB7, 0x4B, 0xCB, 0x29, 0xD7, 0x2C, 0x35, 0xE5}};
constexpr Guid kZ16 = {0x2036315A, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

// An attribute store as the platform lays it out: six attributes (UINT32, UINT64, double, GUID,
// string "hi", 3-byte blob), taken from the platform's own output.
const uint8_t kPlatformStore[] = {
    0x41, 0x46, 0x4d, 0x49, 0x06, 0x00, 0x00, 0x00, 0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0x01, 0x02,
    0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x13, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xdd, 0xcc, 0xbb, 0xaa,
    0x00, 0x00, 0x00, 0x00, 0x11, 0x11, 0x11, 0x21, 0x22, 0x22, 0x33, 0x33, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06,
    0x07, 0x08, 0x15, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,
    0x11, 0x11, 0x11, 0x31, 0x22, 0x22, 0x33, 0x33, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x05, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf8, 0x3f, 0x11, 0x11, 0x11, 0x41,
    0x22, 0x22, 0x33, 0x33, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x48, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0xf1, 0x00, 0x00, 0x00, 0x11, 0x11, 0x11, 0x51, 0x22, 0x22, 0x33, 0x33,
    0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x1f, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00,
    0x00, 0x00, 0xeb, 0x00, 0x00, 0x00, 0x11, 0x11, 0x11, 0x61, 0x22, 0x22, 0x33, 0x33, 0x01, 0x02, 0x03, 0x04,
    0x05, 0x06, 0x07, 0x08, 0x11, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0xe8, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x09, 0x08,
    0x07, 0x68, 0x00, 0x69, 0x00, 0x00, 0x00, 0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0x01, 0x02, 0x03,
    0x04, 0x05, 0x06, 0x07, 0x08};

// A store with one subtype attribute, built by hand in the same layout.
std::string SubtypeStore(const Guid &subtype) {
  std::string blob(8 + 32 + 16, '\0');
  const uint32_t tag = kAttributeStoreTag, count = 1, type = 0x48, size = 16, offset = 40;
  std::memcpy(&blob[0], &tag, 4);
  std::memcpy(&blob[4], &count, 4);
  std::memcpy(&blob[8], &kSubtypeKey, 16);
  std::memcpy(&blob[24], &type, 4);
  std::memcpy(&blob[32], &size, 4);
  std::memcpy(&blob[36], &offset, 4);
  std::memcpy(&blob[40], &subtype, 16);
  return blob;
}

// A small recording with every kind of value and the record kinds the recorder writes.
std::vector<uint8_t> SampleRecording() {
  std::vector<uint8_t> bytes;
  FileHeader header;
  header.moduleVersion = "1.2.3.4";
  header.transformClass = kKey;
  header.transformName = "WQ400 Depth Device MFT";
  header.startTime = 133000000000000000ull;
  EncodeHeader(header, bytes);
  const std::string store(reinterpret_cast<const char *>(kPlatformStore), sizeof(kPlatformStore));

  RecordEncoder record(bytes);
  record.Begin(RecordKind::CallEntry, 10, 0x20, 0);
  record.String("SetOutputStreamState");
  record.U32(1);
  size_t blob = record.BeginBlob(ValueTag::MediaType);
  const std::string type = SubtypeStore(kZ16);
  record.Raw(type.data(), type.size());
  record.EndBlob(blob);
  record.U32(2);
  record.U32(0);
  record.End();

  record.Begin(RecordKind::CallEntry, 20, 0x24, 0);
  record.String("ProcessInput");
  record.U32(0);
  blob = record.BeginBlob(ValueTag::Sample);
  record.RawScalar<int64_t>(333333);
  record.RawScalar<int64_t>(333333);
  record.RawScalar<uint32_t>(kSampleHasTime | kSampleHasDuration);
  record.RawScalar<uint32_t>(0);
  record.RawScalar<uint32_t>(848 * 480 * 2);
  record.RawScalar<uint32_t>(1);
  const size_t attributes = record.BeginBlob(ValueTag::Attributes);
  record.Raw(store.data(), store.size());
  record.EndBlob(attributes);
  record.Null();
  const uint8_t raw[4] = {1, 2, 3, 4};
  record.Bytes(raw, sizeof(raw));
  record.Null();
  record.EndBlob(blob);
  record.U32(0);
  record.End();

  record.Begin(RecordKind::CallExit, 30, 0x24, 0x80004005);
  record.String("ProcessInput");
  record.End();

  record.Begin(RecordKind::DriverKsRequest, 40, 0x28, 0);
  record.U32(static_cast<uint32_t>(KsKind::Property));
  uint8_t identifier[24] = {};
  std::memcpy(identifier, &kKey, 16);
  identifier[16] = 4;
  identifier[20] = 1;
  record.Bytes(identifier, sizeof(identifier));
  record.Null();
  record.U32(8);
  record.Bytes(raw, sizeof(raw));
  record.U32(4);
  record.End();

  record.Begin(RecordKind::MediaEvent, 50, 0x28, 0);
  record.U32(602);
  record.GuidValue(Guid());
  record.Null();
  record.U32(1);
  record.End();

  record.Begin(RecordKind::Dropped, 60, 0x2C, 0);
  record.U64(17);
  record.U32(static_cast<uint32_t>(DropReason::QueueFull));
  record.End();

  record.Begin(RecordKind::End, 70, 0x2C, 0);
  record.U64(6);
  record.U64(17);
  record.I64(-5);
  record.End();
  return bytes;
}

enum class Outcome { Complete, Damaged, Cut };

// Reads everything, formatting each record as the dump does; the input lives in a block of exactly
// its size. Reports the error's offset through `error`.
Outcome ReadAll(const std::vector<uint8_t> &bytes, std::vector<Record> *records, ReadError &error) {
  std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size() + (bytes.empty() ? 1 : 0)]);
  if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
  EventsReader reader(exact.get(), bytes.size());
  FileHeader header;
  const Names names;
  if (!reader.ReadHeader(header, error)) return Outcome::Damaged;
  FormatHeader(header, names);
  Record record;
  for (;;) {
    switch (reader.Next(record, error)) {
      case EventsReader::Status::End: return Outcome::Complete;
      case EventsReader::Status::Error: return Outcome::Damaged;
      case EventsReader::Status::Cut: return Outcome::Cut;
      case EventsReader::Status::Record:
        FormatRecord(record, names, TimelineOptions{true});
        RecordStreams(record);
        if (records) records->push_back(record);
        break;
    }
  }
}

TEST(EventsReader, ReadsBackEveryValueAndRecordTheEncoderWrote) {
  const std::vector<uint8_t> bytes = SampleRecording();
  EventsReader reader(bytes.data(), bytes.size());
  FileHeader header;
  ReadError error;
  ASSERT_TRUE(reader.ReadHeader(header, error)) << error.Text();
  EXPECT_EQ(kFormatVersion, header.formatVersion);
  EXPECT_EQ("1.2.3.4", header.moduleVersion);
  EXPECT_EQ(kKey, header.transformClass);
  EXPECT_EQ("WQ400 Depth Device MFT", header.transformName);
  EXPECT_EQ(133000000000000000ull, header.startTime);

  std::vector<Record> records;
  ASSERT_EQ(Outcome::Complete, ReadAll(bytes, &records, error)) << error.Text();
  ASSERT_EQ(7u, records.size());

  const Record &call = records[0];
  EXPECT_EQ(RecordKind::CallEntry, call.Kind());
  EXPECT_EQ(10u, call.time);
  EXPECT_EQ(0x20u, call.threadId);
  ASSERT_EQ(5u, call.values.size());
  EXPECT_EQ("SetOutputStreamState", CallName(call));
  EXPECT_EQ(ValueTag::MediaType, call.values[2].tag);
  EXPECT_EQ(std::vector<uint32_t>{1}, RecordStreams(call));

  const Record &input = records[1];
  ASSERT_EQ(ValueTag::Sample, input.values[2].tag);
  const SampleValue &sample = *input.values[2].sample;
  EXPECT_EQ(333333, sample.time);
  EXPECT_EQ(848u * 480 * 2, sample.totalLength);
  EXPECT_EQ(sizeof(kPlatformStore), sample.attributes.bytes.size());
  EXPECT_TRUE(sample.captureMetadata.IsNull());
  EXPECT_EQ(std::string("\x01\x02\x03\x04", 4), sample.rawMetadata.bytes);
  EXPECT_TRUE(sample.pixels.IsNull());

  EXPECT_EQ(0x80004005u, records[2].result);
  EXPECT_EQ(std::vector<uint32_t>{1}, RecordStreams(records[4]));
  EXPECT_EQ(17u, records[5].values[0].number);
  EXPECT_EQ(-5, records[6].values[2].Signed());
  EXPECT_EQ(records[6].offset + 4 + records[6].values.size(), records[6].offset + 4 + 3);
}

TEST(EventsReader, TimelineNamesCallsResultsTypesAndDrops) {
  const std::vector<uint8_t> bytes = SampleRecording();
  std::vector<Record> records;
  ReadError error;
  ASSERT_EQ(Outcome::Complete, ReadAll(bytes, &records, error));
  const Names names;
  const std::string state = FormatRecord(records[0], names);
  EXPECT_NE(std::string::npos, state.find("SetOutputStreamState(1, type{'Z16 '}, 2, 0)")) << state;
  EXPECT_NE(std::string::npos, FormatRecord(records[2], names).find("ProcessInput -> E_FAIL"));
  EXPECT_NE(std::string::npos, FormatRecord(records[5], names).find("17 records dropped (writer queue full)"));
  const std::string ks = FormatRecord(records[3], names);
  EXPECT_NE(std::string::npos, ks.find("Id: 4, Flags: 0x00000001")) << ks;
  EXPECT_NE(std::string::npos, ks.find("returned 4")) << ks;
}

TEST(EventsReader, FiltersByKindAndStream) {
  const std::vector<uint8_t> bytes = SampleRecording();
  std::vector<Record> records;
  ReadError error;
  ASSERT_EQ(Outcome::Complete, ReadAll(bytes, &records, error));
  RecordFilter filter;
  std::string parseError;
  ASSERT_TRUE(ParseKinds("call,media-event", filter.kinds, parseError));
  EXPECT_FALSE(ParseKinds("calls", filter.kinds, parseError));
  EXPECT_NE(std::string::npos, parseError.find("calls"));
  filter.streams = {1};
  std::vector<size_t> matched;
  for (size_t i = 0; i < records.size(); ++i) {
    if (filter.Matches(records[i])) matched.push_back(i);
  }
  // The state change of stream 1 and the event about stream 1; not stream 0's sample.
  EXPECT_EQ((std::vector<size_t>{0, 4}), matched);
}

TEST(AttributeStore, DecodesThePlatformLayout) {
  const std::string blob(reinterpret_cast<const char *>(kPlatformStore), sizeof(kPlatformStore));
  std::vector<Attribute> attributes;
  ReadError error;
  ASSERT_TRUE(DecodeAttributeStore(blob, 0, attributes, error)) << error.Text();
  ASSERT_EQ(6u, attributes.size());
  EXPECT_EQ(0xAABBCCDDu, attributes[0].number);
  EXPECT_EQ(0x1122334455667788ull, attributes[1].number);
  EXPECT_EQ(1.5, attributes[2].AsDouble());
  EXPECT_EQ(kKey, attributes[3].guid);
  EXPECT_EQ("hi", attributes[4].text);
  EXPECT_EQ(std::string("\x09\x08\x07", 3), attributes[5].bytes);
}

TEST(AttributeStore, RefusesValuesOutsideTheStore) {
  std::string blob(reinterpret_cast<const char *>(kPlatformStore), sizeof(kPlatformStore));
  std::vector<Attribute> attributes;
  ReadError error;
  // The string's offset (item 4) pointed past the end.
  const uint32_t farOffset = 0xFFFFFFF0u;
  std::memcpy(&blob[8 + 4 * 32 + 28], &farOffset, 4);
  EXPECT_FALSE(DecodeAttributeStore(blob, 100, attributes, error));
  EXPECT_EQ(100u + 8 + 4 * 32 + 24, error.offset);
  // A count larger than the items present.
  blob.assign(reinterpret_cast<const char *>(kPlatformStore), 40);
  EXPECT_FALSE(DecodeAttributeStore(blob, 0, attributes, error));
  EXPECT_EQ(4u, error.offset);
  EXPECT_NE(std::string::npos, error.message.find("do not fit"));
}

TEST(EventsReader, NamesTheOffsetOfEachKindOfDamage) {
  const std::vector<uint8_t> good = SampleRecording();
  ReadError error;
  struct Case {
    const char *what;
    std::vector<uint8_t> bytes;
    uint64_t offset;
    const char *message;
  };
  std::vector<Case> cases;
  cases.push_back({"empty file", {}, 0, "file signature"});
  {
    auto bytes = good;
    bytes[0] = 'X';
    cases.push_back({"signature", bytes, 0, "WQEVENTS"});
  }
  {
    auto bytes = good;
    bytes[8] = 9;
    cases.push_back({"version", bytes, 12, "format version 9"});
  }
  {
    // The first record claims more bytes than the file has.
    EventsReader reader(good.data(), good.size());
    FileHeader header;
    ASSERT_TRUE(reader.ReadHeader(header, error));
    const size_t first = reader.Position();
    auto bytes = good;
    uint32_t firstLength = 0;
    std::memcpy(&firstLength, &good[first], 4);
    const uint32_t length = 1000000;
    std::memcpy(&bytes[first], &length, 4);
    // Not a cut: the record's values end where the next record begins, far before its claimed end.
    cases.push_back({"record length", bytes, first + 4 + firstLength, "bytes after the record's 5 values"});
    bytes = good;
    const uint32_t tiny = 3;
    std::memcpy(&bytes[first], &tiny, 4);
    cases.push_back({"short record", bytes, first, "outside"});
    bytes = good;
    bytes[first + 4 + kRecordPrefixSize] = 11;  // the first value's tag: none this version knows
    cases.push_back({"value tag", bytes, first + 4 + kRecordPrefixSize, "unknown value tag 11"});
    // A tag of a later version carries a length and is skipped.
    bytes[first + 4 + kRecordPrefixSize] = 40;
    cases.push_back({"later tag", bytes, 0, ""});
    // The last record cut short with an unknown tag in what is left: damage, not a cut.
    bytes = good;
    bytes[first + 4 + kRecordPrefixSize] = 11;
    bytes.resize(first + 4 + kRecordPrefixSize + 3);
    cases.push_back({"damaged and cut", bytes, first + 4 + kRecordPrefixSize, "unknown value tag 11"});
  }
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    error = ReadError();
    if (c.message[0] == '\0') {
      EXPECT_EQ(Outcome::Complete, ReadAll(c.bytes, nullptr, error)) << error.Text();
      continue;
    }
    EXPECT_EQ(Outcome::Damaged, ReadAll(c.bytes, nullptr, error));
    EXPECT_EQ(c.offset, error.offset) << error.Text();
    EXPECT_NE(std::string::npos, error.message.find(c.message)) << error.Text();
    EXPECT_EQ(0u, error.Text().find("offset " + std::to_string(c.offset) + ": "));
  }
}

// A file cut anywhere inside a record (its writer died) reads up to that record, which is named; a
// file cut between records reads to its end.
TEST(EventsReader, ACutInsideTheLastRecordReadsTheWholeRecordsBeforeIt) {
  const std::vector<uint8_t> good = SampleRecording();
  std::vector<Record> all;
  ReadError error;
  ASSERT_EQ(Outcome::Complete, ReadAll(good, &all, error));
  EventsReader probe(good.data(), good.size());
  FileHeader header;
  ASSERT_TRUE(probe.ReadHeader(header, error));
  for (size_t length = probe.Position(); length < good.size(); ++length) {
    SCOPED_TRACE(length);
    std::vector<Record> read;
    error = ReadError();
    const Outcome outcome =
        ReadAll(std::vector<uint8_t>(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)), &read, error);
    const bool atBoundary = read.size() < all.size() && all[read.size()].offset == length;
    if (length == probe.Position() || atBoundary) {
      EXPECT_EQ(Outcome::Complete, outcome) << error.Text();
      continue;
    }
    ASSERT_EQ(Outcome::Cut, outcome) << error.Text();
    ASSERT_LT(read.size(), all.size());
    EXPECT_EQ(all[read.size()].offset, error.offset);
    EXPECT_TRUE(error.cut);
    EXPECT_NE(std::string::npos, error.message.find(" of its ")) << error.message;
    EXPECT_NE(std::string::npos, error.message.find("bytes present")) << error.message;
    for (size_t i = 0; i < read.size(); ++i) EXPECT_EQ(all[i].offset, read[i].offset);
  }
}

// Every prefix, many corruptions and many random files: each is read to its end or to an error that
// names an offset inside the file; the sanitizers catch any read outside it.
TEST(EventsReaderFuzz, TruncatedCorruptedAndRandomFilesNeverReadOutside) {
  const std::vector<uint8_t> good = SampleRecording();
  std::mt19937 random(20261123);
  size_t inputs = 0, damaged = 0;
  auto check = [&](const std::vector<uint8_t> &bytes) {
    ReadError error;
    ++inputs;
    if (ReadAll(bytes, nullptr, error) == Outcome::Damaged) {
      ++damaged;
      ASSERT_LE(error.offset, bytes.size()) << error.Text();
      ASSERT_FALSE(error.message.empty());
    }
  };
  for (size_t length = 0; length < good.size(); ++length) {
    check(std::vector<uint8_t>(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
  }
  std::uniform_int_distribution<int> byteValue(0, 255);
  for (int i = 0; i < 60000; ++i) {
    auto bytes = good;
    const int flips = 1 + static_cast<int>(random() % 4);
    for (int f = 0; f < flips; ++f) {
      const size_t at = random() % bytes.size();
      // Small and extreme values hit lengths and counts hardest.
      const uint32_t choice = random() % 4;
      bytes[at] = choice == 0 ? 0xFF : choice == 1 ? 0 : static_cast<uint8_t>(byteValue(random));
    }
    if (random() % 3 == 0) bytes.resize(random() % bytes.size());
    check(bytes);
  }
  for (int i = 0; i < 40000; ++i) {
    // A valid signature and version half of the time, so that the records' parser is reached.
    std::vector<uint8_t> bytes(random() % 600);
    for (auto &b : bytes) b = static_cast<uint8_t>(byteValue(random));
    if (i % 2 == 0 && bytes.size() >= 16) {
      std::memcpy(bytes.data(), kMagic, 8);
      bytes[8] = 1;
      bytes[9] = bytes[10] = bytes[11] = 0;
      bytes[13] = bytes[14] = bytes[15] = 0;
    }
    check(bytes);
  }
  EXPECT_GE(inputs, 100000u);
  EXPECT_GT(damaged, inputs / 2);
  // Attribute stores on their own, with random counts, types, sizes and offsets.
  for (int i = 0; i < 20000; ++i) {
    std::string blob(reinterpret_cast<const char *>(kPlatformStore), sizeof(kPlatformStore));
    for (int f = 0; f < 3; ++f) blob[random() % blob.size()] = static_cast<char>(byteValue(random));
    if (random() % 2) blob.resize(random() % blob.size());
    std::unique_ptr<char[]> exact(new char[blob.size() + 1]);
    std::memcpy(exact.get(), blob.data(), blob.size());
    std::vector<Attribute> attributes;
    ReadError error;
    if (!DecodeAttributeStore(std::string(exact.get(), blob.size()), 0, attributes, error)) {
      ASSERT_LE(error.offset, blob.size());
    }
  }
}

}  // namespace
}  // namespace device_events
