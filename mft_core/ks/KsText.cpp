#include "mft_core/ks/KsText.h"

#include "user_space_frameworks/KsIdentifierTranslator.h"

namespace mft_core {

std::string KsIdentifierText(KsIdentifierKind kind, const KSIDENTIFIER *identifier) {
  if (identifier == nullptr) {
    switch (kind) {
      case KsIdentifierKind::Event: return "(no event)";
      case KsIdentifierKind::Method: return "(no method)";
      case KsIdentifierKind::Property: break;
    }
    return "(no property)";
  }
  return user_space_frameworks::KsIdentifierTranslator::Name(
      *identifier, static_cast<user_space_frameworks::KsIdentifierTranslator::Kind>(kind));
}

}  // namespace mft_core
