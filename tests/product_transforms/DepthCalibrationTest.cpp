// Intrinsics and extrinsics the depth transform publishes on its output streams, read from the
// camera's calibration tables: the right entry on the right stream, and nothing from a table that lies.
#include <cstring>

#include "ProductHarness.h"

using Microsoft::WRL::ComPtr;
using sim::CalibrationTable;
using sim::ExtrinsicsBody;
using sim::IntrinsicsBody;

namespace {

constexpr ULONG kExtrinsics = mft_core::WQ400DepthDeviceMft::kExtrinsicsSelector;
constexpr ULONG kIntrinsics = mft_core::WQ400DepthDeviceMft::kIntrinsicsSelector;
constexpr DWORD kDepth = 0, kInfrared1 = 1, kInfrared2 = 2;

class DepthCalibrationTest : public test_support::DepthTransformTest {
 protected:
  void SetTable(sim::CameraConfig &camera, ULONG selector, std::vector<BYTE> table) {
    sim::ControlConfig &control = test_support::UnitControl(camera, sim::kDepthXuSet, selector);
    control.value = std::move(table);
    control.fixedSize = control.value.size();
  }
  std::vector<BYTE> Intrinsics(DWORD streamId) { return StreamBlob(streamId, MFStreamExtension_PinholeCameraIntrinsics); }
  std::vector<BYTE> Extrinsics(DWORD streamId) { return StreamBlob(streamId, MFStreamExtension_CameraExtrinsics); }
};

TEST_F(DepthCalibrationTest, DepthGetsSensorOneAndEveryInfraredStreamSensorTwo) {
  sim::CameraConfig camera = sim::DepthCamera();
  // Sensor 2 listed twice: the first entry decides.
  SetTable(camera, kIntrinsics,
           CalibrationTable({{3, IntrinsicsBody(1920, 1080, 900.0f)}, {1, IntrinsicsBody(848, 480, 420.0f)},
                             {2, IntrinsicsBody(1280, 720, 640.0f, 2)}, {2, IntrinsicsBody(640, 480, 1.0f)}}));
  // A count of 3 still yields the count and one transform.
  SetTable(camera, kExtrinsics, CalibrationTable({{2, ExtrinsicsBody(-0.05f, 3)}, {1, ExtrinsicsBody(0.0f)}}));
  ConnectAndInitialize(camera);

  EXPECT_EQ(IntrinsicsBody(848, 480, 420.0f), Intrinsics(kDepth));
  EXPECT_EQ(ExtrinsicsBody(0.0f), Extrinsics(kDepth));
  for (DWORD stream : {kInfrared1, kInfrared2}) {
    const std::vector<BYTE> intrinsics = Intrinsics(stream);
    ASSERT_EQ(4u + 2 * 44u, intrinsics.size());
    EXPECT_EQ(IntrinsicsBody(1280, 720, 640.0f, 2), intrinsics);
    const std::vector<BYTE> extrinsics = Extrinsics(stream);
    ASSERT_EQ(48u, extrinsics.size());
    EXPECT_EQ(ExtrinsicsBody(-0.05f, 3), extrinsics);
  }
  // Each stream asked for the size, then read the table: two requests per table and stream.
  EXPECT_EQ(6u, filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kIntrinsics));
  EXPECT_EQ(6u, filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kExtrinsics));
}

TEST_F(DepthCalibrationTest, CustomStreamsGetNoCalibrationAndDoNotAskForIt) {
  sim::CameraConfig camera = sim::DepthCamera();
  camera.streams[2].frameSourceType = MFFrameSourceTypes_Custom;
  camera.streams[1].frameSourceType = MFFrameSourceTypes_Color;
  ConnectAndInitialize(camera);
  EXPECT_FALSE(Intrinsics(kInfrared1).empty());
  EXPECT_TRUE(Intrinsics(kInfrared2).empty());
  EXPECT_TRUE(Extrinsics(kInfrared2).empty());
  EXPECT_EQ(4u, filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kIntrinsics));
}

struct TableCase {
  const char *name;
  std::vector<BYTE> intrinsics;
  bool depthHas;     // sensor 1
  bool infraredHas;  // sensor 2
};

