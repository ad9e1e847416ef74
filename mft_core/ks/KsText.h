// KS requests in traces, named by the identifier translator:
// "Set: PROPSETID_VIDCAP_VIDEOPROCAMP, Id: KSPROPERTY_VIDEOPROCAMP_GAIN, Flags: KSPROPERTY_TYPE_GET".
#pragma once

#include <string>

#include "platform/WindowsSdk.h"

namespace mft_core {

enum class KsIdentifierKind : int { Property = 0, Event = 1, Method = 2 };

// A null identifier (a driver-event disable, a size query) reads "(no event)" and so on.
std::string KsIdentifierText(KsIdentifierKind kind, const KSIDENTIFIER *identifier);

}  // namespace mft_core
