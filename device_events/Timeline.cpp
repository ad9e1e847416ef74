#include "device_events/Timeline.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>

#include "device_events/AttributeStore.h"

namespace device_events {

namespace {

// Well-known media type keys, to show a type at a glance.
constexpr Guid kMajorType = {0x48EBA18E, 0xF8C9, 0x4687, {0xBF, 0x11, 0x0A, 0x74, 0xC9, 0xF9, 0x6A, 0x8F}};
constexpr Guid kSubtype = {0xF7E34C9A, 0x42E8, 0x4714, {0xB7, 0x4B, 0xCB, 0x29, 0xD7, 0x2C, 0x35, 0xE5}};
constexpr Guid kFrameSize = {0x1652C33D, 0xD6B2, 0x4012, {0xB8, 0x34, 0x72, 0x03, 0x08, 0x49, 0xA3, 0x7D}};
constexpr Guid kFrameRate = {0xC459A2E8, 0x3D2C, 0x4E44, {0xB1, 0x32, 0xFE, 0xE5, 0x15, 0x6C, 0x7B, 0xB0}};
constexpr Guid kFourCcBase = {0x00000000, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

// Calls whose first argument is a stream identifier.
const char *const kStreamCalls[] = {
    "GetInputAvailableType", "GetInputCurrentType",  "GetInputStreamAttributes",     "GetOutputAvailableType",
    "GetOutputCurrentType",  "GetOutputStreamAttributes", "ProcessEvent",            "ProcessInput",
    "SetInputStreamState",   "GetInputStreamState",  "SetOutputStreamState",         "GetOutputStreamState",
    "GetInputStreamPreferredState", "FlushInputStream", "FlushOutputStream"};

const struct {
  const char *name;
  RecordKind kind;
} kKindNames[] = {{"call", RecordKind::CallEntry},          {"return", RecordKind::CallExit},
                  {"app-ks", RecordKind::ApplicationKsRequest}, {"driver-ks", RecordKind::DriverKsRequest},
                  {"driver-event", RecordKind::DriverEvent}, {"media-event", RecordKind::MediaEvent},
                  {"dropped", RecordKind::Dropped},          {"filter", RecordKind::Filter},
                  {"end", RecordKind::End},                  {"ring-dump", RecordKind::RingDump},
                  {"state", RecordKind::State}};

std::string Hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(value));
  return text;
}

std::string Seconds(uint64_t hundredNs) {
  char text[32];
  std::snprintf(text, sizeof(text), "%12.6f", static_cast<double>(hundredNs) / 1e7);
  return text;
}

std::string HexBytes(const std::string &bytes, size_t limit) {
  std::string text;
  char pair[4];
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    std::snprintf(pair, sizeof(pair), "%02X", static_cast<unsigned char>(bytes[i]));
    text += pair;
  }
  if (bytes.size() > limit) text += "..";
  return text;
}

std::string AttributeValueText(const Attribute &attribute, const Names &names) {
  switch (attribute.type) {
    case AttributeType::UInt32: return std::to_string(attribute.number);
    case AttributeType::UInt64: {
      // Sizes and rates pack two 32-bit halves.
      const uint32_t high = static_cast<uint32_t>(attribute.number >> 32);
      const uint32_t low = static_cast<uint32_t>(attribute.number);
      return std::to_string(attribute.number) + " (" + std::to_string(high) + ":" + std::to_string(low) + ")";
    }
    case AttributeType::Double: {
      std::ostringstream text;
      text << attribute.AsDouble();
      return text.str();
    }
    case AttributeType::Guid: return names.GuidName(attribute.guid);
    case AttributeType::String: return "\"" + attribute.text + "\"";
    case AttributeType::Blob:
      return std::to_string(attribute.bytes.size()) + " bytes " + HexBytes(attribute.bytes, 24);
    case AttributeType::Unknown: return "(object)";
  }
  return "?";
}

std::string AttributesText(const Value &value, const Names &names, bool verbose) {
  std::vector<Attribute> attributes;
  ReadError error;
  if (!DecodeAttributeStore(value.bytes, value.offset + 5, attributes, error)) return "<" + error.Text() + ">";
  if (!verbose) return std::to_string(attributes.size()) + " attributes";
  std::string text = "{";
  const char *separator = "";
  for (const Attribute &attribute : attributes) {
    text += separator + names.GuidName(attribute.key) + "=" + AttributeValueText(attribute, names);
    separator = ", ";
  }
  return text + "}";
}

