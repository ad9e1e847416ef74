// The built DLL's path as a Windows program sees it, from WQ_MODULE_FILE (defined by the test target).
#pragma once

#include <string>

namespace test_module {

inline std::wstring BuiltModulePath() {
  std::string path = WQ_MODULE_FILE;
  if (!path.empty() && path[0] == '/') path = "Z:" + path;  // the build tree through Wine's root drive
  for (char &c : path) {
    if (c == '/') c = '\\';
  }
  return std::wstring(path.begin(), path.end());
}

}  // namespace test_module
