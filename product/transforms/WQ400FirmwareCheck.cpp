#include "product/transforms/WQ400FirmwareCheck.h"

#include <cstdio>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>

#include "product/device/WQ400DeviceInfo.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

const wchar_t *const WQ400FirmwareCheck::kServiceKey = L"SYSTEM\\CurrentControlSet\\Services\\VeldaraCameraDFU";
const wchar_t *const WQ400FirmwareCheck::kAutoModeValue = L"DFUAutoMode";
const wchar_t *const WQ400FirmwareCheck::kImagePath = L"\\system32\\drivers\\WQ400Firmware.bin";

namespace {

std::string VersionText(const WQ400FirmwareCheck::Version &version) {
  return WQ400DeviceInfo::VersionText(version.data(), version.size());
}

std::string Narrow(const std::wstring &text) {
  std::string narrow;
  for (wchar_t c : text) narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return narrow;
}

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};

}  // namespace

bool WQ400FirmwareCheck::IsAutoUpdateEnabled() {
  WQ_SCOPE();
  HKEY key = nullptr;
  LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kServiceKey, 0, KEY_READ, &key);
  if (status != ERROR_SUCCESS) {
    WQ_TRACE(Info, "HKLM\\" << Narrow(kServiceKey) << " cannot be opened (" << status
                            << "): automatic firmware update stays on");
    return true;
  }
  wchar_t mode[19] = {};  // 38 bytes
  DWORD size = sizeof(mode);
  DWORD type = REG_NONE;
  status = RegQueryValueExW(key, kAutoModeValue, nullptr, &type, reinterpret_cast<BYTE *>(mode), &size);
  RegCloseKey(key);
  if (status != ERROR_SUCCESS) {
    WQ_TRACE(Info, Narrow(kAutoModeValue) << " cannot be read (" << status << "): automatic firmware update stays on");
    return true;
  }
  // Exactly "Auto" and its terminating null: "auto" or "Automatic" turn updates off.
  static const wchar_t kAuto[5] = {L'A', L'u', L't', L'o', 0};
  const bool enabled = std::memcmp(mode, kAuto, sizeof(kAuto)) == 0;
  WQ_TRACE(Info, Narrow(kAutoModeValue) << " = \"" << Narrow(std::wstring(mode, wcsnlen(mode, 19)))
                                        << "\": automatic firmware update " << (enabled ? "on" : "off"));
  return enabled;
}

bool WQ400FirmwareCheck::ReadInstalledVersion(Version &version) {
  WQ_SCOPE();
  wchar_t windowsDirectory[200] = {};
  const UINT length = GetWindowsDirectoryW(windowsDirectory, 200);
  if (length == 0 || length >= 200) {
    WQ_TRACE(Warning, "GetWindowsDirectoryW answered " << length << " (error " << GetLastError() << ")");
    return false;
  }
  const std::wstring path = std::wstring(windowsDirectory) + kImagePath;
  std::unique_ptr<FILE, FileCloser> file(_wfopen(path.c_str(), L"rb"));
  if (!file) {
    WQ_TRACE(Info, "no firmware image at " << Narrow(path));
    return false;
  }
  if (fseek(file.get(), kImageVersionOffset, SEEK_SET) != 0 ||
      fread(version.data(), 1, version.size(), file.get()) != version.size()) {
    WQ_TRACE(Warning, "firmware image " << Narrow(path) << " holds no version at offset " << kImageVersionOffset);
    return false;
  }
  return true;
}

void WQ400FirmwareCheck::Run(IFirmwareCommandPipe &pipe, const Version &deviceVersion) {
  WQ_SCOPE();
  if (!IsAutoUpdateEnabled()) return;
  Version installed = {};
  if (!ReadInstalledVersion(installed)) return;
  if (installed == deviceVersion) {
    WQ_TRACE(Info, "camera firmware " << VersionText(deviceVersion) << " is current");
    return;
  }
  WQ_TRACE(Info, "camera firmware " << VersionText(deviceVersion) << ", installed image " << VersionText(installed)
                                    << ": the camera restarts into its update mode");
  LOG_IF_FAILED(pipe.Set(kEnterUpdateModeOpcode, nullptr, 0, 1, 0, 0, 0));
}

}  // namespace mft_core