std::string MediaTypeText(const Value &value, const Names &names, bool verbose) {
  std::vector<Attribute> attributes;
  ReadError error;
  if (!DecodeAttributeStore(value.bytes, value.offset + 5, attributes, error)) return "<" + error.Text() + ">";
  std::string text = "type{";
  if (const Attribute *subtype = FindAttribute(attributes, kSubtype)) {
    text += names.GuidName(subtype->guid);
  } else if (const Attribute *major = FindAttribute(attributes, kMajorType)) {
    text += names.GuidName(major->guid);
  }
  if (const Attribute *size = FindAttribute(attributes, kFrameSize)) {
    text += " " + std::to_string(size->number >> 32) + "x" + std::to_string(size->number & 0xFFFFFFFFu);
  }
  if (const Attribute *rate = FindAttribute(attributes, kFrameRate)) {
    text += " " + std::to_string(rate->number >> 32) + "/" + std::to_string(rate->number & 0xFFFFFFFFu) + " fps";
  }
  if (verbose) text += " " + AttributesText(value, names, true);
  return text + "}";
}

std::string SampleText(const SampleValue &sample, const Names &names, bool verbose) {
  std::ostringstream text;
  text << "sample{";
  if (sample.present & kSampleHasTime) {
    text << "time " << sample.time;
  } else {
    text << "no time";
  }
  if (sample.present & kSampleHasDuration) text << ", duration " << sample.duration;
  text << ", flags " << sample.flags << ", " << sample.totalLength << " bytes in " << sample.bufferCount
       << " buffers, " << AttributesText(sample.attributes, names, verbose);
  if (!sample.captureMetadata.IsNull()) {
    text << ", capture metadata " << AttributesText(sample.captureMetadata, names, verbose);
  }
  if (!sample.rawMetadata.IsNull()) text << ", raw metadata " << sample.rawMetadata.bytes.size() << " bytes";
  if (!sample.pixels.IsNull()) text << ", pixel data " << sample.pixels.bytes.size() << " bytes";
  text << "}";
  return text.str();
}

uint32_t U32Of(const Record &record, size_t index, bool &ok) {
  ok = index < record.values.size() && record.values[index].tag == ValueTag::U32;
  return ok ? static_cast<uint32_t>(record.values[index].number) : 0;
}

std::string KsRecordText(const Record &record, const Names &names, bool verbose) {
  // kind, identifier, data in, data length, data out, bytes returned
  bool ok = false;
  const uint32_t kind = U32Of(record, 0, ok);
  if (!ok || record.values.size() < 6) return "(malformed KS record)";
  // No identifier: the platform's form that disables the event named by the data.
  std::string text = record.values[1].tag == ValueTag::Bytes
                         ? names.KsIdentifierName(static_cast<KsKind>(kind), record.values[1].bytes)
                         : std::string(kind == static_cast<uint32_t>(KsKind::Event) ? "disable event" : "no identifier");
  bool hasLength = false;
  text += ", buffer " + std::to_string(U32Of(record, 3, hasLength));
  if (!record.values[2].IsNull() && verbose) text += ", in " + HexBytes(record.values[2].bytes, 64);
  if (!record.values[4].IsNull()) {
    text += ", out " + (verbose ? HexBytes(record.values[4].bytes, 64) : std::to_string(record.values[4].bytes.size()) + " bytes");
  }
  bool hasReturned = false;
  const uint32_t returned = U32Of(record, 5, hasReturned);
  text += hasReturned ? ", returned " + std::to_string(returned) : ", no bytes-returned pointer";
  return text;
}

