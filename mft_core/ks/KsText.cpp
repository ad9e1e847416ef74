#include "mft_core/ks/KsText.h"

#include <cstdio>

namespace mft_core {

std::string GuidText(const GUID &guid) {
  char text[40];
  std::snprintf(text, sizeof(text), "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned long>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
  return text;
}

std::string KsIdentifierText(const KSIDENTIFIER &identifier) {
  char tail[48];
  std::snprintf(tail, sizeof(tail), " id %lu flags 0x%08lX", static_cast<unsigned long>(identifier.Id),
                static_cast<unsigned long>(identifier.Flags));
  return GuidText(identifier.Set) + tail;
}

}  // namespace mft_core
