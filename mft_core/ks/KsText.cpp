#include "mft_core/ks/KsText.h"

#include <cstdio>

#include "user_space_frameworks/GuidText.h"

namespace mft_core {

namespace {

const char *KindText(KsIdentifierKind kind) {
  switch (kind) {
    case KsIdentifierKind::Property: return "property";
    case KsIdentifierKind::Event: return "event";
    case KsIdentifierKind::Method: return "method";
  }
  return "identifier";
}

}  // namespace

std::string KsIdentifierText(const KSIDENTIFIER &identifier) {
  char tail[48];
  std::snprintf(tail, sizeof(tail), " id %lu flags 0x%08lX", static_cast<unsigned long>(identifier.Id),
                static_cast<unsigned long>(identifier.Flags));
  return user_space_frameworks::GuidText(identifier.Set) + tail;
}

std::string KsIdentifierText(KsIdentifierKind kind, const KSIDENTIFIER *identifier) {
  if (identifier == nullptr) return std::string(KindText(kind)) + " (null)";
  return std::string(KindText(kind)) + " " + KsIdentifierText(*identifier);
}

}  // namespace mft_core
