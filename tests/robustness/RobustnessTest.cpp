// Each camera transform against what the frame server and applications can do to it: a storm of random
// and lying KS requests while it streams, Shutdown racing every other kind of call, and thousands of
// start and stop cycles, after which nothing it was handed stays referenced and the process has not grown.
// Counts scale with WQ400_ROBUSTNESS_SCALE for longer runs.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "common/CaptureMetadataSamples.h"

#include "robustness/RobustnessSupport.h"
#include "sim/FrameServerHost.h"

using Microsoft::WRL::ComPtr;

namespace robustness {
namespace {

template <typename Predicate>
bool WaitFor(Predicate predicate, int timeoutMs = 10000) {
  for (int waited = 0; waited < timeoutMs; waited += 5) {
    if (predicate()) return true;
    Sleep(5);
  }
  return predicate();
}

// Fails the whole program if one call takes longer than any documented wait allows.
class Watchdog {
 public:
  explicit Watchdog(const char *what) : what(what), thread([this] { Run(); }) {}
  ~Watchdog() {
    done = true;
    thread.join();
  }
  void Beat(const std::string &current) {
    std::lock_guard<std::mutex> lock(mutex);
    last = current;
    beat = std::chrono::steady_clock::now();
  }

 private:
  void Run() {
    while (!done) {
      Sleep(100);
      std::lock_guard<std::mutex> lock(mutex);
      if (std::chrono::steady_clock::now() - beat > std::chrono::seconds(30)) {
        std::fprintf(stderr, "%s hung on: %s\n", what, last.c_str());
        std::abort();
      }
    }
  }
  const char *what;
  std::mutex mutex;
  std::string last;
  std::chrono::steady_clock::time_point beat = std::chrono::steady_clock::now();
  std::atomic<bool> done{false};
  std::thread thread;
};

uint64_t FramesOut(sim::FrameServerHost &host, DWORD streamId) {
  for (const auto &stats : host.Stats()) {
    if (stats.outputStreamId == streamId) return stats.framesOut;
  }
  return 0;
}

ComPtr<IMFMediaType> FirstType(IMFDeviceTransform *device, DWORD streamId) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(S_OK, device->GetOutputAvailableType(streamId, 0, type.GetAddressOf()));
  return type;
}

// The standard gain control, set and read back through the transform.
void ExpectGainAnswers(IMFDeviceTransform *device, LONG value) {
  ComPtr<IKsControl> ksControl;
  ASSERT_EQ(S_OK, device->QueryInterface(IID_PPV_ARGS(&ksControl)));
  KSPROPERTY_VIDEOPROCAMP_S gain = {};
  gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_SET};
  gain.Value = value;
  gain.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, ksControl->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  gain = {};
  gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
  ASSERT_EQ(S_OK, ksControl->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  EXPECT_EQ(value, gain.Value);
}

// The raw capture metadata a sample carries (empty when it has none).
std::vector<uint8_t> RawMetadata(IMFSample *sample) {
  ComPtr<IMFAttributes> metadata;
  ComPtr<IMFMediaBuffer> buffer;
  if (FAILED(sample->GetUnknown(MFSampleExtension_CaptureMetadata, IID_PPV_ARGS(&metadata))) ||
      FAILED(metadata->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, IID_PPV_ARGS(&buffer)))) {
    return {};
  }
  BYTE *bytes = nullptr;
  DWORD length = 0;
  if (FAILED(buffer->Lock(&bytes, nullptr, &length))) return {};
  std::vector<uint8_t> raw(bytes, bytes + length);
  buffer->Unlock();
  return raw;
}

// The same attributes, item for item, apart from the capture metadata object each sample holds its own of.
bool SameRecords(IMFSample *delivered, IMFSample *expected) {
  UINT32 deliveredCount = 0, expectedCount = 0;
  if (FAILED(delivered->GetCount(&deliveredCount)) || FAILED(expected->GetCount(&expectedCount))) return false;
  if (deliveredCount != expectedCount) return false;
  for (UINT32 i = 0; i < expectedCount; ++i) {
    GUID key = GUID_NULL;
    PROPVARIANT value;
    PropVariantInit(&value);
    if (FAILED(expected->GetItemByIndex(i, &key, &value))) return false;
    BOOL same = key == MFSampleExtension_CaptureMetadata;
    if (!same) delivered->CompareItem(key, value, &same);
    PropVariantClear(&value);
    if (!same) return false;
  }
  return true;
}

class RobustnessTest : public ::testing::TestWithParam<TransformUnderTest> {};

