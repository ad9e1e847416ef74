// The product base transform through its COM surface over the simulated depth camera: the raw driver
// subtypes are hidden, and the product's extension unit is reachable as a whole set.
#include "ProductHarness.h"
#include "product/controls/WQ400PrivateProperties.h"
#include "product/transforms/WQ400DeviceMft.h"

using Microsoft::WRL::ComPtr;

namespace {

class BaseProductMft : public mft_core::WQ400DeviceMft {
 public:
  BaseProductMft() : WQ400DeviceMft("WQ400 Test Device MFT", GUID_NULL, sim::kDepthXuSet, 1, 7) {}
};

class WQ400DeviceMftTest : public ::testing::Test, public test_support::ProductHarness {
 protected:
  void Connect(const sim::CameraConfig &camera) {
    Create<BaseProductMft>(camera);
    ASSERT_EQ(S_OK, Initialize());
  }
  std::vector<GUID> OutputSubtypes(DWORD streamId) {
    std::vector<GUID> subtypes;
    for (DWORD index = 0;; ++index) {
      ComPtr<IMFMediaType> type;
      if (device->GetOutputAvailableType(streamId, index, type.GetAddressOf()) != S_OK) break;
      GUID subtype = GUID_NULL;
      type->GetGUID(MF_MT_SUBTYPE, &subtype);
      subtypes.push_back(subtype);
    }
    return subtypes;
  }
};

TEST_F(WQ400DeviceMftTest, RawDepthAndInfraredSubtypesAreNeitherPublishedNorAccepted) {
  sim::CameraConfig camera = sim::DepthCamera();
  // A stream that offers nothing but raw formats publishes no type at all.
  camera.streams[2].formats = sim::FormatGrid({{sim::kSubtypeY8, 1}, {sim::kSubtypeZ16, 2}}, {{640, 480}}, {30});
  Connect(camera);
  const std::vector<GUID> depth = OutputSubtypes(0), infrared = OutputSubtypes(1);
  EXPECT_EQ(camera.streams[0].formats.size() / 2, depth.size());
  EXPECT_EQ(camera.streams[1].formats.size() / 2, infrared.size());
  for (const GUID &subtype : depth) EXPECT_EQ(MFVideoFormat_D16, subtype);
  for (const GUID &subtype : infrared) EXPECT_EQ(MFVideoFormat_L8, subtype);
  EXPECT_TRUE(OutputSubtypes(2).empty());
  // Nor accepted when asked for.
  ComPtr<IMFMediaType> raw;
  ASSERT_EQ(S_OK, sim::SimulatedCameraFilter::CreateMediaType({sim::kSubtypeZ16, 848, 480, 30, 2}, raw.GetAddressOf()));
  EXPECT_EQ(E_INVALIDARG, device->SetOutputStreamState(0, raw.Get(), DeviceStreamState_Run, 0));
}

TEST_F(WQ400DeviceMftTest, EveryControlOfTheProductUnitReachesTheUnitsNodeAndTheApiVersionNone) {
  Connect(sim::DepthCamera());
  ComPtr<IKsControl> application = host->ApplicationKsControl();
  ASSERT_TRUE(application);
  const ULONG unitNode = filter->Config().extensionUnits[0].nodeId;

  // An application addresses the unit's controls without a node; the transform finds the node.
  for (ULONG id : {3ul, 11ul, 42ul}) {
    filter->ClearRequests();
    KSPROPERTY property = {sim::kDepthXuSet, id, KSPROPERTY_TYPE_GET};
    BYTE data[4] = {};
    ULONG bytesReturned = 0;
    const HRESULT hr = application->KsProperty(&property, sizeof(property), data, sizeof(data), &bytesReturned);
    if (id == 42) {
      EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_FOUND), hr);
    } else {
      EXPECT_EQ(S_OK, hr);
    }
    const auto requests = filter->Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(unitNode, requests[0].node);
    EXPECT_EQ(id, requests[0].id);
    EXPECT_TRUE(requests[0].flags & KSPROPERTY_TYPE_TOPOLOGY);
  }
  KSPROPERTY property = {sim::kDepthXuSet, 3, KSPROPERTY_TYPE_GET};
  uint32_t exposure = 0;
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, application->KsProperty(&property, sizeof(property), &exposure, sizeof(exposure), &bytesReturned));
  EXPECT_EQ(8500u, exposure);

  // The API version of the private set is answered by the transform itself.
  filter->ClearRequests();
  ULONG version[2] = {};
  EXPECT_EQ(S_OK, Property(mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_API_VERSION_ID,
                           KSPROPERTY_TYPE_GET, version, sizeof(version)));
  EXPECT_TRUE(filter->Requests().empty());
}

}  // namespace
