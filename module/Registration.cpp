#include "module/Registration.h"

#include <cwchar>
#include <string>

#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/Trace.h"

namespace mft_utils {

namespace {

constexpr size_t kMaxPath = 260;

// "Software\Classes\CLSID\e365cd7e-b3a0-47b2-aa49-e045aa4e77bf": the platform's text form of the
// identifier, lower case and without braces, is the form this module has always registered under.
std::wstring ClassKey(REFCLSID clsid) {
  wchar_t key[kMaxPath];
  std::swprintf(key, kMaxPath, L"Software\\Classes\\CLSID\\%ls",
                user_space_frameworks::GuidTranslator::ToWideString(clsid).c_str());
  return key;
}

class RegistryKey {
 public:
  RegistryKey() = default;
  RegistryKey(const RegistryKey &) = delete;
  RegistryKey &operator=(const RegistryKey &) = delete;
  ~RegistryKey() {
    if (key != nullptr) RegCloseKey(key);
  }
  HKEY *Out() { return &key; }
  HKEY Get() const { return key; }

 private:
  HKEY key = nullptr;
};

LSTATUS SetText(HKEY key, const wchar_t *name, const wchar_t *value) {
  return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(value),
                        static_cast<DWORD>((std::wcslen(value) + 1) * sizeof(wchar_t)));
}

}  // namespace

HRESULT RegisterObject(HMODULE module, REFCLSID clsid, const wchar_t *description, const wchar_t *threadingModel) {
  const std::wstring keyName = ClassKey(clsid);
  RegistryKey classKey;
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, keyName.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_ALL_ACCESS, nullptr, classKey.Out(), nullptr);
  if (status == ERROR_SUCCESS) status = SetText(classKey.Get(), nullptr, description);
  RegistryKey serverKey;
  if (status == ERROR_SUCCESS) {
    status = RegCreateKeyExW(classKey.Get(), L"InProcServer32", 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                             nullptr, serverKey.Out(), nullptr);
  }
  if (status == ERROR_SUCCESS) {
    wchar_t path[kMaxPath] = {};
    const DWORD length = GetModuleFileNameW(module, path, static_cast<DWORD>(kMaxPath));
    // A path that fills the buffer was cut: registering it would name another file.
    if (length == 0) {
      status = static_cast<LSTATUS>(GetLastError());
    } else if (length >= kMaxPath) {
      status = ERROR_INSUFFICIENT_BUFFER;
    } else {
      status = SetText(serverKey.Get(), nullptr, path);
    }
  }
  if (status == ERROR_SUCCESS) status = SetText(serverKey.Get(), L"ThreadingModel", threadingModel);
  if (status != ERROR_SUCCESS) {
    WQ_TRACE(Error, "registering " << user_space_frameworks::GuidTranslator::ToString(clsid) << " failed with "
                                   << status);
  }
  return HRESULT_FROM_WIN32(status);
}

HRESULT UnregisterObject(REFCLSID clsid) {
  const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, ClassKey(clsid).c_str());
  // Installers unregister on clean machines too: a key that is not there is already removed.
  // Any other failure is traced once, by the caller.
  if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) {
    WQ_TRACE(Verbose, user_space_frameworks::GuidTranslator::ToString(clsid) << " was not registered");
    return S_OK;
  }
  return HRESULT_FROM_WIN32(status);
}

}  // namespace mft_utils