// "3 output streams: 0 (50 types), 1 (50 types); 5 nodes"
std::string FilterSummary(const Record &record) {
  // input count, output count, identifiers' result, then per stream: id, attributes, type count, types;
  // then the node count and node types.
  bool ok = false;
  const uint32_t outputs = U32Of(record, 1, ok);
  if (!ok) return "driver filter (malformed)";
  std::string text = "driver filter: " + std::to_string(outputs) + " output streams:";
  size_t at = 3;
  for (uint32_t s = 0; s < outputs && at + 2 < record.values.size(); ++s) {
    bool idOk = false, countOk = false;
    const uint32_t id = U32Of(record, at, idOk);
    const uint32_t types = U32Of(record, at + 2, countOk);
    if (!idOk || !countOk) return text + " (malformed)";
    text += (s == 0 ? " " : ", ") + std::to_string(id) + " (" + std::to_string(types) + " types)";
    at += 3 + types;
  }
  bool nodesOk = false;
  const uint32_t nodes = U32Of(record, at, nodesOk);
  if (nodesOk) text += "; " + std::to_string(nodes) + " nodes";
  return text;
}

}  // namespace

std::string Names::GuidName(const Guid &guid) const {
  std::string fourcc;
  if (FourCcOf(guid, fourcc)) return "'" + fourcc + "'";
  return GuidText(guid);
}

std::string Names::KsRequestName(KsKind, const Guid &set, uint32_t id, uint32_t flags) const {
  return "Set: " + GuidName(set) + ", Id: " + std::to_string(id) + ", Flags: " + Hex32(flags);
}

std::string Names::KsIdentifierName(KsKind kind, const std::string &identifier) const {
  if (identifier.size() < 24) return "identifier " + HexBytes(identifier, 32);
  Guid set;
  uint32_t id = 0, flags = 0;
  std::memcpy(&set, identifier.data(), 16);
  std::memcpy(&id, identifier.data() + 16, 4);
  std::memcpy(&flags, identifier.data() + 20, 4);
  std::string text = KsRequestName(kind, set, id, flags);
  if (identifier.size() >= 28) {
    uint32_t node = 0;
    std::memcpy(&node, identifier.data() + 24, 4);
    text += ", Node: " + std::to_string(node);
  }
  return text;
}

std::string Names::MediaEventName(uint32_t type) const { return "event " + std::to_string(type); }

bool FourCcOf(const Guid &guid, std::string &fourcc) {
  if (guid.data2 != kFourCcBase.data2 || guid.data3 != kFourCcBase.data3 ||
      std::memcmp(guid.data4, kFourCcBase.data4, 8) != 0) {
    return false;
  }
  fourcc.clear();
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>((guid.data1 >> (8 * i)) & 0xFF);
    if (c < 0x20 || c > 0x7E) return false;
    fourcc += c;
  }
  return true;
}

std::string ResultText(uint32_t result) {
  switch (result) {
    case 0x00000000: return "S_OK";
    case 0x00000001: return "S_FALSE";
    case 0x80004001: return "E_NOTIMPL";
    case 0x80004003: return "E_POINTER";
    case 0x80004005: return "E_FAIL";
    case 0x8000FFFF: return "E_UNEXPECTED";
    case 0x8007000E: return "E_OUTOFMEMORY";
    case 0x80070057: return "E_INVALIDARG";
    case 0xC00D3E85: return "MF_E_SHUTDOWN";
    case 0xC00D6D72: return "MF_E_TRANSFORM_NEED_MORE_INPUT";
    case 0xC00D36B9: return "MF_E_NO_MORE_TYPES";
    default: return Hex32(result);
  }
}

std::string FormatValue(const Value &value, const Names &names, bool verbose) {
  switch (value.tag) {
    case ValueTag::Null: return "null";
    case ValueTag::U32: return std::to_string(value.number);
    case ValueTag::U64: return std::to_string(value.number);
    case ValueTag::I64: return std::to_string(value.Signed());
    case ValueTag::Guid: return names.GuidName(value.guid);
    case ValueTag::String: return "\"" + value.bytes + "\"";
    case ValueTag::Bytes: return std::to_string(value.bytes.size()) + " bytes" + (verbose ? " " + HexBytes(value.bytes, 64) : "");
    case ValueTag::Attributes: return AttributesText(value, names, verbose);
    case ValueTag::MediaType: return MediaTypeText(value, names, verbose);
    case ValueTag::Sample: return value.sample ? SampleText(*value.sample, names, verbose) : "sample{}";
  }
  return "value with tag " + std::to_string(static_cast<int>(value.tag));
}

