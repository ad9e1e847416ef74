// Runs a body that returns an HRESULT so that no exception crosses a COM boundary, and writes the
// entry "==>" and exit "<==" marks of the public method at the verbose level.
#pragma once

#include <new>
#include <stdexcept>
#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Trace.h"

namespace user_space_frameworks {

// The handlers below run when memory may be exhausted: they only pass static texts and texts the
// exception already holds, and a trace line that cannot be built is lost rather than thrown out of the
// guard (which would end the host process).
void TraceCaught(SourcePoint where, const char *message, const char *detail) noexcept;
void TraceCaught(SourcePoint where, const char *message, const _com_error &error) noexcept;

template <typename Body>
HRESULT ExceptionGuard(SourcePoint where, Body &&body) noexcept {
  try {
    return body();
  } catch (const _com_error &error) {
    TraceCaught(where, "Caught Com Exception error", error);
    return error.Error();
  } catch (const std::bad_alloc &) {
    TraceCaught(where, "Bad allocation exception trapped", nullptr);
    return E_OUTOFMEMORY;
  } catch (const std::out_of_range &error) {
    TraceCaught(where, "Out of range exception trapped", error.what());
    return MF_E_INVALIDINDEX;
  } catch (const std::exception &error) {
    TraceCaught(where, "Standard exception trapped", error.what());
    return E_FAIL;
  } catch (...) {
    TraceCaught(where, "General exception trapped", nullptr);
    return E_FAIL;
  }
}

// Entry mark, guarded body, exit mark with the result.
template <typename Body>
HRESULT Guarded(SourcePoint where, Body &&body) noexcept {
  trace::ForgetReportedFailure();
  const bool verbose = trace::IsEnabled(TraceLevel::Verbose);
  if (verbose) trace::Write(TraceLevel::Verbose, where, "==>");
  const HRESULT hr = ExceptionGuard(where, std::forward<Body>(body));
  if (verbose) trace::Write(TraceLevel::Verbose, where, "<== " + trace::HrText(hr));
  return hr;
}

}  // namespace user_space_frameworks

// return WQ_GUARDED([&] { ... return S_OK; });
#define WQ_GUARDED(body) ::user_space_frameworks::Guarded(WQ_HERE, body)