TEST_P(RobustnessTest, SurvivesRandomAndLyingKsRequestsWhileStreaming) {
  const TransformUnderTest &subject = GetParam();
  const sim::CameraConfig camera = subject.camera();
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(camera);
  ComPtr<IMFDeviceTransform> device = subject.create();
  ASSERT_TRUE(filter && device);
  sim::FrameServerHost host(device, filter);
  ASSERT_EQ(S_OK, host.Initialize());
  ASSERT_EQ(S_OK, host.StartStream(0, FirstType(device.Get(), 0).Get()));
  ASSERT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= 2; }));

  std::vector<GUID> ownSets;
  for (const auto &unit : camera.extensionUnits) ownSets.push_back(unit.set);
  HANDLE applicationEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ComPtr<IKsControl> ksControl;
  ASSERT_EQ(S_OK, device.As(&ksControl));
  {
    KsFuzzer fuzzer(0x5EED0000u + static_cast<uint32_t>(subject.name.size()), ownSets, applicationEvent);
    Watchdog watchdog("KS fuzz");
    const uint64_t requests = Scaled(100000);
    for (uint64_t i = 0; i < requests; ++i) {
      if (i % 256 == 0) watchdog.Beat(fuzzer.LastRequest());
      fuzzer.SendOne(ksControl.Get());
    }
    EXPECT_EQ(requests, fuzzer.Stats().sent);
    std::printf("%s: %llu requests, %llu answered with success\n", subject.name.c_str(),
                static_cast<unsigned long long>(fuzzer.Stats().sent),
                static_cast<unsigned long long>(fuzzer.Stats().succeeded));
  }

  // Still streaming, and its controls still answer as they should.
  const uint64_t before = FramesOut(host, 0);
  EXPECT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= before + 3; }));
  ExpectGainAnswers(device.Get(), 20);
  ExpectGainAnswers(device.Get(), 32);
  ASSERT_EQ(S_OK, host.StopStream(0));
  ASSERT_EQ(S_OK, host.StartStream(0, FirstType(device.Get(), 0).Get()));
  const uint64_t restarted = FramesOut(host, 0);
  EXPECT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= restarted + 3; }));
  EXPECT_EQ(S_OK, host.Shutdown());
  CloseHandle(applicationEvent);
}

// Shutdown from one thread while others start and stop streams, push and pull samples and send KS
// requests: nothing crashes or hangs, and every call that begins after Shutdown returned is refused.
TEST_P(RobustnessTest, ShutdownRacingEveryOtherCall) {
  const TransformUnderTest &subject = GetParam();
  const uint64_t rounds = Scaled(334);
  std::mt19937 random(7);
  std::atomic<uint64_t> lateCalls{0}, lateAccepted{0};
  Watchdog watchdog("shutdown stress");
  for (uint64_t round = 0; round < rounds; ++round) {
    watchdog.Beat("round " + std::to_string(round));
    ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(subject.camera());
    ComPtr<IMFDeviceTransform> device = subject.create();
    ASSERT_TRUE(filter && device);
    sim::FrameServerHost host(device, filter);
    ASSERT_EQ(S_OK, host.Initialize());
    ComPtr<IMFMediaType> type0 = FirstType(device.Get(), 0);
    ComPtr<IMFMediaType> type1 = FirstType(device.Get(), 1 % static_cast<DWORD>(subject.camera().streams.size()));
    if (round % 2 == 0) ASSERT_EQ(S_OK, host.StartStream(0, type0.Get()));
    ComPtr<IKsControl> ksControl;
    ASSERT_EQ(S_OK, device.As(&ksControl));
    ComPtr<IMFSample> sample;
    ASSERT_EQ(S_OK, MFCreateSample(sample.GetAddressOf()));
    sample->SetSampleTime(1);

    std::atomic<bool> shutdownReturned{false};
    // Runs `call` over and over until it has made one call that began after Shutdown returned, which
    // must be refused.
    auto worker = [&](auto call) {
      return std::thread([&, call] {
        for (;;) {
          const bool late = shutdownReturned.load();
          const HRESULT hr = call();
          if (late) {
            ++lateCalls;
            if (hr != MF_E_SHUTDOWN) ++lateAccepted;
            return;
          }
        }
      });
    };
    const DWORD other = 1 % static_cast<DWORD>(subject.camera().streams.size());
    std::vector<std::thread> threads;
    threads.push_back(worker([&] {
      const HRESULT hr = device->SetOutputStreamState(other, type1.Get(), DeviceStreamState_Run, 0);
      const HRESULT stopped = device->SetOutputStreamState(other, nullptr, DeviceStreamState_Stop, 0);
      return FAILED(hr) ? hr : stopped;
    }));
    threads.push_back(worker([&] { return device->ProcessInput(0, sample.Get(), 0); }));
    threads.push_back(worker([&] {
      MFT_OUTPUT_DATA_BUFFER buffer = {};
      DWORD status = 0;
      const HRESULT hr = device->ProcessOutput(0, 1, &buffer, &status);
      if (buffer.pSample) buffer.pSample->Release();
      return hr;
    }));
    threads.push_back(worker([&] {
      KSPROPERTY_VIDEOPROCAMP_S gain = {};
      gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
      ULONG bytesReturned = 0;
      return ksControl->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned);
    }));
    Sleep(random() % 4);
    ComPtr<IMFShutdown> shutdown;
    ASSERT_EQ(S_OK, device.As(&shutdown));
    const HRESULT first = shutdown->Shutdown();
    shutdownReturned = true;
    EXPECT_TRUE(first == S_OK) << std::hex << first;
    EXPECT_EQ(MF_E_SHUTDOWN, shutdown->Shutdown());
    for (auto &thread : threads) thread.join();
    host.Shutdown();
  }
  EXPECT_EQ(4 * rounds, lateCalls.load());
  EXPECT_EQ(0u, lateAccepted.load());
}

