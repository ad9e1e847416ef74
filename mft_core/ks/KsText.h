// Short texts for traces of KS requests: "{set} id N flags 0x..", optionally after the request's kind.
#pragma once

#include <string>

#include "platform/WindowsSdk.h"

namespace mft_core {

enum class KsIdentifierKind : int { Property = 0, Event = 1, Method = 2 };

std::string KsIdentifierText(const KSIDENTIFIER &identifier);
// "property {set} id N flags 0x..", or "property (null)".
std::string KsIdentifierText(KsIdentifierKind kind, const KSIDENTIFIER *identifier);

}  // namespace mft_core
