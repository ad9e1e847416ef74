#include "product/controls/WQ400FishEyeGainControl.h"

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

WQ400FishEyeGainControl::WQ400FishEyeGainControl(std::shared_ptr<WQ400FishEyeExtendedExposureControl> exposureControl,
                                                 IKsControl *filterKsControl)
    : KsPropHandler(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, "WQ400 Fish Eye Gain control",
                    filterKsControl),
      exposureControl(std::move(exposureControl)) {}

HRESULT WQ400FishEyeGainControl::Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                     ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pProperty);
  RETURN_HR_IF_NULL(E_UNEXPECTED, ksControl);
  if ((pProperty->Flags & KSPROPERTY_TYPE_SET) != 0 && exposureControl && exposureControl->IsAuto()) {
    WQ_TRACE(Warning, "gain set refused: the auto exposure drives the gain");
    return E_UNEXPECTED;
  }
  return ksControl->KsProperty(pProperty, ulPropertyLength, pPropertyData, ulDataLength, pBytesReturned);
  WQ_SCOPE_END;
}

}  // namespace mft_core
