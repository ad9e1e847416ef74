#include "user_space_frameworks/EtwProviders.h"

#include <cstring>

namespace user_space_frameworks {

namespace {

ULONG SendTraceMessage(TRACEHANDLE session, const GUID &messageGuid, USHORT number, const char *function,
                       LONG line, const char *message) {
  return TraceMessage(session, TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_SYSTEMINFO |
                      TRACE_MESSAGE_TIMESTAMP, &messageGuid, number, function, std::strlen(function) + 1, &line,
                      sizeof(line), message, std::strlen(message) + 1, nullptr);
}

// Platform levels: 1 critical, 2 error, 3 warning, 4 information, 5 verbose; 0 asks for everything.
int TraceLevelOf(UCHAR sessionLevel) {
  if (sessionLevel == 0 || sessionLevel >= TRACE_LEVEL_VERBOSE) return 4;
  return sessionLevel - 1;
}

}  // namespace

ClassicTraceProvider::ClassicTraceProvider(const GUID &controlGuid, std::function<void()> changed)
    : guid(controlGuid), changed(std::move(changed)), messageWriter(&SendTraceMessage) {}

ClassicTraceProvider::~ClassicTraceProvider() { Unregister(); }

ULONG ClassicTraceProvider::Register() {
  if (registration != 0) return ERROR_SUCCESS;
  TRACE_GUID_REGISTRATION classes[1] = {{&guid, nullptr}};
  return RegisterTraceGuidsW(&ClassicTraceProvider::ControlCallback, this, &guid, 1, classes, nullptr, nullptr,
                             &registration);
}

void ClassicTraceProvider::Unregister() {
  if (registration == 0) return;
  UnregisterTraceGuids(registration);
  registration = 0;
  OnControl(false, 0, 0);
}

void ClassicTraceProvider::OnControl(bool enable, TRACEHANDLE sessionHandle, UCHAR sessionLevel) {
  session.store(enable ? sessionHandle : 0, std::memory_order_relaxed);
  enabledLevel.store(enable ? TraceLevelOf(sessionLevel) : 0, std::memory_order_relaxed);
  if (changed) changed();
}

ULONG WINAPI ClassicTraceProvider::ControlCallback(WMIDPREQUESTCODE requestCode, PVOID context, ULONG *, PVOID buffer) {
  auto *provider = static_cast<ClassicTraceProvider *>(context);
  switch (requestCode) {
    case WMI_ENABLE_EVENTS: {
      const TRACEHANDLE sessionHandle = GetTraceLoggerHandle(buffer);
      provider->OnControl(true, sessionHandle, GetTraceEnableLevel(sessionHandle));
      return ERROR_SUCCESS;
    }
    case WMI_DISABLE_EVENTS:
      provider->OnControl(false, 0, 0);
      return ERROR_SUCCESS;
    default:
      return ERROR_INVALID_PARAMETER;
  }
}

void ClassicTraceProvider::Write(int level, const char *function, int line, const char *message) const {
  const TRACEHANDLE sessionHandle = session.load(std::memory_order_relaxed);
  if (sessionHandle == 0 || level > EnabledLevel()) return;
  messageWriter(sessionHandle, guid, static_cast<USHORT>(level), function, line, message);
}

StructuredEventProvider::StructuredEventProvider(const char *name, const GUID &providerGuid,
                                                 std::function<void()> changed)
    : guid(providerGuid), traits(name), changed(std::move(changed)), writeTransfer(&::EventWriteTransfer) {}

StructuredEventProvider::~StructuredEventProvider() { Unregister(); }

ULONG StructuredEventProvider::Register() {
  if (handle != 0) return ERROR_SUCCESS;
  const ULONG status = EventRegister(&guid, &StructuredEventProvider::EnableCallback, this, &handle);
  if (status != ERROR_SUCCESS) {
    handle = 0;
    return status;
  }
  // Older systems do not know the traits; the events still decode by their own metadata.
  EventSetInformation(handle, EventProviderSetTraits, const_cast<uint8_t *>(traits.Data()), traits.Size());
  return ERROR_SUCCESS;
}

void StructuredEventProvider::Unregister() {
  if (handle == 0) return;
  EventUnregister(handle);
  handle = 0;
  OnEnable(0, 0, 0, 0);
}

VOID NTAPI StructuredEventProvider::EnableCallback(LPCGUID, ULONG isEnabled, UCHAR level, ULONGLONG matchAnyKeyword,
                                                   ULONGLONG matchAllKeyword, PEVENT_FILTER_DESCRIPTOR, PVOID context) {
  static_cast<StructuredEventProvider *>(context)->OnEnable(isEnabled, level, matchAnyKeyword, matchAllKeyword);
}

void StructuredEventProvider::OnEnable(ULONG isEnabled, UCHAR level, ULONGLONG matchAnyKeyword,
                                       ULONGLONG matchAllKeyword) {
  if (isEnabled == EVENT_CONTROL_CODE_CAPTURE_STATE) return;  // nothing to replay
  anyKeyword.store(matchAnyKeyword, std::memory_order_relaxed);
  allKeyword.store(matchAllKeyword, std::memory_order_relaxed);
  enabledLevel.store(isEnabled == EVENT_CONTROL_CODE_ENABLE_PROVIDER ? level : -1, std::memory_order_relaxed);
  if (changed) changed();
}

bool StructuredEventProvider::IsEnabled(UCHAR level, ULONGLONG keyword) const {
  const int enabled = enabledLevel.load(std::memory_order_relaxed);
  if (enabled < 0 || (enabled != 0 && level > enabled)) return false;
  const ULONGLONG any = anyKeyword.load(std::memory_order_relaxed);
  const ULONGLONG all = allKeyword.load(std::memory_order_relaxed);
  return (any == 0 || (keyword & any) != 0) && (keyword & all) == all;
}

void StructuredEventProvider::Write(const char *eventName, UCHAR level, ULONGLONG keyword, UCHAR opcode,
                                    const GUID *activityId, const tracelogging::Field *fields, size_t count) const {
  if (!IsEnabled(level, keyword) || count > tracelogging::kMaxFields) return;
  const tracelogging::EventMetadata metadata(eventName, fields, count);
  if (!metadata.Complete()) return;  // a cut event would not decode
  EVENT_DATA_DESCRIPTOR descriptors[tracelogging::kMaxFields + 2];
  const ULONG used = tracelogging::FillDescriptors(traits, metadata, fields, count, descriptors, sizeof(descriptors) / sizeof(descriptors[0]));
  const EVENT_DESCRIPTOR descriptor = tracelogging::MakeDescriptor(level, opcode, keyword);
  writeTransfer(handle, &descriptor, activityId, nullptr, used, descriptors);
}

}  // namespace user_space_frameworks
