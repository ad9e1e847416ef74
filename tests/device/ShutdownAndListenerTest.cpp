// The device transform under the calls the frame server and applications make at once: shutdown racing
// state changes, the driver-event listener's starts following the running streams through failures,
// and what a healthy session traces. (What stays referenced after release: the lifetime tests.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "common/Waiting.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Trace.h"

using Microsoft::WRL::ComPtr;
using mft_core::PassThroughDeviceMft;

namespace {

const mft_core::DeviceExtensionUnits kDepthUnits{sim::kDepthXuSet, 1, 7};

using test_waiting::WaitFor;

// Counts topologies destroyed while one of their own calls still runs.
std::atomic<int> topologyCallsInside{0};
std::atomic<int> topologiesDestroyedInUse{0};

class WatchedTopology : public mft_core::PassThroughTopology {
 public:
  ~WatchedTopology() override {
    if (topologyCallsInside.load() > 0) ++topologiesDestroyedInUse;
  }
  HRESULT Activate() override {
    ++topologyCallsInside;
    const HRESULT hr = PassThroughTopology::Activate();
    --topologyCallsInside;
    return hr;
  }
  HRESULT Deactivate() override {
    ++topologyCallsInside;
    const HRESULT hr = PassThroughTopology::Deactivate();
    --topologyCallsInside;
    return hr;
  }
};

// A pass-through transform whose topologies are watched, whose output starts can be made to fail after
// the stream was set running (as an activation that times out does), and whose listener count is visible.
class WatchedTransform : public PassThroughDeviceMft {
 public:
  WatchedTransform() : PassThroughDeviceMft("Watched", kDepthUnits) {}
  LONG ListenerStarts() { return autoUpdateEventListener ? autoUpdateEventListener->GetStartCount() : -1; }
  std::atomic<bool> failAfterRunning{false};

 protected:
  HRESULT BuildTopology(const std::shared_ptr<mft_core::OutputStream> &outputStream, IMFMediaType *nextMediaType,
                        std::shared_ptr<mft_core::Topology> &topology) override {
    auto watched = std::make_shared<WatchedTopology>();
    RETURN_IF_FAILED(watched->Init(inputStreams.at(outputStream->GetID()), outputStream, nextMediaType));
    topology = watched;
    return S_OK;
  }
  HRESULT StartOutputStream(const std::shared_ptr<mft_core::OutputStream> &outputStream,
                            IMFMediaType *nextMediaType) override {
    RETURN_IF_FAILED(PassThroughDeviceMft::StartOutputStream(outputStream, nextMediaType));
    return failAfterRunning ? HRESULT_FROM_WIN32(ERROR_TIMEOUT) : S_OK;
  }
};

// The frame server's side, played by the test itself: it decides when (and whether) to answer the
// transform's requests to change an input stream's state.
class ManualFrameServer {
 public:
  explicit ManualFrameServer(IMFDeviceTransform *device) : device(device) { device->QueryInterface(IID_PPV_ARGS(&events)); }
  // The input stream of the next state-change request, or -1 when none came in time.
  int NextStateChange(DWORD timeoutMs = 10000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
      ComPtr<IMFMediaEvent> event;
      if (events->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.GetAddressOf()) != S_OK) {
        Sleep(2);
        continue;
      }
      MediaEventType type = MEUnknown;
      event->GetType(&type);
      UINT32 inputStreamId = 0;
      if (type == METransformInputStreamStateChanged &&
          SUCCEEDED(event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &inputStreamId))) {
        return static_cast<int>(inputStreamId);
      }
    }
    return -1;
  }
  HRESULT Answer(DWORD inputStreamId) {
    DeviceStreamState state = DeviceStreamState_Stop;
    ComPtr<IMFMediaType> type;
    HRESULT hr = device->GetInputStreamPreferredState(inputStreamId, &state, type.GetAddressOf());
    if (SUCCEEDED(hr)) hr = device->SetInputStreamState(inputStreamId, type.Get(), state, 0);
    return hr;
  }

 private:
  IMFDeviceTransform *device;
  ComPtr<IMFMediaEventGenerator> events;
};

class ShutdownAndListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    topologiesDestroyedInUse = 0;
    filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
    ASSERT_TRUE(filter);
    transform = user_space_frameworks::MakeComObject<WatchedTransform>();
    ASSERT_EQ(S_OK, transform.As(&device));
  }
  void InitializeDirectly() {
    ComPtr<IMFAttributes> attributes;
    ASSERT_EQ(S_OK, filter->CreateFilterAttributes(attributes.GetAddressOf()));
    ASSERT_EQ(S_OK, device->InitializeTransform(attributes.Get()));
  }
  ComPtr<IMFMediaType> FirstType(DWORD outputStreamId) {
    ComPtr<IMFMediaType> type;
    EXPECT_EQ(S_OK, device->GetOutputAvailableType(outputStreamId, 0, type.GetAddressOf()));
    return type;
  }
  HRESULT Shutdown() {
    ComPtr<IMFShutdown> shutdown;
    HRESULT hr = device.As(&shutdown);
    return SUCCEEDED(hr) ? shutdown->Shutdown() : hr;
  }
  size_t Subscriptions() { return filter->ActiveEventSubscriptions(sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId); }
  LONG RunningOutputs() {
    LONG running = 0;
    for (DWORD id = 0; id < 3; ++id) {
      DeviceStreamState state = DeviceStreamState_Stop;
      if (SUCCEEDED(device->GetOutputStreamState(id, &state)) && state == DeviceStreamState_Run) ++running;
    }
    return running;
  }
  // The listener is started exactly while at least one output stream runs, once per running stream.
  void ExpectListenerFollowsStreams(const char *step) {
    const LONG running = RunningOutputs();
    EXPECT_EQ(running, transform->ListenerStarts()) << step;
    EXPECT_EQ(running > 0 ? 1u : 0u, Subscriptions()) << step;
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<WatchedTransform> transform;
  ComPtr<IMFDeviceTransform> device;
};

TEST_F(ShutdownAndListenerTest, ShutdownDuringAStopKeepsTheTopologyAliveAndEndsTheWait) {
  InitializeDirectly();
  ManualFrameServer server(device.Get());
  ComPtr<IMFMediaType> type = FirstType(0);
  HRESULT startResult = E_FAIL;
  std::thread start([&] { startResult = device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0); });
  const int startRequest = server.NextStateChange();
  ASSERT_GE(startRequest, 0);
  EXPECT_EQ(S_OK, server.Answer(static_cast<DWORD>(startRequest)));
  start.join();
  ASSERT_EQ(S_OK, startResult);

  // The stop waits inside the topology's deactivation for an answer that never comes.
  std::thread stop([&] { device->SetOutputStreamState(0, nullptr, DeviceStreamState_Stop, 0); });
  ASSERT_GE(server.NextStateChange(), 0);
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(S_OK, Shutdown());
  stop.join();
  const auto waited = std::chrono::steady_clock::now() - began;
  EXPECT_EQ(0, topologiesDestroyedInUse.load());
  EXPECT_LT(waited, std::chrono::seconds(5));
  EXPECT_EQ(0u, Subscriptions());
}

TEST_F(ShutdownAndListenerTest, ShutdownDuringAStartEndsItAndRefusesEveryLaterCall) {
  InitializeDirectly();
  ManualFrameServer server(device.Get());
  ComPtr<IMFMediaType> type = FirstType(0);
  ComPtr<IMFMediaType> otherType = FirstType(1);
  HRESULT startResult = S_OK;
  std::thread start([&] { startResult = device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0); });
  ASSERT_GE(server.NextStateChange(), 0);

  // (Two shutdowns racing each other and every other call: the lifetime tests' shutdown stress.)
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(S_OK, Shutdown());
  start.join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
  EXPECT_EQ(MF_E_SHUTDOWN, startResult);
  EXPECT_EQ(0u, Subscriptions());
  EXPECT_EQ(0, topologiesDestroyedInUse.load());

  // The transform's own calls after a shutdown: MFDeviceTransformTest; KS properties: the shutdown
  // stress. KS methods and events reach no driver either.
  EXPECT_EQ(MF_E_SHUTDOWN, device->SetOutputStreamState(1, otherType.Get(), DeviceStreamState_Run, 0));
  ComPtr<IKsControl> ksControl;
  ASSERT_EQ(S_OK, device.As(&ksControl));
  ULONG bytesReturned = 0;
  filter->ClearRequests();
  KSMETHOD method = {PROPSETID_VIDCAP_VIDEOPROCAMP, 1, KSMETHOD_TYPE_SEND};
  EXPECT_EQ(MF_E_SHUTDOWN, ksControl->KsMethod(&method, sizeof(method), nullptr, 0, &bytesReturned));
  KSEVENT event = {sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId, KSEVENT_TYPE_BASICSUPPORT};
  EXPECT_EQ(MF_E_SHUTDOWN, ksControl->KsEvent(&event, sizeof(event), nullptr, 0, &bytesReturned));
  EXPECT_TRUE(filter->Requests().empty());
}

