// Short texts for traces of KS requests: GUIDs in registry form and "{set} id N flags 0x..".
#pragma once

#include <string>

#include "platform/WindowsSdk.h"

namespace mft_core {

std::string GuidText(const GUID &guid);
std::string KsIdentifierText(const KSIDENTIFIER &identifier);

}  // namespace mft_core
