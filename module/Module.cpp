// The DLL's entry point and its four exports.
#include "module/ClassObjects.h"
#include "module/DllClassFactory.h"
#include "module/Registration.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/KsIdentifierTranslator.h"
#include "user_space_frameworks/MediaTypeTranslator.h"
#include "user_space_frameworks/ModuleVersion.h"
#include "user_space_frameworks/Trace.h"

namespace {

HMODULE moduleHandle = nullptr;

// The build names its source revision and time (set by the build for this file only).
#ifndef WQ_SOURCE_REVISION
#define WQ_SOURCE_REVISION "unknown"
#endif
#ifndef WQ_BUILD_STAMP
#define WQ_BUILD_STAMP __DATE__ " " __TIME__
#endif
const char kBuildIdentity[] = "(revision " WQ_SOURCE_REVISION ", built " WQ_BUILD_STAMP ")";

HMODULE DllModuleHandle() { return moduleHandle; }

HRESULT OnDllProcessAttach(HMODULE module) {
  moduleHandle = module;
  user_space_frameworks::SetBuildIdentity(kBuildIdentity);
  user_space_frameworks::trace::ConfigureFromEnvironment();
  // A machine without trace support still runs the transforms.
  const ULONG status = user_space_frameworks::trace::RegisterPlatformProviders();
  if (status != ERROR_SUCCESS) WQ_TRACE(Warning, "trace providers not registered: " << status);
  using user_space_frameworks::GuidTranslator;
  using user_space_frameworks::KsIdentifierTranslator;
  using user_space_frameworks::MediaTypeTranslator;
  RETURN_IF_FAILED(GuidTranslator::Create());
  RETURN_IF_FAILED(MediaTypeTranslator::Create());
  RETURN_IF_FAILED(KsIdentifierTranslator::Create());
  return S_OK;
}

void OnDllProcessDetach() {
  user_space_frameworks::KsIdentifierTranslator::Release();
  user_space_frameworks::MediaTypeTranslator::Release();
  user_space_frameworks::GuidTranslator::Release();
  user_space_frameworks::trace::UnregisterPlatformProviders();
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      DisableThreadLibraryCalls(instance);
      return SUCCEEDED(OnDllProcessAttach(instance)) ? TRUE : FALSE;
    case DLL_PROCESS_DETACH:
      OnDllProcessDetach();
      return TRUE;
    default:
      return TRUE;
  }
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID *ppv) {
  return mft_utils::DllClassFactory::CreateInstance(rclsid, coi, coiCount, riid, ppv);
}

STDAPI DllCanUnloadNow() { return mft_utils::DllClassFactory::CanUnloadDll() ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() {
  RETURN_HR_IF_NULL(E_POINTER, DllModuleHandle());
  for (size_t i = 0; i < coiCount; ++i) {
    RETURN_IF_FAILED(
        mft_utils::RegisterObject(DllModuleHandle(), coi[i].pClsid, coi[i].pszDescription, L"Both"));
  }
  return S_OK;
}

STDAPI DllUnregisterServer() {
  HRESULT result = S_OK;
  for (size_t i = 0; i < coiCount; ++i) {
    const HRESULT hr = LOG_IF_FAILED(mft_utils::UnregisterObject(coi[i].pClsid));
    if (FAILED(hr) && SUCCEEDED(result)) result = hr;
  }
  return result;
}
