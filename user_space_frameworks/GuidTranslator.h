// Names GUIDs for traces: attribute keys, major types and subtypes, stream categories, interfaces, KS
// sets and the camera's own identifiers. Logging only: no decision depends on a name.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

class GuidTranslator {
 public:
  // Builds the process-wide table; fails only when memory is exhausted. The module calls it at load.
  static HRESULT Create();
  static void Release();
  static std::shared_ptr<const GuidTranslator> Instance();

  // "MF_MT_SUBTYPE", or the identifier's text form when it has no name.
  static std::string Name(REFGUID guid);
  // The platform's text form: lower-case groups without braces, or "Failed to convert GUID to wstring".
  static std::string ToString(REFGUID guid);
  static std::wstring ToWideString(REFGUID guid);

  GuidTranslator();
  const char *Find(REFGUID guid) const;  // nullptr when unnamed
  std::string Translate(REFGUID guid) const;
  size_t Size() const { return names.size(); }

 private:
  struct GuidHash {
    size_t operator()(const GUID &guid) const;
  };
  std::unordered_map<GUID, const char *, GuidHash> names;
};

}  // namespace user_space_frameworks