std::vector<BYTE> Cut(std::vector<BYTE> bytes, size_t count) {
  bytes.resize(bytes.size() - count);
  return bytes;
}

std::vector<BYTE> WithByte(std::vector<BYTE> bytes, size_t offset, BYTE value) {
  bytes.at(offset) = value;
  return bytes;
}

// The table's own structure; a record's model count is the record reader's (CalibrationRepliesTest).
class DepthCalibrationTableTest : public DepthCalibrationTest, public ::testing::WithParamInterface<TableCase> {};

TEST_P(DepthCalibrationTableTest, LeavesOutWhatTheTableDoesNotTrulyHold) {
  sim::CameraConfig camera = sim::DepthCamera();
  SetTable(camera, kIntrinsics, GetParam().intrinsics);
  ConnectAndInitialize(camera);
  EXPECT_EQ(GetParam().depthHas, !Intrinsics(kDepth).empty());
  EXPECT_EQ(GetParam().infraredHas, !Intrinsics(kInfrared1).empty());
  EXPECT_EQ(GetParam().infraredHas, !Intrinsics(kInfrared2).empty());
  // Extrinsics come from their own table and are unaffected.
  EXPECT_EQ(48u, Extrinsics(kDepth).size());
  // The transform streams all the same.
  ASSERT_EQ(S_OK, Start(kDepth));
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(kDepth) >= 2; }));
}

const std::vector<BYTE> kSensor1 = IntrinsicsBody(848, 480, 420.0f);
const std::vector<BYTE> kSensor2 = IntrinsicsBody(848, 480, 425.0f);

INSTANTIATE_TEST_SUITE_P(
    Tables, DepthCalibrationTableTest,
    ::testing::Values(
        TableCase{"Empty", {}, false, false},
        TableCase{"NoEntries", {0}, false, false},
        TableCase{"OnlySensorTwo", CalibrationTable({{2, kSensor2}}), false, true},
        // The first entry claims more bytes than the reply holds: the entries after it cannot be found,
        // but its own record, 4 + 44 M bytes, is all there and is used.
        TableCase{"LengthPastReply", WithByte(CalibrationTable({{2, kSensor2}, {1, kSensor1}}), 4, 0x40), false,
                  true},
        // N says three entries, two are present.
        TableCase{"MoreEntriesAnnounced", WithByte(CalibrationTable({{1, kSensor1}, {2, kSensor2}}), 0, 3), true, true},
        TableCase{"MoreEntriesAnnouncedThanPresent", WithByte(CalibrationTable({{1, kSensor1}}), 0, 3), true, false},
        TableCase{"TruncatedHead", Cut(CalibrationTable({{1, kSensor1}, {2, kSensor2}}), kSensor2.size() + 2), true,
                  false}),
    [](const ::testing::TestParamInfo<TableCase> &info) { return info.param.name; });

TEST_F(DepthCalibrationTest, TablesTheDriverCannotReadOrDoesNotHaveLeaveTheStreamsWithoutThemButStreaming) {
  // The intrinsics read fails: the extrinsics are still published.
  Connect(sim::DepthCamera());
  InjectPropertyFault(sim::kDepthXuSet, kIntrinsics, KSPROPERTY_TYPE_GET, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE));
  ASSERT_EQ(S_OK, Initialize());
  for (DWORD stream : {kDepth, kInfrared1, kInfrared2}) {
    EXPECT_TRUE(Intrinsics(stream).empty());
    EXPECT_FALSE(Extrinsics(stream).empty());
  }
  ASSERT_EQ(S_OK, host->Shutdown());
  // A camera without either table.
  sim::CameraConfig camera = sim::DepthCamera();
  auto &controls = camera.extensionUnits[0].controls;
  controls.erase(std::remove_if(controls.begin(), controls.end(),
                                [](const sim::ControlConfig &c) { return c.id == kIntrinsics || c.id == kExtrinsics; }),
                 controls.end());
  ConnectAndInitialize(camera);
  for (DWORD stream : {kDepth, kInfrared1, kInfrared2}) {
    EXPECT_TRUE(Intrinsics(stream).empty());
    EXPECT_TRUE(Extrinsics(stream).empty());
  }
  ASSERT_EQ(S_OK, Start(kInfrared1));
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(kInfrared1) >= 2; }));
}

}  // namespace
