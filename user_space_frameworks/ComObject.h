// Reference counting and QueryInterface over a list of interfaces (MinGW has no WRL RuntimeClass).
#pragma once

#include <atomic>
#include <type_traits>
#include <utility>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ModuleLock.h"

namespace user_space_frameworks {

class RefCount {
 public:
  ULONG AddRef() { return ++count; }
  ULONG Release() { return --count; }

 private:
  std::atomic<ULONG> count{1};
};

// The last release: the object's own module reference goes with its destruction, but the code that
// runs the destructors, frees the memory and returns to the caller is still this module's. An extra
// reference spans all of it, so the lock count reaches zero only at the release's last instruction.
template <typename Destroy>
void DestroyHoldingModule(Destroy &&destroy) {
  ModuleLock::Lock();
  destroy();
  ModuleLock::Unlock();
}

// Answers `riid` with the first of `Interfaces` whose identifier matches; IUnknown with the first one.
template <typename Self, typename First, typename... Rest>
HRESULT QueryInterfaceOver(Self *self, REFIID riid, void **ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (riid == __uuidof(IUnknown)) {
    *ppv = static_cast<IUnknown *>(static_cast<First *>(self));
  } else if (riid == __uuidof(First)) {
    *ppv = static_cast<First *>(self);
  } else {
    // The first match ends the search.
    static_cast<void>(((riid == __uuidof(Rest) ? (*ppv = static_cast<Rest *>(self), true) : false) || ...));
  }
  if (*ppv == nullptr) return E_NOINTERFACE;
  static_cast<IUnknown *>(*ppv)->AddRef();
  return S_OK;
}

// A COM object over `Interfaces`: derive from ComObject<IFoo, IBar> and implement the methods. Its module
// reference is its first base, and virtual so that it also comes before the virtual bases of the classes
// that derive from it: built before anything else of the object, destroyed after everything else.
template <typename... Interfaces>
class ComObject : public virtual ModuleReference, public Interfaces... {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void **ppv) override {
    return QueryInterfaceOver<ComObject, Interfaces...>(this, riid, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return refCount.AddRef(); }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG count = refCount.Release();
    if (count == 0) DestroyHoldingModule([this] { delete this; });
    return count;
  }

 protected:
  virtual ~ComObject() = default;

 private:
  RefCount refCount;
};

// Creates a COM object and hands back its one initial reference (never via ComPtr::Attach, which
// adds a reference under MinGW).
template <typename T, typename... Args>
Microsoft::WRL::ComPtr<T> MakeComObject(Args &&...args) {
  Microsoft::WRL::ComPtr<T> object;
  *object.GetAddressOf() = new T(std::forward<Args>(args)...);
  return object;
}

}  // namespace user_space_frameworks

// IUnknown for a class whose COM bases are not all under one ComObject (the transform surface). Such a
// class names `public virtual ModuleReference` as its first base itself.
#define WQ_IMPLEMENT_IUNKNOWN(Self, ...)                                                       \
 public:                                                                                       \
  STDMETHODIMP QueryInterface(REFIID riid, void **ppv) override {                              \
    return ::user_space_frameworks::QueryInterfaceOver<Self, __VA_ARGS__>(this, riid, ppv);    \
  }                                                                                            \
  STDMETHODIMP_(ULONG) AddRef() override { return wqRefCount_.AddRef(); }                      \
  STDMETHODIMP_(ULONG) Release() override {                                                    \
    const ULONG count = wqRefCount_.Release();                                                 \
    if (count == 0) ::user_space_frameworks::DestroyHoldingModule([this] { delete this; });    \
    return count;                                                                              \
  }                                                                                            \
                                                                                               \
 private:                                                                                      \
  ::user_space_frameworks::RefCount wqRefCount_;                                               \
                                                                                               \
 public:
