#include "user_space_frameworks/ExceptionGuard.h"

namespace user_space_frameworks {

void TraceCaught(const char *prettyFunction, const char *message, const std::string &detail) {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  trace::Write(TraceLevel::Error, prettyFunction, detail.empty() ? std::string(message) : std::string(message) + ": " + detail);
}

std::string ComErrorText(const _com_error &error) {
  std::string text = trace::HrText(error.Error());
  const TCHAR *message = error.ErrorMessage();
  if (message != nullptr) {
    text += " ";
    for (const TCHAR *c = message; *c != 0; ++c) text += (*c < 128) ? static_cast<char>(*c) : '?';
  }
  return text;
}

}  // namespace user_space_frameworks
