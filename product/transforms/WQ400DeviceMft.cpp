#include "product/transforms/WQ400DeviceMft.h"

#include <memory>

#include "mft_core/ks/KsControlHandlers.h"
#include "product/controls/WQ400ApiVersion.h"

namespace mft_core {

const GUID kWQ400SubtypeZ16 = {0x2036315A, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const GUID kWQ400SubtypeY8 = {0x20203859, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

WQ400DeviceMft::WQ400DeviceMft(std::string displayName, const GUID &deviceXuSetId, ULONG deviceXuNode,
                               ULONG msXuNode)
    : PassThroughDeviceMft(std::move(displayName), DeviceExtensionUnits{deviceXuSetId, deviceXuNode, msXuNode}) {}

HRESULT WQ400DeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  RETURN_IF_FAILED(PassThroughDeviceMft::OnInitializeTransform(pAttributes));
  return S_OK;
}

HRESULT WQ400DeviceMft::InitializeMembers() {
  RETURN_IF_FAILED(PassThroughDeviceMft::InitializeMembers());
  return S_OK;
}

HRESULT WQ400DeviceMft::RegisterKsControlHandlres() {
  // The framework's pass-through defaults first: the product's handlers are matched before them.
  RETURN_IF_FAILED(PassThroughDeviceMft::RegisterKsControlHandlres());
  RETURN_IF_FAILED(RegisterKsPropertyHandler(std::make_shared<CompleteSetPropsHandler>(
      deviceXuKsControl.Get(), extensionUnits.deviceXuSetId, "Complete Set KS Properties Handler")));
  RETURN_IF_FAILED(RegisterKsPropertyHandler(std::make_shared<WQ400ApiVersion>()));
  return S_OK;
}

std::vector<GUID> WQ400DeviceMft::GetExcludedInputMediaTypes() { return {kWQ400SubtypeZ16, kWQ400SubtypeY8}; }

}  // namespace mft_core
