#include "user_space_frameworks/Check.h"

namespace user_space_frameworks {

bool IsNormalExchangeResult(HRESULT hr) {
  switch (hr) {
    case MF_E_TRANSFORM_NEED_MORE_INPUT:      // a poll of an empty output queue
    case MF_E_NO_MORE_TYPES:                  // the end of a media type list
    case HRESULT_FROM_WIN32(ERROR_MORE_DATA): // a KS size query
    case MF_E_NO_EVENTS_AVAILABLE:            // a poll of an empty event queue
      return true;
    default:
      return false;
  }
}

TraceLevel FailureLevel(HRESULT hr) { return IsNormalExchangeResult(hr) ? TraceLevel::Verbose : TraceLevel::Error; }

void ReportFailure(SourcePoint where, const char *expression, HRESULT hr, bool expected) {
  TraceLevel level = expected ? TraceLevel::Verbose : FailureLevel(hr);
  // The function that saw the failure traced it; callers that only pass the same code up trace verbose.
  if (level == TraceLevel::Error && hr == trace::reportedFailure) level = TraceLevel::Verbose;
  if (!trace::IsEnabled(level)) return;
  if (level == TraceLevel::Error) trace::reportedFailure = hr;
  trace::Write(level, where, std::string(expression) + " failed: " + trace::HrText(hr));
}

void ReportNull(SourcePoint where, const char *name, HRESULT hr) {
  if (!trace::IsEnabled(TraceLevel::Error)) return;
  trace::Write(TraceLevel::Error, where,
               std::string(name) + " is nullptr, expected valid pointer: " + trace::HrText(hr));
}

}  // namespace user_space_frameworks
