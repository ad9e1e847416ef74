// RAII for critical sections, condition variables, Win32 events and handles.
#pragma once

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

class CriticalSection {
 public:
  CriticalSection() { InitializeCriticalSection(&section); }
  ~CriticalSection() { DeleteCriticalSection(&section); }
  CriticalSection(const CriticalSection &) = delete;
  CriticalSection &operator=(const CriticalSection &) = delete;
  void Lock() { EnterCriticalSection(&section); }
  void Unlock() { LeaveCriticalSection(&section); }

 private:
  friend class ConditionVariable;
  CRITICAL_SECTION section;
};

// A Win32 condition variable over a critical section. Waking a waiter costs less than signalling an
// event, and nothing at all when no thread waits.
class ConditionVariable {
 public:
  ConditionVariable() { InitializeConditionVariable(&variable); }
  ConditionVariable(const ConditionVariable &) = delete;
  ConditionVariable &operator=(const ConditionVariable &) = delete;
  // With `section` held; false when `timeoutMs` passed. Wakes may be spurious: callers check their
  // condition again.
  bool Wait(CriticalSection &section, DWORD timeoutMs) {
    return SleepConditionVariableCS(&variable, &section.section, timeoutMs) != FALSE;
  }
  void WakeOne() { WakeConditionVariable(&variable); }
  void WakeAll() { WakeAllConditionVariable(&variable); }

 private:
  CONDITION_VARIABLE variable;
};

class AutoLock {
 public:
  explicit AutoLock(CriticalSection &section) : section(section) { section.Lock(); }
  ~AutoLock() { section.Unlock(); }
  AutoLock(const AutoLock &) = delete;
  AutoLock &operator=(const AutoLock &) = delete;

 private:
  CriticalSection &section;
};

// Owns one kernel handle; INVALID_HANDLE_VALUE and null both mean "none".
class UniqueHandle {
 public:
  UniqueHandle() = default;
  explicit UniqueHandle(HANDLE handle) : handle(handle) {}
  ~UniqueHandle() { Reset(); }
  UniqueHandle(UniqueHandle &&other) noexcept : handle(other.Release()) {}
  UniqueHandle &operator=(UniqueHandle &&other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueHandle(const UniqueHandle &) = delete;
  UniqueHandle &operator=(const UniqueHandle &) = delete;

  HANDLE Get() const { return handle; }
  bool IsValid() const { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
  HANDLE Release() {
    HANDLE h = handle;
    handle = nullptr;
    return h;
  }
  void Reset(HANDLE next = nullptr) {
    if (IsValid()) CloseHandle(handle);
    handle = next;
  }

 private:
  HANDLE handle = nullptr;
};

// A Win32 event object.
class Event {
 public:
  explicit Event(bool manualReset = false, bool initialState = false)
      : handle(CreateEventW(nullptr, manualReset ? TRUE : FALSE, initialState ? TRUE : FALSE, nullptr)) {}
  bool IsValid() const { return handle.IsValid(); }
  HANDLE Get() const { return handle.Get(); }
  void Set() { SetEvent(handle.Get()); }
  void Reset() { ResetEvent(handle.Get()); }
  // WAIT_OBJECT_0 when signalled, WAIT_TIMEOUT otherwise.
  DWORD Wait(DWORD timeoutMs) { return WaitForSingleObject(handle.Get(), timeoutMs); }

 private:
  UniqueHandle handle;
};

}  // namespace user_space_frameworks
