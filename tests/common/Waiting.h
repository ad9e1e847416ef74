// Small helpers of tests that watch objects from outside: a reference count read without changing it,
// a bounded wait for a condition that other threads make true, and what a simulated frame server has
// received on an output stream.
#pragma once

#include <cstdint>

#include "platform/WindowsSdk.h"

namespace test_waiting {

template <typename T>
ULONG References(T *object) {
  object->AddRef();
  return object->Release();
}

template <typename Predicate>
bool WaitFor(Predicate predicate, int timeoutMs = 10000) {
  for (int waited = 0; waited < timeoutMs; waited += 5) {
    if (predicate()) return true;
    Sleep(5);
  }
  return predicate();
}

template <typename Host>
uint64_t FramesOut(Host &host, DWORD outputStreamId) {
  for (const auto &stats : host.Stats()) {
    if (stats.outputStreamId == outputStreamId) return stats.framesOut;
  }
  return 0;
}

}  // namespace test_waiting
