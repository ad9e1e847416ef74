// The module's class factory: one per table entry asked for, each creating that entry's transform.
#pragma once

#include <cstddef>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/ModuleLock.h"

namespace mft_utils {

// Makes one object; the caller receives its one reference.
using CreateObjectFunction = HRESULT (*)(IUnknown **object);

// One class the module can create. The class identifier is stored inline.
struct ClassObjectEntry {
  GUID pClsid;
  CreateObjectFunction pfnCreate;
  const wchar_t *pszDescription;
};

// A live factory keeps the module loaded (ComObject holds it).
class DllClassFactory : public user_space_frameworks::ComObject<IClassFactory> {
 public:
  explicit DllClassFactory(CreateObjectFunction create);

  // DllGetClassObject: the factory of the entry of `clsid` in `table`, queried for `riid`.
  static HRESULT CreateInstance(REFCLSID clsid, const ClassObjectEntry *table, size_t tableSize, REFIID riid,
                                void **ppv);
  // DllCanUnloadNow: nothing holds the module.
  static bool CanUnloadDll();

  STDMETHODIMP CreateInstance(IUnknown *outer, REFIID riid, void **ppv) override;
  STDMETHODIMP LockServer(BOOL lock) override;

 private:
  ~DllClassFactory() override = default;
  HRESULT CreateObject(REFIID riid, void **ppv);

  const CreateObjectFunction create;
};

}  // namespace mft_utils
