// The two platform trace providers: the classic one carries the trace lines (decoded with the shipped
// message format file), the self-describing one carries the per-frame events. Both keep what the
// listening sessions asked for in atomics, so a trace point asks "is anyone listening" with a load.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/TraceLogging.h"

namespace user_space_frameworks {

class ClassicTraceProvider {
 public:
  // Message numbers by trace level; the message format file describes each.
  enum MessageNumber : USHORT { ErrorMessage = 1, WarningMessage = 2, InfoMessage = 3, VerboseMessage = 4 };
  using MessageWriter = ULONG (*)(TRACEHANDLE session, const GUID &messageGuid, USHORT number, const char *function,
                                  LONG line, const char *message);

  ClassicTraceProvider(const GUID &controlGuid, std::function<void()> changed);
  ~ClassicTraceProvider();

  ULONG Register();
  void Unregister();
  // The highest trace level (1 error .. 4 verbose) a session asked for; 0 when none listens.
  int EnabledLevel() const { return enabledLevel.load(std::memory_order_relaxed); }
  // `level` is 1 error .. 4 verbose.
  void Write(int level, const char *function, int line, const char *message) const;

  // A session enabled (`enable`) or disabled the provider; `sessionLevel` is the platform level 1..5.
  void OnControl(bool enable, TRACEHANDLE session, UCHAR sessionLevel);
  void SetMessageWriter(MessageWriter writer) { messageWriter = writer; }  // tests
  const GUID &Guid() const { return guid; }

 private:
  static ULONG WINAPI ControlCallback(WMIDPREQUESTCODE requestCode, PVOID context, ULONG *bufferSize, PVOID buffer);

  const GUID guid;
  const std::function<void()> changed;
  TRACEHANDLE registration = 0;
  std::atomic<TRACEHANDLE> session{0};
  std::atomic<int> enabledLevel{0};
  MessageWriter messageWriter;
};

class StructuredEventProvider {
 public:
  using WriteTransfer = ULONG(WINAPI *)(REGHANDLE, PCEVENT_DESCRIPTOR, LPCGUID, LPCGUID, ULONG, PEVENT_DATA_DESCRIPTOR);

  StructuredEventProvider(const char *name, const GUID &providerGuid, std::function<void()> changed);
  ~StructuredEventProvider();

  ULONG Register();
  void Unregister();
  bool IsEnabled(UCHAR level, ULONGLONG keyword) const;
  // Writes one event of `fields` under `activityId` (may be null). Nothing happens unless enabled.
  void Write(const char *eventName, UCHAR level, ULONGLONG keyword, UCHAR opcode, const GUID *activityId,
             const tracelogging::Field *fields, size_t count) const;

  // The platform's enable callback, also driven by tests: 0 disable, 1 enable, 2 capture state.
  void OnEnable(ULONG isEnabled, UCHAR level, ULONGLONG matchAnyKeyword, ULONGLONG matchAllKeyword);
  void SetWriteTransfer(WriteTransfer writer) { writeTransfer = writer; }  // tests
  REGHANDLE Handle() const { return handle; }
  const tracelogging::ProviderTraits &Traits() const { return traits; }

 private:
  static VOID NTAPI EnableCallback(LPCGUID sourceId, ULONG isEnabled, UCHAR level, ULONGLONG matchAnyKeyword,
                                   ULONGLONG matchAllKeyword, PEVENT_FILTER_DESCRIPTOR filterData, PVOID context);

  const GUID guid;
  const tracelogging::ProviderTraits traits;
  const std::function<void()> changed;
  REGHANDLE handle = 0;
  std::atomic<int> enabledLevel{-1};  // -1: disabled; 0: every level
  std::atomic<ULONGLONG> anyKeyword{0};
  std::atomic<ULONGLONG> allKeyword{0};
  WriteTransfer writeTransfer;
};

}  // namespace user_space_frameworks
