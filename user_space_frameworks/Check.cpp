#include "user_space_frameworks/Check.h"

namespace user_space_frameworks {

void ReportFailure(const char *prettyFunction, const char *expression, HRESULT hr) {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  trace::Write(TraceLevel::Error, prettyFunction, std::string(expression) + " failed: " + trace::HrText(hr));
}

void ReportNull(const char *prettyFunction, const char *name, HRESULT hr) {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  trace::Write(TraceLevel::Error, prettyFunction,
               std::string(name) + " is nullptr, expected valid pointer: " + trace::HrText(hr));
}

}  // namespace user_space_frameworks
