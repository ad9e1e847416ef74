// The simulated driver, like the kernel in front of a real one, refuses a request whose identifier or
// data length runs past accessible memory instead of touching it; the KS fuzz relies on that to tell a
// transform's overrun from a lie the driver would never have acted on.
#include <gtest/gtest.h>

#include <cstring>

#include "robustness/RobustnessSupport.h"
#include "sim/SimulatedCameraFilter.h"

using Microsoft::WRL::ComPtr;

namespace robustness {
namespace {

TEST(DriverBufferProbe, LengthsRunningIntoAGuardPageAreRefusedUntouched) {
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
  ASSERT_TRUE(filter);
  ComPtr<IKsControl> ks;
  ASSERT_EQ(S_OK, filter.As(&ks));
  const HRESULT noAccess = HRESULT_FROM_WIN32(ERROR_NOACCESS);
  GuardedRegion region(4096);
  KSPROPERTY_VIDEOPROCAMP_S *gain =
      reinterpret_cast<KSPROPERTY_VIDEOPROCAMP_S *>(region.EndingAtGuard(sizeof(KSPROPERTY_VIDEOPROCAMP_S)));
  std::memset(gain, 0, sizeof(*gain));
  gain->Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
  ULONG bytesReturned = 0;

  // Honest lengths right up to the guard page are answered.
  EXPECT_EQ(S_OK, ks->KsProperty(&gain->Property, sizeof(*gain), gain, sizeof(*gain), &bytesReturned));
  EXPECT_EQ(16, gain->Value);

  // A data or identifier length one byte past it, or 0xFFFFFFFF, is refused before anything is written.
  gain->Value = -1;
  EXPECT_EQ(noAccess, ks->KsProperty(&gain->Property, sizeof(*gain), gain, sizeof(*gain) + 1, &bytesReturned));
  EXPECT_EQ(noAccess, ks->KsProperty(&gain->Property, 0xFFFFFFFF, gain, sizeof(*gain), &bytesReturned));
  EXPECT_EQ(-1, gain->Value);
  KSMETHOD *method = reinterpret_cast<KSMETHOD *>(region.EndingAtGuard(sizeof(KSMETHOD)));
  *method = {sim::kDepthXuSet, 1, KSMETHOD_TYPE_SEND};
  EXPECT_EQ(noAccess, ks->KsMethod(method, sizeof(KSMETHOD) + 8, nullptr, 0, &bytesReturned));
  KSEVENT event = {sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId, KSEVENT_TYPE_ENABLE};
  EXPECT_EQ(noAccess, ks->KsEvent(&event, sizeof(event), region.EndingAtGuard(8), 0xFFFFFFFF, &bytesReturned));
  EXPECT_EQ(0u, filter->SignalAutoUpdate());
}

}  // namespace
}  // namespace robustness