// After release, the driver filter and every sample and media type handed to the transform are
// referenced only by their owners; a thousand start and stop cycles leave handles and private memory
// where ten left them.
TEST_P(RobustnessTest, NothingLeaksAcrossStartStopCyclesAndRelease) {
  const TransformUnderTest &subject = GetParam();
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(subject.camera());
  ASSERT_TRUE(filter);
  const ULONG filterAlone = References(filter.Get());
  ComPtr<IMFMediaType> handedType;
  ComPtr<IMFSample> handedSample;
  ASSERT_EQ(S_OK, MFCreateSample(handedSample.GetAddressOf()));
  handedSample->SetSampleTime(5);
  ProcessFootprint afterTen, afterAll;
  const uint64_t cycles = Scaled(1000);
  {
    ComPtr<IMFDeviceTransform> device = subject.create();
    ASSERT_TRUE(device);
    sim::FrameServerHost host(device, filter);
    ASSERT_EQ(S_OK, host.Initialize());
    ComPtr<IMFMediaType> offered = FirstType(device.Get(), 0);
    ASSERT_EQ(S_OK, MFCreateMediaType(handedType.GetAddressOf()));
    ASSERT_EQ(S_OK, offered->CopyAllItems(handedType.Get()));
    offered.Reset();
    for (uint64_t cycle = 0; cycle < cycles; ++cycle) {
      ASSERT_EQ(S_OK, host.StartStream(0, handedType.Get())) << cycle;
      device->ProcessInput(0, handedSample.Get(), 0);
      if (cycle % 100 == 0) ASSERT_TRUE(WaitFor([&] { return FramesOut(host, 0) >= 1; }));
      ASSERT_EQ(S_OK, host.StopStream(0)) << cycle;
      if (cycle == 9) {
        Sleep(100);
        afterTen = CurrentFootprint();
      }
    }
    Sleep(100);
    afterAll = CurrentFootprint();
    EXPECT_EQ(S_OK, host.Shutdown());
  }
  EXPECT_TRUE(WaitFor([&] { return References(filter.Get()) == filterAlone; }, 2000))
      << References(filter.Get()) - filterAlone << " references to the filter left";
  EXPECT_EQ(1u, References(handedType.Get()));
  EXPECT_EQ(1u, References(handedSample.Get()));
  std::printf("%s: after 10 cycles %lu handles, %llu KiB private; after %llu: %lu handles, %llu KiB\n",
              subject.name.c_str(), afterTen.handles, static_cast<unsigned long long>(afterTen.privateBytes / 1024),
              static_cast<unsigned long long>(cycles), afterAll.handles,
              static_cast<unsigned long long>(afterAll.privateBytes / 1024));
  EXPECT_LE(afterAll.handles, afterTen.handles + 4);
  EXPECT_LE(afterAll.privateBytes, afterTen.privateBytes + 2 * 1024 * 1024);
}

