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

void WriteEntry(const char *qualifiedName);
void WriteExit(const char *qualifiedName);
void WriteExit(const char *qualifiedName, long result);

// Runs `body`; with verbose tracing on, between the entry mark and the exit mark with its result.
template <typename Body>
auto Scoped(const char *qualifiedName, Body &&body) -> decltype(body()) {
  using Result = decltype(body());
  if (!IsEnabled(TraceLevel::Verbose)) return body();
  WriteEntry(qualifiedName);
  if constexpr (std::is_void_v<Result>) {
    body();
    WriteExit(qualifiedName);
  } else {
    Result result = body();
    if constexpr (std::is_same_v<Result, long>) {
      WriteExit(qualifiedName, result);  // HRESULT
    } else {
      WriteExit(qualifiedName);
    }
    return result;
  }
}

// The marks of a function without a result to show: entry now, exit at the end of the scope.
class ScopeMarks {
 public:
  explicit ScopeMarks(const char *qualifiedName)
      : name(IsEnabled(TraceLevel::Verbose) ? qualifiedName : nullptr) {
    if (name != nullptr) WriteEntry(name);
  }
  ~ScopeMarks() {
    if (name != nullptr) WriteExit(name);
  }
  ScopeMarks(const ScopeMarks &) = delete;
  ScopeMarks &operator=(const ScopeMarks &) = delete;

 private:
  const char *name;
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

#define WQ_SCOPE()                          \
  WQ_STATIC_FUNCTION_NAME(wqScopeName_);    \
  const ::user_space_frameworks::trace::ScopeMarks wqScopeMarks_(wqScopeName_.text)

// The function's body between the two runs as a lambda returning `type`; its result is the function's.
#define WQ_SCOPE_BEGIN(type)             \
  WQ_STATIC_FUNCTION_NAME(wqScopeName_); \
  return ::user_space_frameworks::trace::Scoped(wqScopeName_.text, [&]() -> type {
#define WQ_SCOPE_END })
