// Names KS requests for traces: "Set: PROPSETID_VIDCAP_VIDEOPROCAMP, Id: KSPROPERTY_VIDEOPROCAMP_GAIN,
// Flags: KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_TOPOLOGY".
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

class KsIdentifierTranslator {
 public:
  // The request kinds, as the platform counts them for identifiers.
  enum Kind : int { Property = 0, Event = 1, Method = 2 };

  // Builds the process-wide tables; fails only when memory is exhausted. The module calls it at load.
  static HRESULT Create();
  static void Release();
  static std::shared_ptr<const KsIdentifierTranslator> Instance();

  // Renders one request of `kind` through the process-wide tables.
  static std::string Name(const KSIDENTIFIER &identifier, Kind kind);

  KsIdentifierTranslator();
  std::string Translate(const KSIDENTIFIER &identifier, Kind kind) const;
  // The set's name, or "Unknown 0x" and the set's 128-bit value.
  std::string SetName(REFGUID set) const;
  // The id's name within the set, or "Unknown 0x" and the id.
  std::string IdName(REFGUID set, ULONG id) const;
  // The names of the flag bits of `kind` that `flags` sets, joined by " | ".
  std::string FlagNames(ULONG flags, Kind kind) const;

 private:
  struct GuidHash {
    size_t operator()(const GUID &guid) const;
  };
  struct SetTable {
    const char *name;
    std::unordered_map<ULONG, const char *> ids;
  };
  std::unordered_map<GUID, SetTable, GuidHash> sets;
  std::vector<std::pair<ULONG, const char *>> flagNames[3];
};

}  // namespace user_space_frameworks
