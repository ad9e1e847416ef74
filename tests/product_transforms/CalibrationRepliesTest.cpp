// Calibration read from an extension unit of the simulated camera: well-formed tables, and replies that
// are short, empty or lie about their counts (nothing may be read past what the driver returned).
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
  // The color camera's unit with control 2 holding `reply`.
  void Connect(const std::vector<BYTE> &reply) {
    sim::CameraConfig camera = sim::ColorCamera();
    for (auto &control : camera.extensionUnits[0].controls) {
      if (control.id == kSelector) control = sim::ControlConfig{kSelector, reply};
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
  // Reads control 2 as intrinsics the way the color transform does.
  std::vector<BYTE> Intrinsics() {
    std::vector<BYTE> reply, intrinsics;
    EXPECT_EQ(S_OK, ReadCalibrationControl(*unit.Get(), kSelector, reply));
    size_t offset = 0, size = 0;
    if (FirstCalibrationEntry(reply, offset, size)) CopyIntrinsicsRecord(reply.data() + offset, size, intrinsics);
    return intrinsics;
  }
  std::vector<BYTE> Extrinsics() {
    std::vector<BYTE> reply, extrinsics;
    EXPECT_EQ(S_OK, ReadCalibrationControl(*unit.Get(), kSelector, reply));
    size_t offset = 0, size = 0;
    if (FirstCalibrationEntry(reply, offset, size)) CopyExtrinsicsRecord(reply.data() + offset, size, extrinsics);
    return extrinsics;
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<ExtensionUnitKsControl> unit;
};

std::vector<BYTE> WithCount(std::vector<BYTE> body, UINT32 count) {
  std::memcpy(body.data(), &count, sizeof(count));
  return body;
}

TEST_F(CalibrationFixture, TakesTheFirstEntryOfSingleAndDoubleTablesWhateverTheSensorIndex) {
  const std::vector<BYTE> first = sim::IntrinsicsBody(1280, 720, 640.0f);
  const std::vector<BYTE> second = sim::IntrinsicsBody(640, 480, 320.0f);
  Connect(sim::CalibrationTable({{7, first}}));
  EXPECT_EQ(first, Intrinsics());
  Connect(sim::CalibrationTable({{2, first}, {1, second}}));
  EXPECT_EQ(first, Intrinsics());

  const std::vector<BYTE> transform = sim::ExtrinsicsBody(0.015f);
  Connect(sim::CalibrationTable({{2, transform}}));
  EXPECT_EQ(transform, Extrinsics());
  // A count of 3 still yields the count and exactly one transform.
  std::vector<BYTE> three = WithCount(transform, 3);
  three.resize(three.size() + 88, 0xAB);
  Connect(sim::CalibrationTable({{2, three}}));
  const std::vector<BYTE> extrinsics = Extrinsics();
  ASSERT_EQ(48u, extrinsics.size());
  EXPECT_TRUE(std::equal(extrinsics.begin(), extrinsics.end(), three.begin()));
}

TEST_F(CalibrationFixture, EmptyOrZeroCountRepliesGiveNoCalibration) {
  const std::vector<std::vector<BYTE>> replies = {
      {},                                                                        // the control reports no bytes
      {0},                                                                       // no entry
      sim::CalibrationTable({{2, WithCount(sim::IntrinsicsBody(1, 1, 1), 0)}}),  // no model
  };
  for (const auto &reply : replies) {
    Connect(reply);
    EXPECT_TRUE(Intrinsics().empty()) << reply.size() << " bytes";
    EXPECT_TRUE(Extrinsics().empty()) << reply.size() << " bytes";
  }
}

TEST_F(CalibrationFixture, RepliesThatEndEarlyOrClaimMoreThanTheyHoldAreRefused) {
  const std::vector<BYTE> table = sim::CalibrationTable({{2, sim::IntrinsicsBody(640, 480, 320.0f)}});
  // Cut before the entry head, inside the model count, and one byte short of the model.
  for (size_t size : {size_t{3}, size_t{7}, table.size() - 1}) {
    Connect(std::vector<BYTE>(table.begin(), table.begin() + size));
    EXPECT_TRUE(Intrinsics().empty()) << size;
  }
  // Two models claimed, one present: the record would run past the reply.
  Connect(sim::CalibrationTable({{2, WithCount(sim::IntrinsicsBody(640, 480, 320.0f), 2)}}));
  EXPECT_TRUE(Intrinsics().empty());
  // A huge count must not overflow the size computation into something small.
  Connect(sim::CalibrationTable({{2, WithCount(sim::IntrinsicsBody(640, 480, 320.0f), 0xFFFFFFFF)}}));
  EXPECT_TRUE(Intrinsics().empty());
  // An extrinsics body shorter than one transform.
  std::vector<BYTE> shortTransform = sim::ExtrinsicsBody(0.0f);
  shortTransform.resize(40);
  Connect(sim::CalibrationTable({{2, shortTransform}}));
  EXPECT_TRUE(Extrinsics().empty());
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

}  // namespace
