// Guards the fisheye camera's standard gain: while the software auto exposure drives the camera an
// application may not set the gain; everything else reaches the driver unchanged.
#pragma once

#include <memory>

#include "mft_core/ks/KsControlHandlers.h"
#include "product/controls/WQ400FishEyeExtendedExposureControl.h"

namespace mft_core {

class WQ400FishEyeGainControl : public KsPropHandler {
 public:
  WQ400FishEyeGainControl(std::shared_ptr<WQ400FishEyeExtendedExposureControl> exposureControl,
                          IKsControl *filterKsControl);

  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;

 private:
  std::shared_ptr<WQ400FishEyeExtendedExposureControl> exposureControl;
};

}  // namespace mft_core
