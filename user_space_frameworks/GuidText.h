#pragma once

#include <string>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

// "{7CCF1517-DB56-4C60-853B-1D410539B47F}"
std::string GuidText(REFGUID guid);

}  // namespace user_space_frameworks
