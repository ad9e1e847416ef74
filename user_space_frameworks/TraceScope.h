// Entry "==>" and exit "<==" marks of a function at the verbose level, under its qualified name worked
// out by the compiler. Off, a mark costs one branch: no name is built, nothing is formatted.
//
//   HRESULT InputStream::ProcessSample(IMFSample *sample) {
//     WQ_SCOPE_BEGIN(HRESULT);   // the body runs as a lambda whose result the exit mark shows
//     ...
//     WQ_SCOPE_END;
//   }
//
//   void Node::Flush() {
//     WQ_SCOPE();                // entry now, exit when the function ends
//     ...
//   }
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "user_space_frameworks/Trace.h"

namespace user_space_frameworks {
namespace trace {

// Where the qualified name lies in a compiler's function text: "HRESULT ns::C::F(DWORD) [with ...]"
// gives "ns::C::F". The same rule as QualifiedName, at compile time.
struct NameRange {
  size_t begin;
  size_t end;
};

constexpr bool TextAt(const char *text, size_t at, const char *word) {
  for (size_t i = 0; word[i] != '\0'; ++i) {
    if (text[at + i] != word[i]) return false;
  }
  return true;
}

constexpr NameRange FindQualifiedName(const char *text) {
  size_t length = 0;
  while (text[length] != '\0') ++length;
  int depth = 0;
  size_t open = length;
  for (size_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (c == '<') {
      ++depth;
    } else if (c == '>' && depth > 0) {
      --depth;
    } else if (c == '(' && depth == 0) {
      if (i >= 8 && TextAt(text, i - 8, "operator")) {
        ++i;  // "operator()" names the function; its arguments follow
        continue;
      }
      open = i;
      break;
    }
  }
  if (open == length) return {0, length};
  depth = 0;
  size_t start = 0;
  for (size_t i = open; i-- > 0;) {
    const char c = text[i];
    if (c == '>') {
      ++depth;
    } else if (c == '<' && depth > 0) {
      --depth;
    } else if ((c == ' ' || c == '*' || c == '&') && depth == 0) {
      start = i + 1;
      break;
    }
  }
  return {start, open};
}

template <size_t N>
struct StaticName {
  char text[N];
};

template <size_t N>
constexpr StaticName<N> CopyName(const char *text, size_t begin) {
  StaticName<N> name{};
  for (size_t i = 0; i + 1 < N; ++i) name.text[i] = text[begin + i];
  name.text[N - 1] = '\0';
  return name;
}

void WriteEntry(const char *qualifiedName, int line);
void WriteExit(const char *qualifiedName, int line);
void WriteExit(const char *qualifiedName, int line, long result);  // HRESULT
void WriteExit(const char *qualifiedName, int line, bool result);
void WriteExitNumber(const char *qualifiedName, int line, long long result);
void WriteExitPointer(const char *qualifiedName, int line, const void *result);

// The exit mark with `result` shown as what it is: an HRESULT's code, a flag, a number, a pointer's
// null-ness; other results (objects) only mark the exit.
template <typename Result>
void WriteExitWith(const char *qualifiedName, int line, const Result &result) {
  if constexpr (std::is_same_v<Result, long> || std::is_same_v<Result, bool>) {
    WriteExit(qualifiedName, line, result);
  } else if constexpr (std::is_integral_v<Result> || std::is_enum_v<Result>) {
    WriteExitNumber(qualifiedName, line, static_cast<long long>(result));
  } else if constexpr (std::is_pointer_v<Result>) {
    WriteExitPointer(qualifiedName, line, result);
  } else {
    WriteExit(qualifiedName, line);
  }
}

// Runs `body`; with verbose tracing on, between the entry mark and the exit mark with its result.
template <typename Body>
auto Scoped(const char *qualifiedName, int line, Body &&body) -> decltype(body()) {
  using Result = decltype(body());
  if (!IsEnabled(TraceLevel::Verbose)) return body();
  WriteEntry(qualifiedName, line);
  if constexpr (std::is_void_v<Result>) {
    body();
    WriteExit(qualifiedName, line);
  } else {
    Result result = body();
    WriteExitWith(qualifiedName, line, result);
    return result;
  }
}

// The marks of a function without a result to show: entry now, exit at the end of the scope.
class ScopeMarks {
 public:
  ScopeMarks(const char *qualifiedName, int line)
      : name(IsEnabled(TraceLevel::Verbose) ? qualifiedName : nullptr), line(line) {
    if (name != nullptr) WriteEntry(name, line);
  }
  ~ScopeMarks() {
    if (name != nullptr) WriteExit(name, line);
  }
  ScopeMarks(const ScopeMarks &) = delete;
  ScopeMarks &operator=(const ScopeMarks &) = delete;

 private:
  const char *name;
  int line;
};

}  // namespace trace
}  // namespace user_space_frameworks

// The enclosing function's qualified name as a static array, worked out at compile time.
#define WQ_STATIC_FUNCTION_NAME(variable)                                                                    \
  static constexpr ::user_space_frameworks::trace::NameRange variable##Range_ =                              \
      ::user_space_frameworks::trace::FindQualifiedName(WQ_FUNCTION);                                        \
  static constexpr auto variable = ::user_space_frameworks::trace::CopyName<variable##Range_.end -           \
                                                                            variable##Range_.begin + 1>(     \
      WQ_FUNCTION, variable##Range_.begin)

// A build without the marks (WQ_NO_SCOPE_MARKS) is the benchmarks' baseline for what they cost.
#if defined(WQ_NO_SCOPE_MARKS)
#define WQ_SCOPE() static_cast<void>(0)
#define WQ_SCOPE_AS(qualifiedName) static_cast<void>(0)
#define WQ_SCOPE_BEGIN(type) return [&]() -> type {
#define WQ_SCOPE_END }()
#else
#define WQ_SCOPE()                          \
  WQ_STATIC_FUNCTION_NAME(wqScopeName_);    \
  const ::user_space_frameworks::trace::ScopeMarks wqScopeMarks_(wqScopeName_.text, __LINE__)
// As WQ_SCOPE, under a name given as text (template code whose compiler name is not the one to show).
#define WQ_SCOPE_AS(qualifiedName) \
  const ::user_space_frameworks::trace::ScopeMarks wqScopeMarks_((qualifiedName), __LINE__)

// The function's body between the two runs as a lambda returning `type`; its result is the function's.
#define WQ_SCOPE_BEGIN(type)             \
  WQ_STATIC_FUNCTION_NAME(wqScopeName_); \
  return ::user_space_frameworks::trace::Scoped(wqScopeName_.text, __LINE__, [&]() -> type {
#define WQ_SCOPE_END })
#endif
