#include "common/SystemStateGuards.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace test_support {

RegistryValueGuard::RegistryValueGuard(std::wstring keyPath, std::wstring valueName)
    : keyPath(std::move(keyPath)), valueName(std::move(valueName)) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, this->keyPath.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    // Writing creates every missing key of the path: remember the outermost to remove them all.
    createdRoot = this->keyPath;
    for (size_t end = this->keyPath.find(L'\\'); end != std::wstring::npos; end = this->keyPath.find(L'\\', end + 1)) {
      HKEY parent = nullptr;
      if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, this->keyPath.substr(0, end).c_str(), 0, KEY_READ, &parent) != ERROR_SUCCESS) {
        createdRoot = this->keyPath.substr(0, end);
        break;
      }
      RegCloseKey(parent);
    }
    return;
  }
  keyExisted = true;
  DWORD size = 0;
  if (RegQueryValueExW(key, this->valueName.c_str(), nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
    data.resize(size);
    valueExisted = RegQueryValueExW(key, this->valueName.c_str(), nullptr, &type, data.data(), &size) == ERROR_SUCCESS;
  }
  RegCloseKey(key);
}

RegistryValueGuard::~RegistryValueGuard() {
  if (!keyExisted) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, createdRoot.c_str());
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, createdRoot.c_str());
    return;
  }
  if (valueExisted) {
    SetRaw(type, data.data(), static_cast<DWORD>(data.size()));
  } else {
    DeleteValue();
  }
}

void RegistryValueGuard::SetRaw(DWORD valueType, const void *value, DWORD size) {
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                                           &key, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, valueName.c_str(), 0, valueType, static_cast<const BYTE *>(value), size));
  RegCloseKey(key);
}

void RegistryValueGuard::SetString(const std::wstring &value) {
  SetRaw(REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

void RegistryValueGuard::SetDword(DWORD value) { SetRaw(REG_DWORD, &value, sizeof(value)); }

void RegistryValueGuard::DeleteValue() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_WRITE, &key) != ERROR_SUCCESS) return;
  RegDeleteValueW(key, valueName.c_str());
  RegCloseKey(key);
}

void RegistryValueGuard::DeleteKey() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, keyPath.c_str()); }

WindowsFileGuard::WindowsFileGuard(const std::wstring &relativePath) {
  wchar_t directory[MAX_PATH] = {};
  GetWindowsDirectoryW(directory, MAX_PATH);
  path = std::wstring(directory) + relativePath;
  if (FILE *file = _wfopen(path.c_str(), L"rb")) {
    existed = true;
    BYTE buffer[4096];
    size_t read;
    while ((read = fread(buffer, 1, sizeof(buffer), file)) > 0) original.insert(original.end(), buffer, buffer + read);
    fclose(file);
  }
}

WindowsFileGuard::~WindowsFileGuard() {
  if (existed) {
    Write(original);
  } else {
    Remove();
  }
}

void WindowsFileGuard::Write(const std::vector<BYTE> &content) {
  FILE *file = _wfopen(path.c_str(), L"wb");
  ASSERT_NE(nullptr, file);
  if (!content.empty()) EXPECT_EQ(content.size(), fwrite(content.data(), 1, content.size(), file));
  fclose(file);
}

void WindowsFileGuard::Remove() { _wremove(path.c_str()); }

}  // namespace test_support
