// Shutdown from the frame server while other threads start and stop streams, push and pull samples,
// send KS requests and shut down too: no crash, no hang beyond the documented waits, every call that
// begins after Shutdown returned is refused with MF_E_SHUTDOWN, and the driver filter is let go.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "common/CaptureMetadataSamples.h"
#include "lifetime/LifetimeSupport.h"

using Microsoft::WRL::ComPtr;

namespace lifetime {
namespace {

struct RoundResult {
  uint64_t earlyCalls = 0;  // calls that returned before Shutdown did: the race really ran
  uint64_t lateCalls = 0;
  uint64_t lateAccepted = 0;
};

// One round: `subject`'s transform through the DLL on a fresh camera, Shutdown racing four threads and a second Shutdown.
void RunRound(const Subject &subject, uint64_t round, std::mt19937 &random, RoundWatchdog &watchdog,
              RoundResult &result) {
  const std::string name = subject.name + " round " + std::to_string(round);
  watchdog.Phase("setting up");
  const sim::CameraConfig camera = subject.camera();
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(camera);
  ASSERT_TRUE(filter) << name;
  const ULONG filterAlone = References(filter.Get());
  {
    ComPtr<IMFDeviceTransform> device = CreateThroughDll(subject);
    ASSERT_TRUE(device) << name;
    sim::FrameServerHost host(device, filter);
    ASSERT_EQ(S_OK, host.Initialize()) << name;
    const DWORD other = static_cast<DWORD>(camera.streams.size() - 1);
    ComPtr<IMFMediaType> type0 = OutputType(device.Get(), 0, subject.width, subject.height, 30);
    ComPtr<IMFMediaType> typeOther = OutputType(device.Get(), other, subject.width, subject.height, 30);
    ASSERT_TRUE(type0 && typeOther) << name;
    // Half the rounds shut down a transform whose camera streams; the others one that is only starting.
    if (round % 2 == 0) ASSERT_EQ(S_OK, host.StartStream(0, type0.Get())) << name;
    ComPtr<IKsControl> ksControl;
    ComPtr<IMFShutdown> shutdown;
    ASSERT_EQ(S_OK, device.As(&ksControl)) << name;
    ASSERT_EQ(S_OK, device.As(&shutdown)) << name;
    sim::CameraMetadataWriter writer(subject.metadataKind);
    ComPtr<IMFSample> sample = test_samples::MakeSample(writer, 1);

    std::atomic<bool> shutdownReturned{false};
    std::atomic<uint64_t> earlyCalls{0}, lateCalls{0}, lateAccepted{0};
    // Repeats `call` until one call that began after Shutdown returned has been made; that one must be
    // refused.
    auto worker = [&](auto call) {
      return std::thread([&, call] {
        for (;;) {
          const bool late = shutdownReturned.load();
          const HRESULT hr = call();
          if (!shutdownReturned.load()) ++earlyCalls;
          if (late) {
            ++lateCalls;
            if (hr != MF_E_SHUTDOWN) ++lateAccepted;
            return;
          }
        }
      });
    };
    watchdog.Phase("racing");
    std::vector<std::thread> threads;
    threads.push_back(worker([&] {
      const HRESULT started = device->SetOutputStreamState(other, typeOther.Get(), DeviceStreamState_Run, 0);
      const HRESULT stopped = device->SetOutputStreamState(other, nullptr, DeviceStreamState_Stop, 0);
      return FAILED(started) ? started : stopped;
    }));
    threads.push_back(worker([&] { return device->ProcessInput(0, sample.Get(), 0); }));
    threads.push_back(worker([&] {
      MFT_OUTPUT_DATA_BUFFER buffer = {};
      DWORD status = 0;
      const HRESULT hr = device->ProcessOutput(0, 1, &buffer, &status);
      if (buffer.pSample) buffer.pSample->Release();
      if (buffer.pEvents) buffer.pEvents->Release();
      return hr;
    }));
    threads.push_back(worker([&] {
      KSPROPERTY_VIDEOPROCAMP_S gain = {};
      gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
      ULONG bytesReturned = 0;
      return ksControl->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned);
    }));
    // A second Shutdown at a random moment, as a frame server tearing down on two threads would.
    HRESULT secondShutdown = E_FAIL;
    const DWORD secondDelay = random() % 4;
    std::thread second([&] {
      Sleep(secondDelay);
      secondShutdown = shutdown->Shutdown();
    });
    Sleep(random() % 4);
    const HRESULT first = shutdown->Shutdown();
    shutdownReturned = true;
    watchdog.Phase("joining the racing threads");
    for (auto &thread : threads) thread.join();
    second.join();
    // Exactly one of the two shut the transform down; the other was told it already was.
    EXPECT_TRUE((first == S_OK && secondShutdown == MF_E_SHUTDOWN) ||
                (first == MF_E_SHUTDOWN && secondShutdown == S_OK))
        << name << ": Shutdown answered 0x" << std::hex << first << " and 0x" << secondShutdown;
    EXPECT_EQ(MF_E_SHUTDOWN, shutdown->Shutdown()) << name;
    watchdog.Phase("the frame server's own shutdown");
    host.Shutdown();
    result.earlyCalls += earlyCalls;
    result.lateCalls += lateCalls;
    result.lateAccepted += lateAccepted;
    EXPECT_EQ(0u, lateAccepted.load()) << name << ": a call made after Shutdown returned was not refused";
  }
  watchdog.Phase("waiting for the filter to be let go");
  EXPECT_TRUE(WaitFor([&] { return References(filter.Get()) == filterAlone; }, 5000))
      << name << ": " << References(filter.Get()) - filterAlone << " reference(s) to the filter kept";
}

TEST(ShutdownStress, ShutdownRacesEveryOtherCallOnEachTransform) {
  // A round holds at most a few of the transform's documented 10 s waits for the frame server.
  RoundWatchdog watchdog("shutdown stress", std::chrono::seconds(60));
  const uint64_t rounds = Scaled(1002);
  std::mt19937 random(1402);
  RoundResult result;
  for (uint64_t round = 0; round < rounds && !HasFatalFailure(); ++round) {
    const Subject &subject = Subjects()[round % Subjects().size()];
    watchdog.BeginRound(subject.name + " round " + std::to_string(round));
    RunRound(subject, round, random, watchdog, result);
  }
  std::printf("%llu rounds: %llu calls returned before Shutdown did, %llu began after it\n",
              static_cast<unsigned long long>(rounds), static_cast<unsigned long long>(result.earlyCalls),
              static_cast<unsigned long long>(result.lateCalls));
  EXPECT_EQ(4 * rounds, result.lateCalls);
  EXPECT_EQ(0u, result.lateAccepted);
}

}  // namespace
}  // namespace lifetime
