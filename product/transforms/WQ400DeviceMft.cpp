#include "product/transforms/WQ400DeviceMft.h"

#include <memory>

#include "mft_core/ks/KsControlHandlers.h"
#include "product/controls/WQ400ApiVersion.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

using std::make_shared;

const GUID kWQ400SubtypeZ16 = {0x2036315A, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const GUID kWQ400SubtypeY8 = {0x20203859, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

const GUID CLSID_WQ400DepthDeviceMft = {0xE365CD7E, 0xB3A0, 0x47B2, {0xAA, 0x49, 0xE0, 0x45, 0xAA, 0x4E, 0x77, 0xBF}};
const GUID CLSID_WQ400ColorDeviceMFT = {0x5B45BF9D, 0xC4BF, 0x4F8B, {0x81, 0xC8, 0x40, 0x7A, 0xBF, 0xAA, 0xAE, 0xA8}};
const GUID CLSID_WQ400FishEyeDeviceMft = {0x42547A62, 0x2335, 0x4325, {0x83, 0xA3, 0x21, 0x7D, 0x4F, 0x96, 0x59, 0x4D}};

WQ400DeviceMft::WQ400DeviceMft(std::string displayName, const GUID &transformClass, const GUID &deviceXuSetId,
                               ULONG deviceXuNode, ULONG msXuNode)
    : PassThroughDeviceMft(std::move(displayName), DeviceExtensionUnits{deviceXuSetId, deviceXuNode, msXuNode},
                           transformClass) {}

HRESULT WQ400DeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(PassThroughDeviceMft::OnInitializeTransform(pAttributes));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DeviceMft::InitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(PassThroughDeviceMft::InitializeMembers());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DeviceMft::RegisterKsControlHandlres() {
  WQ_SCOPE_BEGIN(HRESULT);
  // The framework's pass-through defaults first: the product's handlers are matched before them.
  RETURN_IF_FAILED(PassThroughDeviceMft::RegisterKsControlHandlres());
  // The product's whole extension-unit set goes to its unit's node.
  const GUID &deviceXuSetId = extensionUnits.deviceXuSetId;
  RETURN_IF_FAILED(RegisterKsPropertyHandler(make_shared<CompleteSetPropsHandler>(deviceXuKsControl, deviceXuSetId)));
  RETURN_IF_FAILED(RegisterKsPropertyHandler(make_shared<WQ400ApiVersion>()));
  return S_OK;
  WQ_SCOPE_END;
}

std::vector<GUID> WQ400DeviceMft::GetExcludedInputMediaTypes() {
  WQ_SCOPE();
  return {kWQ400SubtypeZ16, kWQ400SubtypeY8};
}

}  // namespace mft_core
