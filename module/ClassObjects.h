// The classes this module creates (`coi`), and their creation functions.
#pragma once

#include <cstddef>

#include "module/DllClassFactory.h"

namespace mft_utils {

HRESULT CreateWQ400DepthDeviceMft(IUnknown **object);
HRESULT CreateWQ400ColorDeviceMft(IUnknown **object);
HRESULT CreateWQ400FishEyeDeviceMft(IUnknown **object);

}  // namespace mft_utils

extern const mft_utils::ClassObjectEntry coi[];
extern const size_t coiCount;
