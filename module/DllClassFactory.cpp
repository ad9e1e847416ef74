#include "module/DllClassFactory.h"

#include <cstring>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_utils {

DllClassFactory::DllClassFactory(CreateObjectFunction create) : create(create) {}

HRESULT DllClassFactory::CreateInstance(REFCLSID clsid, const ClassObjectEntry *table, size_t tableSize, REFIID riid,
                                        void **ppv) {
  RETURN_IF_NULL(ppv);
  *ppv = nullptr;
  for (size_t i = 0; i < tableSize; ++i) {
    if (std::memcmp(&clsid, &table[i].pClsid, sizeof(GUID)) != 0) continue;
    return user_space_frameworks::Guarded(WQ_HERE, [&]() -> HRESULT {
      auto factory = user_space_frameworks::MakeComObject<DllClassFactory>(table[i].pfnCreate);
      return factory->QueryInterface(riid, ppv);
    });
  }
  WQ_TRACE(Verbose, "no class " << user_space_frameworks::GuidTranslator::Name(clsid));
  return CLASS_E_CLASSNOTAVAILABLE;
}

bool DllClassFactory::CanUnloadDll() {
  WQ_SCOPE_BEGIN(bool);
  return user_space_frameworks::ModuleLock::Count() == 0;
  WQ_SCOPE_END;
}

STDMETHODIMP DllClassFactory::CreateInstance(IUnknown *outer, REFIID riid, void **ppv) {
  RETURN_IF_NULL(ppv);
  *ppv = nullptr;
  RETURN_HR_IF(CLASS_E_NOAGGREGATION, outer != nullptr);
  return user_space_frameworks::Guarded(WQ_HERE, [&] { return CreateObject(riid, ppv); });
}

HRESULT DllClassFactory::CreateObject(REFIID riid, void **ppv) {
  WQ_SCOPE_BEGIN(HRESULT);
  Microsoft::WRL::ComPtr<IUnknown> object;
  RETURN_IF_FAILED(create(object.GetAddressOf()));
  RETURN_HR_IF_NULL(E_UNEXPECTED, object.Get());
  return object->QueryInterface(riid, ppv);
  WQ_SCOPE_END;
}

STDMETHODIMP DllClassFactory::LockServer(BOOL lock) {
  WQ_SCOPE();
  if (lock) {
    user_space_frameworks::ModuleLock::Lock();
  } else {
    user_space_frameworks::ModuleLock::Unlock();
  }
  return S_OK;
}

}  // namespace mft_utils
