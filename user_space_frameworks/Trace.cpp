#include "user_space_frameworks/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "user_space_frameworks/EtwProviders.h"
#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/TraceScope.h"

namespace user_space_frameworks {

void CapturingTraceSink::Write(TraceLevel level, const std::string &function, int line, const std::string &message) {
  std::lock_guard<std::mutex> hold(mutex);
  lines.push_back({level, function, line, message});
}

void CapturingTraceSink::Event(const char *name, const std::string &fields) {
  std::lock_guard<std::mutex> hold(mutex);
  events.push_back(std::string(name) + " " + fields);
}

std::vector<CapturingTraceSink::Line> CapturingTraceSink::Lines() const {
  std::lock_guard<std::mutex> hold(mutex);
  return lines;
}

std::vector<std::string> CapturingTraceSink::Events() const {
  std::lock_guard<std::mutex> hold(mutex);
  return events;
}

size_t CapturingTraceSink::Count(const std::string &text) const {
  std::lock_guard<std::mutex> hold(mutex);
  size_t n = 0;
  for (const auto &line : lines) {
    if (line.message.find(text) != std::string::npos || line.function.find(text) != std::string::npos) ++n;
  }
  for (const auto &event : events) {
    if (event.find(text) != std::string::npos) ++n;
  }
  return n;
}

bool CapturingTraceSink::Contains(const std::string &text) const { return Count(text) > 0; }

void CapturingTraceSink::Clear() {
  trace::ForgetReportedFailure();
  std::lock_guard<std::mutex> hold(mutex);
  lines.clear();
  events.clear();
}

TextTraceSink::TextTraceSink(const std::string &path)
    : file(path.empty() ? stderr : std::fopen(path.c_str(), "a")), ownsFile(!path.empty()) {
  if (file == nullptr) {
    file = stderr;
    ownsFile = false;
  }
}

TextTraceSink::~TextTraceSink() {
  if (ownsFile) std::fclose(file);
}

void TextTraceSink::Write(TraceLevel level, const std::string &function, int line, const std::string &message) {
  static const char *const names[] = {"", "E", "W", "I", "V"};
  std::lock_guard<std::mutex> hold(mutex);
  std::fprintf(file, "[%s] %s:%d: %s\n", names[static_cast<int>(level)], function.c_str(), line, message.c_str());
  std::fflush(file);
}

void TextTraceSink::Event(const char *name, const std::string &fields) {
  std::lock_guard<std::mutex> hold(mutex);
  std::fprintf(file, "[event] %s %s\n", name, fields.c_str());
  std::fflush(file);
}

namespace trace {

std::atomic<int> currentLevel{0};
thread_local long reportedFailure = 0;
std::atomic<bool> eventsEnabled{false};

// {3BFB992D-70B6-49B5-B1E9-CD61333ABD76}
const GUID kClassicProviderGuid = {0x3bfb992d, 0x70b6, 0x49b5, {0xb1, 0xe9, 0xcd, 0x61, 0x33, 0x3a, 0xbd, 0x76}};
// {311FA364-6F41-4848-904B-C456EE74DC8A}
const GUID kEventProviderGuid = {0x311fa364, 0x6f41, 0x4848, {0x90, 0x4b, 0xc4, 0x56, 0xee, 0x74, 0xdc, 0x8a}};
const char kClassicProviderName[] = "WQ400DeviceMft";
const char kEventProviderName[] = "WQ400DeviceMft.Frames";

namespace {
std::mutex sinkMutex;
std::shared_ptr<TraceSink> currentSink;
std::atomic<int> sinkLevel{0};
std::atomic<bool> sinkEvents{false};

std::shared_ptr<TraceSink> Sink() {
  std::lock_guard<std::mutex> hold(sinkMutex);
  return currentSink;
}

// One level and one event switch for the trace points: the text sink's or a session's, whichever asks more.
// Called with sinkMutex held: the sink setters and the providers' callbacks (on the platform's thread)
// recompute one after the other, so the last to run sees every change and none is lost.
void Recompute();
void RecomputeForSession() {
  std::lock_guard<std::mutex> hold(sinkMutex);
  Recompute();
}

ClassicTraceProvider classicProvider(kClassicProviderGuid, &RecomputeForSession);
StructuredEventProvider eventProvider(kEventProviderName, kEventProviderGuid, &RecomputeForSession);

std::atomic<void (*)()> recomputeProbe{nullptr};

void Recompute() {
  const int level = std::max(sinkLevel.load(std::memory_order_relaxed), classicProvider.EnabledLevel());
  const bool events = sinkEvents.load(std::memory_order_relaxed) ||
                      eventProvider.IsEnabled(TRACE_LEVEL_VERBOSE, kFrameEventsKeyword);
  if (const auto probe = recomputeProbe.load(std::memory_order_relaxed)) probe();
  currentLevel.store(level, std::memory_order_relaxed);
  eventsEnabled.store(events, std::memory_order_relaxed);
}

void StoreSink(std::shared_ptr<TraceSink> sink, int level, bool events) {
  currentSink = std::move(sink);
  const bool on = currentSink != nullptr;
  sinkLevel.store(on ? level : 0, std::memory_order_relaxed);
  sinkEvents.store(on && events, std::memory_order_relaxed);
  Recompute();
}

const char *OpcodeText(EventOpcode opcode) {
  switch (opcode) {
    case EventOpcode::Start: return "Start";
    case EventOpcode::Stop: return "Stop";
    case EventOpcode::Info: break;
  }
  return "Info";
}

std::string FieldsText(EventOpcode opcode, const GUID *activityId, std::initializer_list<tracelogging::Field> fields) {
  std::ostringstream text;
  const char *separator = "";
  if (opcode != EventOpcode::Info) {
    text << "Opcode=" << OpcodeText(opcode);
    separator = " ";
  }
  if (activityId != nullptr) {
    text << separator << "ActivityId=" << GuidTranslator::ToString(*activityId);
    separator = " ";
  }
  for (const auto &field : fields) {
    text << separator << field.name << "=";
    separator = " ";
    switch (field.inType) {
      case tracelogging::InUInt32: text << *static_cast<const uint32_t *>(field.data); break;
      case tracelogging::InInt32: text << *static_cast<const int32_t *>(field.data); break;
      case tracelogging::InInt64: text << *static_cast<const int64_t *>(field.data); break;
      case tracelogging::InUInt64: text << *static_cast<const uint64_t *>(field.data); break;
      case tracelogging::InAnsiString: text << static_cast<const char *>(field.data); break;
      case tracelogging::InGuid: text << GuidTranslator::ToString(*static_cast<const GUID *>(field.data)); break;
      default: text << "(" << field.size << " bytes)"; break;
    }
  }
  return text.str();
}

}  // namespace

void SetRecomputeProbe(void (*probe)()) { recomputeProbe.store(probe, std::memory_order_relaxed); }

std::shared_ptr<TraceSink> SetSink(std::shared_ptr<TraceSink> sink, TraceLevel level, bool events) {
  ForgetReportedFailure();
  std::lock_guard<std::mutex> hold(sinkMutex);
  std::shared_ptr<TraceSink> previous = currentSink;
  StoreSink(std::move(sink), static_cast<int>(level), events);
  return previous;
}

void ConfigureFromEnvironment() {
  const char *level = std::getenv("WQ400_TRACE");
  if (level == nullptr || *level == '\0') return;
  TraceLevel chosen = TraceLevel::Verbose;
  if (std::strcmp(level, "error") == 0) chosen = TraceLevel::Error;
  else if (std::strcmp(level, "warning") == 0) chosen = TraceLevel::Warning;
  else if (std::strcmp(level, "info") == 0) chosen = TraceLevel::Info;
  const char *file = std::getenv("WQ400_TRACE_FILE");
  // The frame events come at every frame: WQ400_TRACE_EVENTS=0 leaves them out of the text.
  const char *events = std::getenv("WQ400_TRACE_EVENTS");
  const bool withEvents = events == nullptr || std::strcmp(events, "0") != 0;
  SetSink(std::make_shared<TextTraceSink>(file != nullptr ? file : ""), chosen, withEvents);
}

ULONG RegisterPlatformProviders() {
  const ULONG status = classicProvider.Register();
  if (status != ERROR_SUCCESS) return status;
  const ULONG eventStatus = eventProvider.Register();
  if (eventStatus != ERROR_SUCCESS) classicProvider.Unregister();
  return eventStatus;
}

void UnregisterPlatformProviders() {
  eventProvider.Unregister();
  classicProvider.Unregister();
}

ClassicTraceProvider &ClassicProvider() { return classicProvider; }
StructuredEventProvider &EventProvider() { return eventProvider; }

void Write(TraceLevel level, SourcePoint where, const std::string &message) {
  const int value = static_cast<int>(level);
  if (sinkLevel.load(std::memory_order_relaxed) < value && classicProvider.EnabledLevel() < value) return;
  WriteQualified(level, QualifiedName(where.function), where.line, message);
}

void WriteQualified(TraceLevel level, const std::string &function, int line, const std::string &message) {
  const int value = static_cast<int>(level);
  const bool toSink = sinkLevel.load(std::memory_order_relaxed) >= value;
  const bool toSession = classicProvider.EnabledLevel() >= value;
  if (!toSink && !toSession) return;
  if (toSink) {
    if (auto sink = Sink()) sink->Write(level, function, line, message);
  }
  if (toSession) classicProvider.Write(value, function.c_str(), line, message.c_str());
}

void WriteEvent(const char *name, EventOpcode opcode, const GUID *activityId,
                std::initializer_list<tracelogging::Field> fields) {
  if (sinkEvents.load(std::memory_order_relaxed)) {
    if (auto sink = Sink()) sink->Event(name, FieldsText(opcode, activityId, fields));
  }
  eventProvider.Write(name, TRACE_LEVEL_VERBOSE, kFrameEventsKeyword, static_cast<UCHAR>(opcode), activityId,
                      fields.begin(), fields.size());
}

GUID NewActivityId() {
  GUID id = GUID_NULL;
  if (EventActivityIdControl(EVENT_ACTIVITY_CTRL_CREATE_ID, &id) == ERROR_SUCCESS && id != GUID_NULL) return id;
  // Without the platform's ids (no session support), a process-unique counter still pairs the events.
  static std::atomic<uint64_t> next{1};
  const uint64_t value = next.fetch_add(1, std::memory_order_relaxed);
  id.Data1 = static_cast<unsigned long>(value >> 32);
  id.Data2 = static_cast<unsigned short>((value >> 16) & 0xFFFF);
  id.Data3 = static_cast<unsigned short>(value & 0xFFFF);
  return id;
}

std::string QualifiedName(const char *prettyFunction) {
  const std::string text(prettyFunction);
  // The argument list is the first '(' outside template brackets, skipping "operator()".
  int depth = 0;
  size_t open = std::string::npos;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '<') ++depth;
    else if (c == '>' && depth > 0) --depth;
    else if (c == '(' && depth == 0) {
      if (i >= 8 && text.compare(i - 8, 8, "operator") == 0) {
        ++i;  // "operator()" names the function; its arguments follow
        continue;
      }
      open = i;
      break;
    }
  }
  if (open == std::string::npos) return text;
  depth = 0;
  size_t start = 0;
  for (size_t i = open; i-- > 0;) {
    const char c = text[i];
    if (c == '>') ++depth;
    else if (c == '<' && depth > 0) --depth;
    else if ((c == ' ' || c == '*' || c == '&') && depth == 0) {
      start = i + 1;
      break;
    }
  }
  return text.substr(start, open - start);
}

