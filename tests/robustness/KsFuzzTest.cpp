// Each camera transform, created through the DLL and streaming on the simulated camera, under a storm of
// random and lying KS requests from an application: afterwards it still streams and its controls still
// answer as they should. Every buffer the requests carry is fenced by guard pages, so an overrun by the
// transform (or by the driver it forwards to) faults the program. Counts scale with
// WQ400_ROBUSTNESS_SCALE.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "product/controls/WQ400PrivateProperties.h"
#include "robustness/RobustnessSupport.h"
#include "sim/FrameServerHost.h"

using Microsoft::WRL::ComPtr;

namespace robustness {
namespace {

using test_waiting::FramesOut;

ComPtr<IMFMediaType> FirstType(IMFDeviceTransform *device, DWORD streamId) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(S_OK, device->GetOutputAvailableType(streamId, 0, type.GetAddressOf()));
  return type;
}

HRESULT Property(IKsControl *ks, const GUID &set, ULONG id, ULONG flags, void *data, ULONG length) {
  KSPROPERTY property = {set, id, flags};
  ULONG bytesReturned = 0;
  return ks->KsProperty(&property, sizeof(property), data, length, &bytesReturned);
}

void ExpectApiVersion(IKsControl *ks) {
  mft_core::KSPROPERTY_WQ400_API_VERSION version = {};
  ASSERT_EQ(S_OK, Property(ks, mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_API_VERSION_ID,
                           KSPROPERTY_TYPE_GET, &version, sizeof(version)));
  EXPECT_EQ(2u, version.major);
  EXPECT_EQ(3u, version.minor);
}

// The standard gain, set and read back through the transform.
void ExpectGainRoundTrip(IKsControl *ks, LONG value) {
  KSPROPERTY_VIDEOPROCAMP_S gain = {};
  gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_SET};
  gain.Value = value;
  gain.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, ks->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  gain = {};
  gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
  ASSERT_EQ(S_OK, ks->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  EXPECT_EQ(value, gain.Value);
}

// A manual exposure (100 ns units) through the extended exposure control, read back.
void ExpectManualExposureRoundTrip(IKsControl *ks, ULONGLONG exposure) {
  ExtendedExposureData request = ManualExposure(exposure);
  ASSERT_EQ(S_OK, Property(ks, KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE,
                           KSPROPERTY_TYPE_SET, &request, sizeof(request)));
  request = {};
  ASSERT_EQ(S_OK, Property(ks, KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE,
                           KSPROPERTY_TYPE_GET, &request, sizeof(request)));
  EXPECT_EQ(static_cast<ULONGLONG>(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL), request.header.Flags);
  EXPECT_EQ(exposure, request.setting.VideoProc.Value.ull);
}

class KsFuzz : public ::testing::TestWithParam<std::string> {};

TEST_P(KsFuzz, RandomAndLyingRequestsWhileStreamingLeaveTheTransformWorking) {
  TransformOnCamera subject(GetParam());
  ASSERT_TRUE(subject.host);
  const sim::CameraConfig &camera = subject.camera;
  sim::SimulatedCameraFilter *filter = subject.filter.Get();
  IMFDeviceTransform *device = subject.device.Get();
  sim::FrameServerHost &host = *subject.host;
  ASSERT_EQ(S_OK, host.Initialize());
  ASSERT_EQ(S_OK, host.StartStream(0, FirstType(device, 0).Get()));
  ASSERT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= 2; }));

  HANDLE applicationEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ComPtr<IKsControl> ks = host.ApplicationKsControl();
  ASSERT_TRUE(ks);
  {
    // Two applications at once, each with its own fuzzer, while the camera now and then signals its
    // firmware-condition event.
    constexpr int kApplications = 2;
    const uint64_t requests = Scaled(100000);
    std::vector<std::unique_ptr<KsFuzzer>> fuzzers;
    for (int i = 0; i < kApplications; ++i) {
      fuzzers.push_back(std::make_unique<KsFuzzer>(0x5EED0000u + 16 * i + static_cast<uint32_t>(GetParam().size()),
                                                   camera, applicationEvent));
    }
    RoundWatchdog watchdog("KS fuzz", std::chrono::seconds(30));  // beyond the 10 s a topology may wait
    std::atomic<bool> fuzzing{true};
    std::atomic<size_t> signalled{0};
    std::thread camerasEvents([&] {
      while (fuzzing) {
        signalled = filter->SignalAutoUpdate();
        Sleep(50);
      }
    });
    // Meanwhile the frame server starts and stops the camera's last stream, when it has more than one
    // (depth: the second infrared stream).
    const DWORD other = static_cast<DWORD>(camera.streams.size() - 1);
    std::thread toggler([&] {
      while (fuzzing && other != 0) {
        host.StartStream(other, FirstType(device, other).Get());
        Sleep(15);
        host.StopStream(other);
      }
    });
    std::vector<std::thread> applications;
    for (int a = 0; a < kApplications; ++a) {
      applications.emplace_back([&, a] {
        KsFuzzer &fuzzer = *fuzzers[a];
        for (uint64_t i = a; i < requests; i += kApplications) {
          if (a == 0 && i % 256 == 0) watchdog.BeginRound(fuzzer.LastRequest());
          fuzzer.SendOne(ks.Get());
        }
      });
    }
    for (auto &application : applications) application.join();
    fuzzing = false;
    camerasEvents.join();
    toggler.join();
    KsRequestStats total;
    for (const auto &fuzzer : fuzzers) {
      total.sent += fuzzer->Stats().sent;
      total.succeeded += fuzzer->Stats().succeeded;
      for (int k = 0; k < 3; ++k) total.byKind[k] += fuzzer->Stats().byKind[k];
    }
    EXPECT_EQ(requests, total.sent);
    std::printf("%s: %llu KS requests (%llu properties, %llu events, %llu methods), %llu succeeded, %zu driver subscriptions left\n",
                GetParam().c_str(), static_cast<unsigned long long>(total.sent),
                static_cast<unsigned long long>(total.byKind[0]), static_cast<unsigned long long>(total.byKind[1]),
                static_cast<unsigned long long>(total.byKind[2]), static_cast<unsigned long long>(total.succeeded), signalled.load());
  }

  // Still streaming, and its controls still answer as they should.
  const uint64_t before = FramesOut(host, 0);
  EXPECT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= before + 3; }));
  ExpectApiVersion(ks.Get());
  if (camera.name != "color") {
    ExpectManualExposureRoundTrip(ks.Get(), 50000);
    ExpectManualExposureRoundTrip(ks.Get(), 100000);
  }
  ExpectGainRoundTrip(ks.Get(), 20);
  ExpectGainRoundTrip(ks.Get(), 32);
  ASSERT_EQ(S_OK, host.StopStream(0));
  ASSERT_EQ(S_OK, host.StartStream(0, FirstType(device, 0).Get()));
  const uint64_t restarted = FramesOut(host, 0);
  EXPECT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= restarted + 3; }));
  EXPECT_EQ(S_OK, host.Shutdown());
  CloseHandle(applicationEvent);
}

INSTANTIATE_TEST_SUITE_P(EachCamera, KsFuzz, ::testing::ValuesIn(CameraNames()),
                         [](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

}  // namespace
}  // namespace robustness
