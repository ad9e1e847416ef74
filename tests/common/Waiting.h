// Small helpers of tests that watch objects from outside: a reference count read without changing it,
// and a bounded wait for a condition that other threads make true.
#pragma once

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

}  // namespace test_waiting
