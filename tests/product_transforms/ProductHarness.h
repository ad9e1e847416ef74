// A product transform created directly from its class (as the class factory does), connected to a
// simulated camera and driven by the simulated frame server; KS requests go through the transform as
// an application's would.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "common/Waiting.h"
#include "product/transforms/WQ400DepthDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Sync.h"

namespace test_support {

using test_waiting::WaitFor;

// An extension unit's control as the sim holds it; throws (failing the test) when the camera has none.
sim::ControlConfig &UnitControl(sim::CameraConfig &camera, const GUID &set, ULONG id);

// What a delivered frame showed and what the camera says it was taken with.
struct DeliveredFrame {
  double mean = 0;
  UINT32 exposureUs = 0;
  UINT32 gain = 0;
  bool hasControlRecord = false;
};

class ProductHarness {
 public:
  // The camera and the transform; nothing is observed until Connect.
  template <typename Transform>
  void Create(const sim::CameraConfig &camera) {
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    auto object = user_space_frameworks::MakeComObject<Transform>();
    ASSERT_TRUE(object);
    ASSERT_EQ(S_OK, object.As(&device));
    host = std::make_unique<sim::FrameServerHost>(device, filter);
  }
  // Created, with every delivered frame recorded (Frames()).
  template <typename Transform>
  void Connect(const sim::CameraConfig &camera) {
    Create<Transform>(camera);
    host->SetOutputObserver([this](DWORD, IMFSample *sample) { Observe(sample); });
  }
  HRESULT Initialize() { return host->Initialize(); }

  Microsoft::WRL::ComPtr<IMFMediaType> OutputType(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps);
  HRESULT Start(DWORD streamId, UINT32 width = 848, UINT32 height = 480, UINT32 fps = 30);
  uint64_t FramesOut(DWORD streamId) { return test_waiting::FramesOut(*host, streamId); }
  // Output stream attribute `key` as bytes; empty when absent.
  std::vector<BYTE> StreamBlob(DWORD streamId, REFGUID key);

  // A property request as an application sends it; the HRESULT of the transform's answer.
  HRESULT Property(const GUID &set, ULONG id, ULONG flags, void *data, ULONG size, ULONG *bytesReturned = nullptr);
  // The extended exposure control through the transform: SET with flags (and a manual value in
  // 100 ns units), GET of header and payload.
  HRESULT SetExposureMode(ULONGLONG flags, ULONGLONG exposure = 0);
  HRESULT GetExposureMode(KSCAMERA_EXTENDEDPROP_HEADER &header, KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING &setting);
  // Auto completes at once and sets the completion event, so one is armed first.
  HRESULT SetAutoExposure();
  // Arms the control's one-shot completion event.
  HRESULT ArmExposureEvent(HANDLE event);
  // The standard gain through the transform.
  HRESULT SetGain(LONG gain);
  HRESULT GetGain(LONG &gain);

  // The camera answers its property requests of `set` and `id` whose flags hold `flagsMask` with
  // `result`, `count` times (-1: always).
  void InjectPropertyFault(const GUID &set, ULONG id, ULONG flagsMask, HRESULT result = E_FAIL, int count = -1) {
    filter->InjectFault(sim::KsFault{sim::KsRequestKind::Property, set, id, flagsMask, result, count});
  }

  // The fisheye unit's exposure control as the camera holds it (microseconds).
  LONG DeviceExposureUs();
  LONG DeviceGain();

  std::vector<DeliveredFrame> Frames();
  size_t FrameCount();
  // Waits until `count` frames have been delivered in all.
  bool WaitForFrames(size_t count, int timeoutMs = 20000);

  // A sample observer of every delivered sample, on the host's pump thread.
  std::function<void(IMFSample *)> extraObserver;

  Microsoft::WRL::ComPtr<sim::SimulatedCameraFilter> filter;
  Microsoft::WRL::ComPtr<IMFDeviceTransform> device;
  std::unique_ptr<sim::FrameServerHost> host;

 private:
  void Observe(IMFSample *sample);
  HRESULT GainProperty(ULONG flags, LONG &gain);

  user_space_frameworks::Event autoDone{true};
  std::mutex mutex;
  std::vector<DeliveredFrame> frames;
};

// A harness whose transform must shut down cleanly at the end of the test.
struct ProductTest : ::testing::Test, ProductHarness {
  void TearDown() override {
    if (host) EXPECT_EQ(S_OK, host->Shutdown());
  }
};

// A depth transform over a simulated depth camera; Initialize() runs InitializeTransform.
class DepthTransformTest : public ::testing::Test, public ProductHarness {
 protected:
  void Connect(const sim::CameraConfig &camera = sim::DepthCamera()) { Create<mft_core::WQ400DepthDeviceMft>(camera); }
  void ConnectAndInitialize(const sim::CameraConfig &camera = sim::DepthCamera()) {
    Connect(camera);
    ASSERT_EQ(S_OK, Initialize());
  }
};

}  // namespace test_support
