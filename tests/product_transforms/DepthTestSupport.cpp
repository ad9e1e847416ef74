#include "DepthTestSupport.h"

using Microsoft::WRL::ComPtr;

namespace test_support {

sim::ControlConfig *FindUnitControl(sim::CameraConfig &camera, const GUID &set, ULONG id) {
  for (auto &unit : camera.extensionUnits) {
    if (unit.set != set) continue;
    for (auto &control : unit.controls) {
      if (control.id == id) return &control;
    }
  }
  return nullptr;
}

void DepthTransformTest::Connect(const sim::CameraConfig &camera) {
  filter = sim::SimulatedCameraFilter::Create(camera);
  ASSERT_TRUE(filter);
  // Created directly from its class, as the class factory does.
  auto object = user_space_frameworks::MakeComObject<mft_core::WQ400DepthDeviceMft>();
  ASSERT_TRUE(object);
  ASSERT_EQ(S_OK, object.As(&device));
  host = std::make_unique<sim::FrameServerHost>(device, filter);
}

ComPtr<IMFMediaType> DepthTransformTest::OutputType(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(S_OK, host->FindOutputType(streamId, width, height, fps, type.GetAddressOf()));
  return type;
}

HRESULT DepthTransformTest::Start(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps) {
  ComPtr<IMFMediaType> type = OutputType(streamId, width, height, fps);
  if (!type) return MF_E_INVALIDMEDIATYPE;
  return host->StartStream(streamId, type.Get());
}

uint64_t DepthTransformTest::FramesOut(DWORD streamId) {
  for (const auto &stats : host->Stats()) {
    if (stats.outputStreamId == streamId) return stats.framesOut;
  }
  return 0;
}

ComPtr<IMFAttributes> DepthTransformTest::StreamAttributes(DWORD streamId) {
  ComPtr<IMFAttributes> attributes;
  EXPECT_EQ(S_OK, device->GetOutputStreamAttributes(streamId, attributes.GetAddressOf()));
  return attributes;
}

std::vector<BYTE> DepthTransformTest::StreamBlob(DWORD streamId, const GUID &key) {
  ComPtr<IMFAttributes> attributes = StreamAttributes(streamId);
  UINT32 size = 0;
  if (!attributes || FAILED(attributes->GetBlobSize(key, &size))) return {};
  std::vector<BYTE> blob(size);
  EXPECT_EQ(S_OK, attributes->GetBlob(key, blob.data(), size, &size));
  return blob;
}

HRESULT DepthTransformTest::Property(const GUID &set, ULONG id, ULONG flags, void *data, ULONG size,
                                     ULONG *bytesReturned) {
  KSPROPERTY property = {set, id, flags};
  ULONG returned = 0;
  return host->ApplicationKsControl()->KsProperty(&property, sizeof(property), data, size,
                                                  bytesReturned ? bytesReturned : &returned);
}

}  // namespace test_support