std::string CallName(const Record &record) {
  if (record.Kind() != RecordKind::CallEntry && record.Kind() != RecordKind::CallExit) return {};
  if (record.values.empty() || record.values[0].tag != ValueTag::String) return {};
  return record.values[0].bytes;
}

std::vector<uint32_t> RecordStreams(const Record &record) {
  std::vector<uint32_t> streams;
  const std::string call = CallName(record);
  if (!call.empty()) {
    if (call == "ProcessOutput") {
      // Entry: name, flags, count, then each buffer's stream. Return: name, then stream, status and
      // sample of each buffer, then the call's status.
      if (record.Kind() == RecordKind::CallEntry) {
        for (size_t i = 3; i < record.values.size(); ++i) {
          if (record.values[i].tag == ValueTag::U32) streams.push_back(static_cast<uint32_t>(record.values[i].number));
        }
      } else if (record.values.size() >= 2) {
        const size_t buffers = (record.values.size() - 2) / 3;
        for (size_t b = 0; b < buffers; ++b) {
          const Value &stream = record.values[1 + 3 * b];
          if (stream.tag == ValueTag::U32) streams.push_back(static_cast<uint32_t>(stream.number));
        }
      }
      return streams;
    }
    for (const char *name : kStreamCalls) {
      if (call == name && record.Kind() == RecordKind::CallEntry && record.values.size() > 1 &&
          record.values[1].tag == ValueTag::U32) {
        streams.push_back(static_cast<uint32_t>(record.values[1].number));
      }
    }
    return streams;
  }
  if (record.Kind() == RecordKind::MediaEvent && record.values.size() > 3 && record.values[3].tag == ValueTag::U32) {
    streams.push_back(static_cast<uint32_t>(record.values[3].number));
  }
  return streams;
}

bool RecordFilter::Matches(const Record &record) const {
  if (!kinds.empty() && kinds.count(record.kind) == 0) return false;
  if (streams.empty()) return true;
  for (uint32_t stream : RecordStreams(record)) {
    if (streams.count(stream) != 0) return true;
  }
  return false;
}

bool ParseKinds(const std::string &list, std::set<uint16_t> &kinds, std::string &error) {
  std::stringstream items(list);
  std::string item;
  while (std::getline(items, item, ',')) {
    if (item.empty()) continue;
    bool found = false;
    for (const auto &entry : kKindNames) {
      if (item == entry.name) {
        kinds.insert(static_cast<uint16_t>(entry.kind));
        found = true;
      }
    }
    if (!found) {
      error = "unknown record kind \"" + item + "\" (kinds: call, return, app-ks, driver-ks, driver-event, "
              "media-event, dropped, filter, end, ring-dump)";
      return false;
    }
  }
  return true;
}

std::string FormatHeader(const FileHeader &header, const Names &names) {
  std::ostringstream text;
  text << "device events recording, format " << header.formatVersion << "\n"
       << "  transform: " << header.transformName << " " << names.GuidName(header.transformClass) << "\n"
       << "  module:    " << header.moduleVersion << "\n"
       << "  started:   " << header.startTime << " (100 ns since 1601, UTC)\n"
       << "  samples:   " << ((header.options & kOptionPixelData) ? "with pixel data" : "without pixel data")
       << "\n";
  return text.str();
}

