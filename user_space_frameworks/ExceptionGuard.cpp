#include "user_space_frameworks/ExceptionGuard.h"

#include <cstdio>

namespace user_space_frameworks {

void TraceCaught(SourcePoint where, const char *message, const char *detail) noexcept {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  char line[512];
  if (detail != nullptr && *detail != '\0') {
    std::snprintf(line, sizeof(line), "%s: %s", message, detail);
    message = line;
  }
  try {
    trace::Write(TraceLevel::Error, where, message);
  } catch (...) {
    // Out of memory again while tracing: the caller's result still says what happened.
  }
}

void TraceCaught(SourcePoint where, const char *message, const _com_error &error) noexcept {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  // The error's text is the platform's (allocated by the platform, not by us), narrowed here.
  char detail[256];
  int used = std::snprintf(detail, sizeof(detail), "0x%08lX", static_cast<unsigned long>(error.Error()) & 0xFFFFFFFFul);
  const TCHAR *text = error.ErrorMessage();
  if (text != nullptr && used > 0 && static_cast<size_t>(used) + 1 < sizeof(detail)) {
    detail[used++] = ' ';
    for (const TCHAR *c = text; *c != 0 && static_cast<size_t>(used) + 1 < sizeof(detail); ++c) {
      detail[used++] = (*c < 128) ? static_cast<char>(*c) : '?';
    }
    detail[used] = '\0';
  }
  TraceCaught(where, message, detail);
}

}  // namespace user_space_frameworks