void WriteEntry(const char *qualifiedName, int line) { WriteQualified(TraceLevel::Verbose, qualifiedName, line, "==>"); }

void WriteExit(const char *qualifiedName, int line) { WriteQualified(TraceLevel::Verbose, qualifiedName, line, "<=="); }

void WriteExit(const char *qualifiedName, int line, long result) {
  WriteQualified(TraceLevel::Verbose, qualifiedName, line, "<== " + HrText(result));
}

void WriteExit(const char *qualifiedName, int line, bool result) {
  WriteQualified(TraceLevel::Verbose, qualifiedName, line, result ? "<== true" : "<== false");
}

void WriteExitNumber(const char *qualifiedName, int line, long long result) {
  WriteQualified(TraceLevel::Verbose, qualifiedName, line, "<== " + std::to_string(result));
}

void WriteExitPointer(const char *qualifiedName, int line, const void *result) {
  WriteQualified(TraceLevel::Verbose, qualifiedName, line, result == nullptr ? "<== nullptr" : "<== valid pointer");
}

std::string HrText(long hr) {
  char buffer[16];
  std::snprintf(buffer, sizeof(buffer), "0x%08lX", static_cast<unsigned long>(hr) & 0xFFFFFFFFul);
  return buffer;
}

ScopedSink::ScopedSink(std::shared_ptr<TraceSink> sink, TraceLevel level)
    : previousLevel(sinkLevel.load()), previousEvents(sinkEvents.load()) {
  previous = SetSink(std::move(sink), level, true);
}

ScopedSink::~ScopedSink() {
  ForgetReportedFailure();
  std::lock_guard<std::mutex> hold(sinkMutex);
  StoreSink(previous, previousLevel, previousEvents);
}

}  // namespace trace
}  // namespace user_space_frameworks
