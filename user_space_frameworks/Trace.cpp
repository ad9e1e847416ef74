#include "user_space_frameworks/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace user_space_frameworks {

void CapturingTraceSink::Write(TraceLevel level, const std::string &function, const std::string &message) {
  std::lock_guard<std::mutex> hold(mutex);
  lines.push_back({level, function, message});
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

void TextTraceSink::Write(TraceLevel level, const std::string &function, const std::string &message) {
  static const char *const names[] = {"", "E", "W", "I", "V"};
  std::lock_guard<std::mutex> hold(mutex);
  std::fprintf(file, "[%s] %s: %s\n", names[static_cast<int>(level)], function.c_str(), message.c_str());
  std::fflush(file);
}

void TextTraceSink::Event(const char *name, const std::string &fields) {
  std::lock_guard<std::mutex> hold(mutex);
  std::fprintf(file, "[event] %s %s\n", name, fields.c_str());
  std::fflush(file);
}

namespace trace {

std::atomic<int> currentLevel{0};
std::atomic<bool> eventsEnabled{false};

namespace {
std::mutex sinkMutex;
std::shared_ptr<TraceSink> currentSink;

std::shared_ptr<TraceSink> Sink() {
  std::lock_guard<std::mutex> hold(sinkMutex);
  return currentSink;
}
}  // namespace

std::shared_ptr<TraceSink> SetSink(std::shared_ptr<TraceSink> sink, TraceLevel level, bool events) {
  std::lock_guard<std::mutex> hold(sinkMutex);
  std::shared_ptr<TraceSink> previous = std::move(currentSink);
  currentSink = std::move(sink);
  const bool on = currentSink != nullptr;
  currentLevel.store(on ? static_cast<int>(level) : 0, std::memory_order_relaxed);
  eventsEnabled.store(on && events, std::memory_order_relaxed);
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
  SetSink(std::make_shared<TextTraceSink>(file != nullptr ? file : ""), chosen, true);
}

void Write(TraceLevel level, const char *prettyFunction, const std::string &message) {
  if (auto sink = Sink()) sink->Write(level, QualifiedName(prettyFunction), message);
}

void WriteEvent(const char *name, const std::string &fields) {
  if (auto sink = Sink()) sink->Event(name, fields);
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

std::string HrText(long hr) {
  char buffer[16];
  std::snprintf(buffer, sizeof(buffer), "0x%08lX", static_cast<unsigned long>(hr) & 0xFFFFFFFFul);
  return buffer;
}

ScopedSink::ScopedSink(std::shared_ptr<TraceSink> sink, TraceLevel level)
    : previousLevel(currentLevel.load()), previousEvents(eventsEnabled.load()) {
  previous = SetSink(std::move(sink), level, true);
}

ScopedSink::~ScopedSink() {
  std::lock_guard<std::mutex> hold(sinkMutex);
  currentSink = previous;
  currentLevel.store(previousLevel);
  eventsEnabled.store(previousEvents);
}

}  // namespace trace
}  // namespace user_space_frameworks
