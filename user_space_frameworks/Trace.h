// Tracing: levels, a process-wide text sink, the platform's trace providers, entry/exit marks and
// structured per-frame events. Lines go to the text sink and to the classic provider; per-frame events to
// the text sink and to the self-describing provider. A disabled trace costs one relaxed atomic load and a
// branch; nothing is formatted or allocated.
#pragma once

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "user_space_frameworks/TraceLogging.h"

namespace user_space_frameworks {

class ClassicTraceProvider;
class StructuredEventProvider;

enum class TraceLevel : int { Off = 0, Error = 1, Warning = 2, Info = 3, Verbose = 4 };

// Where a trace line was written: the compiler's function text and the source line (WQ_HERE).
struct SourcePoint {
  const char *function;
  int line;
};

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  // One trace line of `function` (qualified name), written at source line `line`.
  virtual void Write(TraceLevel level, const std::string &function, int line, const std::string &message) = 0;
  // One structured event ("SampleTime", "No Sample", ...), with its fields as text.
  virtual void Event(const char *name, const std::string &fields) = 0;
};

// Keeps every line in memory; tests assert on the quoted texts.
class CapturingTraceSink : public TraceSink {
 public:
  struct Line {
    TraceLevel level;
    std::string function;
    int line;
    std::string message;
  };
  void Write(TraceLevel level, const std::string &function, int line, const std::string &message) override;
  void Event(const char *name, const std::string &fields) override;
  std::vector<Line> Lines() const;
  std::vector<std::string> Events() const;
  bool Contains(const std::string &text) const;  // in any message, function or event
  size_t Count(const std::string &text) const;
  void Clear();

 private:
  mutable std::mutex mutex;
  std::vector<Line> lines;
  std::vector<std::string> events;
};

// Writes lines to a file, or to stderr when the path is empty.
class TextTraceSink : public TraceSink {
 public:
  explicit TextTraceSink(const std::string &path);
  ~TextTraceSink() override;
  void Write(TraceLevel level, const std::string &function, int line, const std::string &message) override;
  void Event(const char *name, const std::string &fields) override;

 private:
  std::mutex mutex;
  FILE *file;
  bool ownsFile;
};

namespace trace {

// What the text sink and the listening trace sessions together ask for.
extern std::atomic<int> currentLevel;
extern std::atomic<bool> eventsEnabled;

inline bool IsEnabled(TraceLevel level) {
  return currentLevel.load(std::memory_order_relaxed) >= static_cast<int>(level);
}
inline bool EventsEnabled() { return eventsEnabled.load(std::memory_order_relaxed); }

// Installs `sink` at `level` (Off or a null sink switches the text sink off). Returns the previous sink.
std::shared_ptr<TraceSink> SetSink(std::shared_ptr<TraceSink> sink, TraceLevel level, bool events = true);
// Tests: runs between working out the trace level and storing it, to widen the window in which a
// session's callback and a sink setter overlap.
void SetRecomputeProbe(void (*probe)());
// Reads WQ400_TRACE ("error", "warning", "info", "verbose"), WQ400_TRACE_FILE and WQ400_TRACE_EVENTS
// ("0": no frame events) once; the host and the module call it at start-up.
void ConfigureFromEnvironment();

// The platform providers: registered at module attach, unregistered at detach.
extern const GUID kClassicProviderGuid;     // "WQ400DeviceMft"
extern const GUID kEventProviderGuid;       // "WQ400DeviceMft.Frames"
extern const char kClassicProviderName[];
extern const char kEventProviderName[];
constexpr ULONGLONG kFrameEventsKeyword = 0x1;
ULONG RegisterPlatformProviders();
void UnregisterPlatformProviders();
ClassicTraceProvider &ClassicProvider();
StructuredEventProvider &EventProvider();

void Write(TraceLevel level, SourcePoint where, const std::string &message);
// As Write, under a name that is already qualified ("mft_core::InputStream::ProcessSample").
void WriteQualified(TraceLevel level, const std::string &function, int line, const std::string &message);

// One per-frame event with typed fields, at verbose level under the frame-events keyword.
enum class EventOpcode : unsigned char { Info = 0, Start = 1, Stop = 2 };
void WriteEvent(const char *name, EventOpcode opcode, const GUID *activityId,
                std::initializer_list<tracelogging::Field> fields);
// A new activity id that pairs a start event with its stop event.
GUID NewActivityId();

inline tracelogging::Field UInt32Field(const char *name, const uint32_t &value) {
  return {name, tracelogging::InUInt32, 0, &value, sizeof(value)};
}
inline tracelogging::Field Int64Field(const char *name, const int64_t &value) {
  return {name, tracelogging::InInt64, 0, &value, sizeof(value)};
}

// The failure this thread last traced at the error level within the current public call (check-and-
// return traces a failure once); a public call, or a new sink, begins with none.
extern thread_local long reportedFailure;
inline void ForgetReportedFailure() { reportedFailure = 0; }

// "HRESULT mft_core::MFDeviceTransform::CheckShutdown()" -> "mft_core::MFDeviceTransform::CheckShutdown"
std::string QualifiedName(const char *prettyFunction);
std::string HrText(long hr);  // "0x80004005"

// Restores the previous sink and level on destruction (tests).
class ScopedSink {
 public:
  ScopedSink(std::shared_ptr<TraceSink> sink, TraceLevel level);
  ~ScopedSink();
  ScopedSink(const ScopedSink &) = delete;
  ScopedSink &operator=(const ScopedSink &) = delete;

 private:
  std::shared_ptr<TraceSink> previous;
  int previousLevel;
  bool previousEvents;
};

}  // namespace trace
}  // namespace user_space_frameworks

#if defined(_MSC_VER)
#define WQ_FUNCTION __FUNCTION__
#else
#define WQ_FUNCTION __PRETTY_FUNCTION__
#endif

// The trace point's function and line.
#define WQ_HERE (::user_space_frameworks::SourcePoint{WQ_FUNCTION, __LINE__})

// WQ_TRACE(Info, "Found matching media type: " << description);
#define WQ_TRACE(level, streamExpression)                                                          \
  do {                                                                                             \
    if (::user_space_frameworks::trace::IsEnabled(::user_space_frameworks::TraceLevel::level)) {   \
      std::ostringstream wqTraceStream_;                                                           \
      wqTraceStream_ << streamExpression;                                                          \
      ::user_space_frameworks::trace::Write(::user_space_frameworks::TraceLevel::level, WQ_HERE,     \
                                            wqTraceStream_.str());                                 \
    }                                                                                              \
  } while (0)
