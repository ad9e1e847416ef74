// Tests change machine-wide state of the Wine prefix (registry values, files under the Windows
// directory); these guards put back what was there.
#pragma once

#include <string>
#include <vector>

#include "platform/WindowsSdk.h"

namespace test_support {

// One registry value under HKEY_LOCAL_MACHINE, restored (or removed, key and all, when the key did
// not exist) on destruction.
class RegistryValueGuard {
 public:
  RegistryValueGuard(std::wstring keyPath, std::wstring valueName);
  ~RegistryValueGuard();
  RegistryValueGuard(const RegistryValueGuard &) = delete;
  RegistryValueGuard &operator=(const RegistryValueGuard &) = delete;

  void SetString(const std::wstring &value);
  void SetDword(DWORD value);
  void SetRaw(DWORD type, const void *data, DWORD size);
  void DeleteValue();
  void DeleteKey();

 private:
  std::wstring keyPath;
  std::wstring valueName;
  std::wstring createdRoot;  // the outermost key of the path that did not exist
  bool keyExisted = false;
  bool valueExisted = false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

// A file under the Windows directory, restored (or removed) on destruction.
class WindowsFileGuard {
 public:
  explicit WindowsFileGuard(const std::wstring &relativePath);  // e.g. L"\\system32\\drivers\\x.bin"
  ~WindowsFileGuard();
  WindowsFileGuard(const WindowsFileGuard &) = delete;
  WindowsFileGuard &operator=(const WindowsFileGuard &) = delete;

  void Write(const std::vector<BYTE> &content);
  void Remove();
  const std::wstring &Path() const { return path; }

 private:
  std::wstring path;
  bool existed = false;
  std::vector<BYTE> original;
};

}  // namespace test_support
