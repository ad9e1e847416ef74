// The common base of the camera family's device transforms: the product's extension unit, the raw
// driver subtypes that applications never see, and the KS handlers every product exposes.
#pragma once

#include <string>
#include <vector>

#include "mft_core/transform/PassThroughDeviceMft.h"

namespace mft_core {

// The camera's raw depth and infrared formats; the driver offers published peers of both.
extern const GUID kWQ400SubtypeZ16;  // "Z16 "
extern const GUID kWQ400SubtypeY8;   // "Y8  "

// The class identifiers the module registers its transforms under.
extern const GUID CLSID_WQ400DepthDeviceMft;
extern const GUID CLSID_WQ400ColorDeviceMFT;
extern const GUID CLSID_WQ400FishEyeDeviceMft;

class WQ400DeviceMft : public PassThroughDeviceMft {
 protected:
  // `deviceXuNode` and `msXuNode` are the controls by which the product's own unit and the platform
  // unit are found among the filter's nodes; 0 for the platform unit means the camera has none.
  // `transformClass` is the class the module creates it as.
  WQ400DeviceMft(std::string displayName, const GUID &transformClass, const GUID &deviceXuSetId, ULONG deviceXuNode,
                 ULONG msXuNode);
  ~WQ400DeviceMft() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *pAttributes) override;
  HRESULT InitializeMembers() override;
  HRESULT RegisterKsControlHandlres() override;
  // A fresh list on every call: "Z16 " then "Y8  ".
  std::vector<GUID> GetExcludedInputMediaTypes() override;
};

}  // namespace mft_core
