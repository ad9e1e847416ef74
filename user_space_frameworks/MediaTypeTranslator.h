// Names video subtypes for traces by their four-character code ("NV12", "Z16 ").
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

class MediaTypeTranslator {
 public:
  // Builds the process-wide table; fails only when memory is exhausted. The module calls it at load.
  static HRESULT Create();
  static void Release();
  static std::shared_ptr<const MediaTypeTranslator> Instance();

  // A subtype's four-character name when it has one, else its GUID name (GuidTranslator).
  static std::string SubtypeName(REFGUID subtype);

  MediaTypeTranslator();
  // The name of a four-character code, or "Unknown".
  const char *FourCcName(DWORD fourCc) const;
  size_t Size() const { return names.size(); }

 private:
  std::unordered_map<DWORD, const char *> names;
};

}  // namespace user_space_frameworks