TEST_F(ShutdownAndListenerTest, TheListenerRunsExactlyWhileStreamsRunThroughFailuresAndInterleaving) {
  sim::FrameServerHost host(device, filter);
  ASSERT_EQ(S_OK, host.Initialize());
  auto type = [&](DWORD id) { return FirstType(id); };

  ASSERT_EQ(S_OK, host.StartStream(0, type(0).Get()));
  ExpectListenerFollowsStreams("one stream");
  // Started, but the start failed after the stream was set running: the stream holds its start.
  transform->failAfterRunning = true;
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_TIMEOUT), host.StartStream(1, type(1).Get()));
  transform->failAfterRunning = false;
  ExpectListenerFollowsStreams("a failed start left running");
  // Stopping the first must not take the second stream's start.
  ASSERT_EQ(S_OK, host.StopStream(0));
  ExpectListenerFollowsStreams("the failed one still runs");
  ASSERT_EQ(S_OK, host.StopStream(1));
  ExpectListenerFollowsStreams("all stopped");

  // The driver refuses the subscription once: the start fails, the stream runs, and a later cycle
  // subscribes again.
  sim::KsFault refuse;
  refuse.kind = sim::KsRequestKind::Event;
  refuse.set = sim::kAutoUpdateEventSet;
  refuse.flagsMask = KSEVENT_TYPE_ENABLE;
  refuse.result = E_ACCESSDENIED;
  refuse.count = 1;
  filter->InjectFault(refuse);
  EXPECT_EQ(E_ACCESSDENIED, host.StartStream(2, type(2).Get()));
  EXPECT_EQ(1, RunningOutputs());
  EXPECT_EQ(1, transform->ListenerStarts());
  ASSERT_EQ(S_OK, host.StopStream(2));
  ExpectListenerFollowsStreams("after the refused subscription");
  ASSERT_EQ(S_OK, host.StartStream(2, type(2).Get()));
  ExpectListenerFollowsStreams("subscribed again");
  ASSERT_EQ(S_OK, host.StopStream(2));

  // Starts and stops of the three streams from three threads, some starts failing after running; the
  // last stop of one stream often meets another stream's first start.
  for (int round = 0; round < 6; ++round) {
    std::vector<std::thread> threads;
    for (DWORD id = 0; id < 3; ++id) {
      threads.emplace_back([&, id] {
        for (int i = 0; i < 3; ++i) {
          host.StartStream(id, type(id).Get());
          if ((i + id + round) % 2 == 0) host.StopStream(id);
        }
      });
    }
    if (round % 2 == 1) transform->failAfterRunning = true;
    for (auto &thread : threads) thread.join();
    transform->failAfterRunning = false;
    ExpectListenerFollowsStreams("after a round");
    for (DWORD id = 0; id < 3; ++id) host.StopStream(id);
    ExpectListenerFollowsStreams("after stopping all");
  }
  EXPECT_EQ(S_OK, host.Shutdown());
}

// A healthy session (types listed to the end, output polled while empty, streams started and stopped,
// shutdown) leaves nothing at the error level.
TEST(HealthySessionTest, TracesNoErrors) {
  auto sink = std::make_shared<user_space_frameworks::CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink scoped(sink, user_space_frameworks::TraceLevel::Error);
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
  auto transform = user_space_frameworks::MakeComObject<PassThroughDeviceMft>("Healthy", kDepthUnits);
  ComPtr<IMFDeviceTransform> device;
  ASSERT_EQ(S_OK, transform.As(&device));
  sim::FrameServerHost host(device, filter);
  ASSERT_EQ(S_OK, host.Initialize());
  for (DWORD id = 0; id < 3; ++id) {
    for (DWORD index = 0;; ++index) {
      ComPtr<IMFMediaType> type;
      const HRESULT hr = device->GetOutputAvailableType(id, index, type.GetAddressOf());
      if (hr == MF_E_NO_MORE_TYPES) break;
      ASSERT_EQ(S_OK, hr);
      ComPtr<IMFMediaType> input;
      ASSERT_NE(MF_E_INVALIDINDEX, device->GetInputAvailableType(id, index, input.GetAddressOf()));
    }
  }
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(S_OK, device->GetOutputAvailableType(0, 0, type.GetAddressOf()));
  ASSERT_EQ(S_OK, host.StartStream(0, type.Get()));
  ASSERT_TRUE(WaitFor([&] { return host.Stats()[0].framesOut >= 3; }));
  int empty = 0;
  for (int i = 0; i < 50 && empty == 0; ++i) {
    MFT_OUTPUT_DATA_BUFFER buffer = {};
    DWORD status = 0;
    const HRESULT hr = device->ProcessOutput(0, 1, &buffer, &status);
    if (buffer.pSample) buffer.pSample->Release();
    if (hr == MF_E_TRANSFORM_NEED_MORE_INPUT) ++empty;
  }
  EXPECT_EQ(1, empty);
  ASSERT_EQ(S_OK, host.StopStream(0));
  ASSERT_EQ(S_OK, host.Shutdown());
  for (const auto &line : sink->Lines()) {
    if (line.level == user_space_frameworks::TraceLevel::Error) ADD_FAILURE() << line.function << ": " << line.message;
  }
}

}  // namespace
