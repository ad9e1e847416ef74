// Calibration controls read from an extension unit of the simulated camera, and intrinsics records
// that are short or lie about their model count (nothing may be read past what the driver returned).
#include <gtest/gtest.h>

#include <cstring>

#include "product/transforms/WQ400CalibrationReplies.h"
#include "sim/CalibrationReplies.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using namespace mft_core;

namespace {

constexpr ULONG kSelector = 2;

struct CalibrationFixture : ::testing::Test {
  // The color camera's unit with control 2 holding `value`.
  void Connect(const std::vector<BYTE> &value) {
    sim::CameraConfig camera = sim::ColorCamera();
    for (auto &control : camera.extensionUnits[0].controls) {
      if (control.id == kSelector) control = sim::ControlConfig{kSelector, value};
    }
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    ComPtr<IMFTransform> transform;
    ComPtr<IKsControl> ksControl;
    ASSERT_EQ(S_OK, filter.As(&transform));
    ASSERT_EQ(S_OK, filter.As(&ksControl));
    unit = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(sim::kColorXuSet, "Color ");
    ASSERT_EQ(S_OK, unit->Init(transform, ksControl, kSelector));
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<ExtensionUnitKsControl> unit;
};

TEST_F(CalibrationFixture, ReadsTheWholeControlWhateverItsSize) {
  for (const std::vector<BYTE> &value : {std::vector<BYTE>{}, std::vector<BYTE>{7, 8, 9}, sim::FisheyeIntrinsicsReply()}) {
    Connect(value);
    std::vector<BYTE> reply{0xEE};
    EXPECT_EQ(S_OK, ReadCalibrationControl(*unit.Get(), kSelector, reply));
    EXPECT_EQ(value, reply);
  }
}

TEST_F(CalibrationFixture, ADriverThatRefusesTheControlLeavesNothing) {
  Connect(sim::CalibrationTable({{2, sim::IntrinsicsBody(640, 480, 320.0f)}}));
  sim::KsFault fault;
  fault.set = sim::kColorXuSet;
  fault.id = kSelector;
  fault.result = E_ACCESSDENIED;
  filter->InjectFault(fault);
  std::vector<BYTE> reply{1, 2, 3};
  EXPECT_EQ(S_OK, ReadCalibrationControl(*unit.Get(), kSelector, reply));
  EXPECT_TRUE(reply.empty());
}

TEST(IntrinsicsRecord, CopiesExactlyTheModelsTheCountClaimsWhenTheyAreThere) {
  std::vector<BYTE> twoModels = sim::IntrinsicsBody(640, 480, 320.0f, 2);
  const std::vector<BYTE> second = sim::IntrinsicsBody(320, 240, 160.0f);
  twoModels.insert(twoModels.end(), second.begin() + 4, second.end());
  twoModels.resize(twoModels.size() + 10, 0xAB);  // trailing bytes are not part of the record

  struct Case {
    const char *name;
    UINT32 count;
    size_t size;
    size_t expected;
  };
  const Case cases[] = {
      {"two models", 2, twoModels.size(), 4 + 2 * 44},
      {"one of two", 1, twoModels.size(), 4 + 44},
      {"no model", 0, twoModels.size(), 0},
      {"one byte short", 2, 4 + 2 * 44 - 1, 0},
      {"count only", 1, 4, 0},
      {"shorter than the count", 1, 3, 0},
      {"count that would overflow", 0xFFFFFFFF, twoModels.size(), 0},
  };
  for (const Case &c : cases) {
    std::vector<BYTE> body = twoModels;
    std::memcpy(body.data(), &c.count, sizeof(c.count));
    std::vector<BYTE> intrinsics{1};
    EXPECT_EQ(c.expected != 0, CopyIntrinsicsRecord(body.data(), c.size, intrinsics)) << c.name;
    ASSERT_EQ(c.expected, intrinsics.size()) << c.name;
    EXPECT_TRUE(std::equal(intrinsics.begin(), intrinsics.end(), body.begin())) << c.name;
  }
}

}  // namespace
