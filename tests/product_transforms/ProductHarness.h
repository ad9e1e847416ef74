// A product transform created directly from its class, connected to a simulated camera and driven by
// the simulated frame server; KS requests go through the transform as an application's would.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Sync.h"

namespace product_test {

template <typename Predicate>
bool WaitFor(Predicate predicate, int timeoutMs = 10000) {
  for (int waited = 0; waited < timeoutMs; waited += 5) {
    if (predicate()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return predicate();
}

// What a delivered frame showed and what the camera says it was taken with.
struct DeliveredFrame {
  double mean = 0;
  UINT32 exposureUs = 0;
  UINT32 gain = 0;
  bool hasControlRecord = false;
};

class ProductHarness {
 public:
  template <typename Transform>
  void Connect(const sim::CameraConfig &camera) {
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    auto object = user_space_frameworks::MakeComObject<Transform>();
    ASSERT_EQ(S_OK, object.As(&device));
    host = std::make_unique<sim::FrameServerHost>(device, filter);
    host->SetOutputObserver([this](DWORD, IMFSample *sample) { Observe(sample); });
  }

  // Output stream attribute `key` as bytes; empty when absent.
  std::vector<BYTE> StreamBlob(DWORD outputStreamId, REFGUID key);
  // Starts output stream 0 at this size and rate.
  HRESULT Start(UINT32 width, UINT32 height, UINT32 fps);

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
  user_space_frameworks::Event autoDone{true};
  void Observe(IMFSample *sample);
  HRESULT ExposureProperty(ULONG flags, std::vector<BYTE> &data);

  std::mutex mutex;
  std::vector<DeliveredFrame> frames;
};

}  // namespace product_test