// Frames whose capture metadata is mutated (bytes flipped, sizes rewritten, cut short, padded) on a
// running stream: every delivered sample carries exactly what the product's parser makes of the bytes
// the camera sent for that frame (a record intact in them, or nothing), never another frame's records.
TEST_P(RobustnessTest, MutatedCaptureMetadataOnALiveStream) {
  const TransformUnderTest &subject = GetParam();
  const sim::CameraConfig camera = subject.camera();
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(camera);
  ComPtr<IMFDeviceTransform> device = subject.create();
  ASSERT_TRUE(filter && device);
  sim::FrameServerHost host(device, filter);
  std::mutex mutex;
  std::map<LONGLONG, std::vector<uint8_t>> sent;  // by sample time
  uint64_t delivered = 0, ours = 0, mismatched = 0, rawChanged = 0, withRecords = 0;
  auto reference = subject.referenceParser();
  // Every delivered sample, in delivery order: the reference parser sees the same frames in the same
  // order (records such as intrinsics carry over from frame to frame), from the raw metadata the sample
  // itself still carries.
  host.SetOutputObserver([&](DWORD, IMFSample *sample) {
    LONGLONG time = 0;
    sample->GetSampleTime(&time);
    const std::vector<uint8_t> raw = RawMetadata(sample);
    {
      std::lock_guard<std::mutex> lock(mutex);
      auto found = sent.find(time);
      if (found != sent.end()) {
        ++ours;
        if (found->second != raw) ++rawChanged;
        sent.erase(found);
      }
    }
    ComPtr<IMFSample> expected = test_samples::MakeSampleWithMetadata(raw, time);
    reference->Parse(expected.Get());
    UINT32 count = 0;
    expected->GetCount(&count);
    ++delivered;
    if (count > 1) ++withRecords;
    if (!SameRecords(sample, expected.Get())) ++mismatched;
  });
  ASSERT_EQ(S_OK, host.Initialize());
  ASSERT_EQ(S_OK, host.StartStream(0, FirstType(device.Get(), 0).Get()));
  // The test is the camera's streaming thread from here on, as fast as the transform takes frames.
  DWORD inputId = 0;
  ASSERT_EQ(S_OK, device->GetStreamIDs(1, &inputId, 0, nullptr));
  host.Source().Stop(inputId);

  std::mt19937 random(99);
  sim::CameraMetadataWriter writer(camera.metadataKind);
  const uint64_t frames = Scaled(100000);
  Watchdog watchdog("metadata fuzz");
  for (uint64_t frame = 0; frame < frames; ++frame) {
    if (frame % 1024 == 0) watchdog.Beat("frame " + std::to_string(frame));
    std::vector<uint8_t> raw = writer.BuildNextFrame();
    for (int m = random() % 2 == 0 ? 0 : 1 + random() % 4; m > 0 && !raw.empty(); --m) {
      switch (random() % 4) {
        case 0: raw[random() % raw.size()] = static_cast<uint8_t>(random()); break;
        case 1: {
          const size_t at = random() % raw.size();
          const uint32_t size = random() % 3 == 0 ? 0 : random() % 3 == 0 ? random() : random() % 128;
          std::memcpy(raw.data() + at, &size, std::min<size_t>(4, raw.size() - at));
          break;
        }
        case 2: raw.resize(random() % raw.size()); break;
        default: raw.resize(raw.size() + random() % 12, 0xAB); break;
      }
    }
    const LONGLONG time = static_cast<LONGLONG>(frame + 1) * 333333;
    ComPtr<IMFSample> sample = test_samples::MakeSampleWithMetadata(raw, time);
    {
      std::lock_guard<std::mutex> lock(mutex);
      sent[time] = std::move(raw);
    }
    ASSERT_EQ(S_OK, device->ProcessInput(inputId, sample.Get(), 0));
    // Keep the output queue short, as a frame server pulling at frame rate does.
    if (frame % 64 == 63) WaitFor([&] {
      std::lock_guard<std::mutex> lock(mutex);
      return sent.size() < 32;
    });
  }
  WaitFor([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return sent.empty();
  });
  EXPECT_EQ(S_OK, host.Shutdown());
  std::printf("%s: %llu frames delivered (%llu mutated ones of the test), %llu with records\n",
              subject.name.c_str(), static_cast<unsigned long long>(delivered), static_cast<unsigned long long>(ours),
              static_cast<unsigned long long>(withRecords));
  EXPECT_EQ(frames, ours);
  EXPECT_EQ(0u, rawChanged);
  EXPECT_EQ(0u, mismatched);
  EXPECT_GT(withRecords, frames / 4);
}

INSTANTIATE_TEST_SUITE_P(EachCamera, RobustnessTest, ::testing::ValuesIn(TransformsUnderTest()),
                         [](const ::testing::TestParamInfo<TransformUnderTest> &info) { return ParamName(info.param); });

}  // namespace
}  // namespace robustness
