// A depth transform created from its class, initialised by the simulated frame server over a
// simulated depth camera.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "product/transforms/WQ400DepthDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"

namespace test_support {

template <typename Predicate>
bool WaitFor(Predicate predicate, int timeoutMs = 10000) {
  for (int waited = 0; waited < timeoutMs; waited += 5) {
    if (predicate()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return predicate();
}

// The depth unit's control as the sim holds it.
sim::ControlConfig *FindUnitControl(sim::CameraConfig &camera, const GUID &set, ULONG id);

class DepthTransformTest : public ::testing::Test {
 protected:
  // Creates the camera and the transform; Initialize() runs InitializeTransform.
  void Connect(const sim::CameraConfig &camera = sim::DepthCamera());
  HRESULT Initialize() { return host->Initialize(); }
  void ConnectAndInitialize(const sim::CameraConfig &camera = sim::DepthCamera()) {
    Connect(camera);
    ASSERT_EQ(S_OK, Initialize());
  }

  Microsoft::WRL::ComPtr<IMFMediaType> OutputType(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps);
  HRESULT Start(DWORD streamId, UINT32 width = 848, UINT32 height = 480, UINT32 fps = 30);
  uint64_t FramesOut(DWORD streamId);
  Microsoft::WRL::ComPtr<IMFAttributes> StreamAttributes(DWORD streamId);
  std::vector<BYTE> StreamBlob(DWORD streamId, const GUID &key);
  // A property request as an application sends it; the HRESULT of the transform's answer.
  HRESULT Property(const GUID &set, ULONG id, ULONG flags, void *data, ULONG size, ULONG *bytesReturned = nullptr);

  Microsoft::WRL::ComPtr<sim::SimulatedCameraFilter> filter;
  Microsoft::WRL::ComPtr<IMFDeviceTransform> device;
  std::unique_ptr<sim::FrameServerHost> host;
};

}  // namespace test_support
