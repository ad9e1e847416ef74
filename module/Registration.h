// Self-registration under the machine's COM class keys.
#pragma once

#include "platform/WindowsSdk.h"

namespace mft_utils {

// HKLM\Software\Classes\CLSID\<clsid> = description, with InProcServer32 = the module's full path and
// ThreadingModel = `threadingModel`. Returns the first registry error as an HRESULT; a module path that
// fills the 260-character buffer (cut short) is refused with ERROR_INSUFFICIENT_BUFFER.
HRESULT RegisterObject(HMODULE module, REFCLSID clsid, const wchar_t *description, const wchar_t *threadingModel);
// Removes that key with all its subkeys; a key that is not there counts as removed.
HRESULT UnregisterObject(REFCLSID clsid);

}  // namespace mft_utils
