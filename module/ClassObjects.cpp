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
HRESULT CreateTransform(const char *prettyFunction, IUnknown **object) {
  RETURN_IF_NULL(object);
  *object = nullptr;
  user_space_frameworks::trace::Write(user_space_frameworks::TraceLevel::Verbose, prettyFunction, "==>");
  const HRESULT hr = user_space_frameworks::ExceptionGuard(prettyFunction, [&]() -> HRESULT {
    auto transform = user_space_frameworks::MakeComObject<Transform>();
    return transform->QueryInterface(IID_PPV_ARGS(object));
  });
  user_space_frameworks::trace::Write(user_space_frameworks::TraceLevel::Verbose, prettyFunction,
                                      "<== " + user_space_frameworks::trace::HrText(hr));
  return hr;
}

}  // namespace

HRESULT CreateWQ400DepthDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400DepthDeviceMft>(WQ_FUNCTION, object);
}

HRESULT CreateWQ400ColorDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400ColorDeviceMFT>(WQ_FUNCTION, object);
}

HRESULT CreateWQ400FishEyeDeviceMft(IUnknown **object) {
  return CreateTransform<mft_core::WQ400FishEyeDeviceMft>(WQ_FUNCTION, object);
}

}  // namespace mft_utils

// One line per class.
const mft_utils::ClassObjectEntry coi[] = {
    {{0xE365CD7E, 0xB3A0, 0x47B2, {0xAA, 0x49, 0xE0, 0x45, 0xAA, 0x4E, 0x77, 0xBF}},
     &mft_utils::CreateWQ400DepthDeviceMft, L"WQ400 Depth Device MFT"},
    {{0x5B45BF9D, 0xC4BF, 0x4F8B, {0x81, 0xC8, 0x40, 0x7A, 0xBF, 0xAA, 0xAE, 0xA8}},
     &mft_utils::CreateWQ400ColorDeviceMft, L"WQ400 Color Device MFT"},
    {{0x42547A62, 0x2335, 0x4325, {0x83, 0xA3, 0x21, 0x7D, 0x4F, 0x96, 0x59, 0x4D}},
     &mft_utils::CreateWQ400FishEyeDeviceMft, L"WQ400 FishEye Device MFT"},
};
const size_t coiCount = sizeof(coi) / sizeof(coi[0]);
