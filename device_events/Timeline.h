// Renders records as a readable timeline, one line per record, and selects records by kind and stream.
// Portable; names of GUIDs, KS identifiers and media events come from a Names object, so that a
// Windows build can use the module's translators and a native build plain identifiers.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "device_events/EventsReader.h"

namespace device_events {

class Names {
 public:
  virtual ~Names() = default;
  // Attribute keys, major types, subtypes. Default: the GUID's text, or the FOURCC of a video subtype.
  virtual std::string GuidName(const Guid &guid) const;
  // One KS request's set, id and flags. Default: the set by GuidName, the id and flags as numbers.
  virtual std::string KsRequestName(KsKind kind, const Guid &set, uint32_t id, uint32_t flags) const;
  virtual std::string MediaEventName(uint32_t type) const;

  // A KS request's identifier bytes as recorded (set, id, flags, and a node id for node requests).
  std::string KsIdentifierName(KsKind kind, const std::string &identifier) const;
};

struct TimelineOptions {
  bool verbose = false;  // every attribute of attribute stores, media types and samples
};

std::string FormatRecord(const Record &record, const Names &names, const TimelineOptions &options = {});
std::string FormatHeader(const FileHeader &header, const Names &names);
// "S_OK", "E_FAIL" or "0x80070015"
std::string ResultText(uint32_t result);
std::string FormatValue(const Value &value, const Names &names, bool verbose);

// The call's short name ("ProcessInput") for call records, else empty.
std::string CallName(const Record &record);
// Output or input stream identifiers a record is about (empty: none in particular).
std::vector<uint32_t> RecordStreams(const Record &record);

struct RecordFilter {
  std::set<uint16_t> kinds;      // empty: every kind
  std::set<uint32_t> streams;    // empty: every record; else records about one of these streams
  bool Matches(const Record &record) const;
};

// "call,return,app-ks" into kinds; false on an unknown name.
bool ParseKinds(const std::string &list, std::set<uint16_t> &kinds, std::string &error);

// A FOURCC subtype's four characters, when `guid` is one.
bool FourCcOf(const Guid &guid, std::string &fourcc);

}  // namespace device_events