std::string FormatRecord(const Record &record, const Names &names, const TimelineOptions &options) {
  std::ostringstream line;
  char thread[16];
  std::snprintf(thread, sizeof(thread), "%6X", static_cast<unsigned>(record.threadId));
  line << Seconds(record.time) << "  " << thread << "  ";
  char kindText[16];
  std::snprintf(kindText, sizeof(kindText), "%-12s", RecordKindName(record.Kind()));
  line << kindText << " ";
  const bool verbose = options.verbose;
  auto values = [&](size_t from) {
    std::string text;
    const char *separator = "";
    for (size_t i = from; i < record.values.size(); ++i) {
      text += separator + FormatValue(record.values[i], names, verbose);
      separator = ", ";
    }
    return text;
  };
  switch (record.Kind()) {
    case RecordKind::CallEntry:
      line << CallName(record) << "(" << values(1) << ")";
      break;
    case RecordKind::CallExit:
      line << CallName(record) << " -> " << ResultText(record.result);
      if (record.values.size() > 1) line << ": " << values(1);
      break;
    case RecordKind::ApplicationKsRequest:
    case RecordKind::DriverKsRequest:
      line << KsRecordText(record, names, verbose) << " -> " << ResultText(record.result);
      break;
    case RecordKind::DriverEvent:
      if (record.values.size() >= 2 && record.values[0].tag == ValueTag::Guid) {
        KsKind kind = KsKind::Event;
        std::string identifier(24, '\0');
        std::memcpy(&identifier[0], &record.values[0].guid, 16);
        const uint32_t id = static_cast<uint32_t>(record.values[1].number);
        std::memcpy(&identifier[16], &id, 4);
        line << names.KsIdentifierName(kind, identifier);
      } else {
        line << values(0);
      }
      break;
    case RecordKind::MediaEvent: {
      bool ok = false;
      const uint32_t type = U32Of(record, 0, ok);
      line << (ok ? names.MediaEventName(type) : std::string("?")) << " status " << ResultText(record.result);
      if (record.values.size() > 1) line << ": " << values(1);
      break;
    }
    case RecordKind::Dropped: {
      bool ok = false;
      const uint32_t reason = U32Of(record, 1, ok);
      line << (record.values.empty() ? std::string("?") : FormatValue(record.values[0], names, false))
           << " records dropped ("
           << (reason == static_cast<uint32_t>(DropReason::SizeCap) ? "file size cap reached" : "writer queue full")
           << ")";
      break;
    }
    case RecordKind::Filter:
      line << (verbose ? "driver filter: " + values(0) : FilterSummary(record));
      break;
    case RecordKind::End:
      line << "recording closed: " << values(0);
      break;
    case RecordKind::RingDump: {
      bool ok = false;
      const uint32_t trigger = U32Of(record, 1, ok);
      line << "flight recorder dump (" << (ok ? DumpTriggerName(static_cast<DumpTrigger>(trigger)) : "?");
      if (record.values.size() > 2 && record.values[2].tag == ValueTag::String) line << ": " << record.values[2].bytes;
      line << "); " << (record.values.empty() ? std::string("?") : FormatValue(record.values[0], names, false))
           << " older records overwritten";
      if (record.values.size() > 3) line << ", " << FormatValue(record.values[3], names, false) << " triggers";
      break;
    }
    case RecordKind::State: {
      bool ok = false;
      const uint32_t complete = U32Of(record, 1, ok);
      line << "state: " << (record.values.empty() ? std::string("?") : FormatValue(record.values[0], names, false))
           << " set-up records kept aside above" << (ok && complete == 0 ? " (INCOMPLETE: the set-up outgrew its room)" : "");
      // Then each output stream as its last state request left it (identifier, state, type), and each
      // control as an application last set it (identifier, data).
      static const char *const kStates[] = {"stopped", "paused", "running", "disabled"};
      bool read = false;
      size_t at = 3;
      const uint32_t streams = U32Of(record, 2, read);
      for (uint32_t s = 0; read && s < streams && at + 2 < record.values.size(); ++s, at += 3) {
        const uint32_t stream = U32Of(record, at, read), state = U32Of(record, at + 1, read);
        line << (s == 0 ? "; output streams: " : ", ") << stream << " "
             << (state < std::size(kStates) ? kStates[state] : "state " + std::to_string(state)) << " "
             << FormatValue(record.values[at + 2], names, false);
      }
      const uint32_t controls = U32Of(record, at, read);
      ++at;
      for (uint32_t c = 0; read && c < controls && at + 1 < record.values.size(); ++c, at += 2) {
        line << (c == 0 ? "; controls as last set: " : ", ")
             << names.KsIdentifierName(KsKind::Property, record.values[at].bytes) << " = "
             << FormatValue(record.values[at + 1], names, false);
      }
      line << "; the ring's records follow";
      break;
    }
    default:
      line << "record of unknown kind " << record.kind << " with " << record.values.size() << " values";
      break;
  }
  return line.str();
}

}  // namespace device_events
