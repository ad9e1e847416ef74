// Check-and-return: a failing call is traced once, by the function that saw it, with the function's
// qualified name, the source text of the failing expression and the code; the code is returned unchanged.
#pragma once

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Trace.h"

namespace user_space_frameworks {

// Results that are part of a normal exchange rather than faults: the end of a list, an empty poll, a
// size query. They are traced at the verbose level, so that an error trace of a healthy session is empty.
bool IsNormalExchangeResult(HRESULT hr);
TraceLevel FailureLevel(HRESULT hr);

// Traces "<expression> failed: 0x...." at the error level (verbose for a normal-exchange result). Within
// one public call a failure is traced at the error level once, by the function that saw it: a caller
// that passes the same code up traces it at the verbose level.
void ReportFailure(SourcePoint where, const char *expression, HRESULT hr, bool expected = false);
// Traces "<name>" "nullptr" where a "valid pointer" was expected.
void ReportNull(SourcePoint where, const char *name, HRESULT hr);

}  // namespace user_space_frameworks

#define RETURN_IF_FAILED(expression)                                               \
  do {                                                                             \
    const HRESULT wqHr_ = (expression);                                            \
    if (FAILED(wqHr_)) {                                                           \
      ::user_space_frameworks::ReportFailure(WQ_HERE, #expression, wqHr_);     \
      return wqHr_;                                                                \
    }                                                                              \
  } while (0)

// As RETURN_IF_FAILED, for a call where `normal` is an expected answer in this context (for example the
// end of a wait on a queue that was shut down): that one is traced at the verbose level.
#define RETURN_IF_FAILED_EXPECTING(normal, expression)                                              \
  do {                                                                                               \
    const HRESULT wqHr_ = (expression);                                                              \
    if (FAILED(wqHr_)) {                                                                             \
      ::user_space_frameworks::ReportFailure(WQ_HERE, #expression, wqHr_, wqHr_ == (normal));    \
      return wqHr_;                                                                                  \
    }                                                                                                \
  } while (0)

// Refuses a missing pointer with E_POINTER.
#define RETURN_IF_NULL(pointer) RETURN_HR_IF_NULL(E_POINTER, pointer)

// Refuses a missing pointer with the given code.
#define RETURN_HR_IF_NULL(hr, pointer)                                       \
  do {                                                                       \
    if ((pointer) == nullptr) {                                              \
      ::user_space_frameworks::ReportNull(WQ_HERE, #pointer, (hr));      \
      return (hr);                                                           \
    }                                                                        \
  } while (0)

// Returns `hr` (traced with the condition's text) when `condition` holds.
#define RETURN_HR_IF(hr, condition)                                                \
  do {                                                                             \
    if (condition) {                                                               \
      ::user_space_frameworks::ReportFailure(WQ_HERE, #condition, (hr));       \
      return (hr);                                                                 \
    }                                                                              \
  } while (0)

// Traces a failure without returning; evaluates to the code. For results deliberately not checked.
#define LOG_IF_FAILED(expression)                                                                \
  ([&](HRESULT wqHr_, ::user_space_frameworks::SourcePoint wqWhere_) {                          \
    if (FAILED(wqHr_)) ::user_space_frameworks::ReportFailure(wqWhere_, #expression, wqHr_);    \
    return wqHr_;                                                                                \
  }((expression), WQ_HERE))

// Inside code that may throw (constructors, lambdas run under the exception guard).
#define THROW_IF_FAILED(expression)                                            \
  do {                                                                         \
    const HRESULT wqHr_ = (expression);                                        \
    if (FAILED(wqHr_)) {                                                       \
      ::user_space_frameworks::ReportFailure(WQ_HERE, #expression, wqHr_); \
      throw _com_error(wqHr_);                                                 \
    }                                                                          \
  } while (0)
