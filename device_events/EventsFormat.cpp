#include "device_events/EventsFormat.h"

namespace device_events {

const char *RecordKindName(RecordKind kind) {
  switch (kind) {
    case RecordKind::CallEntry: return "call";
    case RecordKind::CallExit: return "return";
    case RecordKind::ApplicationKsRequest: return "app-ks";
    case RecordKind::DriverKsRequest: return "driver-ks";
    case RecordKind::DriverEvent: return "driver-event";
    case RecordKind::MediaEvent: return "media-event";
    case RecordKind::Dropped: return "dropped";
    case RecordKind::Filter: return "filter";
    case RecordKind::End: return "end";
    case RecordKind::RingDump: return "ring-dump";
    case RecordKind::State: return "state";
  }
  return "unknown";
}

const char *DumpTriggerName(DumpTrigger trigger) {
  switch (trigger) {
    case DumpTrigger::FailedCall: return "a call failed";
    case DumpTrigger::FirmwareEvent: return "firmware event";
    case DumpTrigger::DriverRequest: return "a driver request failed";
    case DumpTrigger::Requested: return "requested";
  }
  return "unknown trigger";
}

const char *ValueTagName(ValueTag tag) {
  switch (tag) {
    case ValueTag::Null: return "null";
    case ValueTag::U32: return "u32";
    case ValueTag::U64: return "u64";
    case ValueTag::I64: return "i64";
    case ValueTag::Guid: return "GUID";
    case ValueTag::String: return "string";
    case ValueTag::Bytes: return "bytes";
    case ValueTag::Attributes: return "attributes";
    case ValueTag::MediaType: return "media type";
    case ValueTag::Sample: return "sample";
  }
  return "unknown";
}

}  // namespace device_events
