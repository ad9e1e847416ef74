#include "module/ClassObjects.h"

#include "product/transforms/WQ400ColorDeviceMFT.h"
#include "product/transforms/WQ400DepthDeviceMft.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/Trace.h"

namespace mft_utils {

namespace {

// Makes a transform and hands its one reference to the caller as IUnknown.
template <typename Transform>
HRESULT CreateTransform(user_space_frameworks::SourcePoint where, IUnknown **object) {
  RETURN_IF_NULL(object);
  *object = nullptr;
  return user_space_frameworks::Guarded(where, [&]() -> HRESULT {
    auto transform = user_space_frameworks::MakeComObject<Transform>();
    return transform->QueryInterface(IID_PPV_ARGS(object));
  });
}

}  // namespace

HRESULT CreateWQ400DepthDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400DepthDeviceMft>(WQ_HERE, object);
}

HRESULT CreateWQ400ColorDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400ColorDeviceMFT>(WQ_HERE, object);
}

HRESULT CreateWQ400FishEyeDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400FishEyeDeviceMft>(WQ_HERE, object);
}

}  // namespace mft_utils

// One line per class. The class identifiers are constant-initialised, so they are set before this table.
const mft_utils::ClassObjectEntry coi[] = {
    {mft_core::CLSID_WQ400DepthDeviceMft, &mft_utils::CreateWQ400DepthDeviceMft, L"WQ400 Depth Device MFT"},
    {mft_core::CLSID_WQ400ColorDeviceMFT, &mft_utils::CreateWQ400ColorDeviceMft, L"WQ400 Color Device MFT"},
    {mft_core::CLSID_WQ400FishEyeDeviceMft, &mft_utils::CreateWQ400FishEyeDeviceMft, L"WQ400 FishEye Device MFT"},
};
const size_t coiCount = sizeof(coi) / sizeof(coi[0]);
