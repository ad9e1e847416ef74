#include "sim/FrameServerHost.h"

#include <algorithm>

#include "sim/CameraMetadataHook.h"
#include "sim/ThreadRoles.h"

using Microsoft::WRL::ComPtr;

namespace sim {

namespace {

// Wakes the event pump when the transform's queue cannot be shut down.
const GUID kHostWakeUp = {0x6D1A4E55, 0x1F0B, 0x4C55, {0x9A, 0x51, 0x3C, 0x2E, 0x71, 0x0B, 0x5F, 0x10}};

}  // namespace

FrameServerHost::FrameServerHost(ComPtr<IMFDeviceTransform> transform, ComPtr<SimulatedCameraFilter> camera)
    : transform(std::move(transform)),
      camera(camera),
      source(camera, [this](DWORD streamId, IMFSample *sample) { return Deliver(streamId, sample); }) {
  if (this->camera->Config().writesMetadata) source.SetMetadataHook(MakeCameraMetadataHook(this->camera->Config().metadataKind));
}

FrameServerHost::~FrameServerHost() { Shutdown(); }

int64_t FrameServerHost::Microseconds() {
  static const int64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<int64_t>(f.QuadPart);
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return now.QuadPart / frequency * 1000000 + now.QuadPart % frequency * 1000000 / frequency;
}

HRESULT FrameServerHost::Deliver(DWORD streamId, IMFSample *sample) {
  {
    // Noted before the call: the sample may be handed out before ProcessInput returns.
    std::lock_guard<std::mutex> lock(latencyMutex);
    if (measuring) {
      const int64_t now = Microseconds();
      entriesForEvents.push_back(now);
      entriesByInput[streamId].push_back(now);
    }
  }
  const int64_t entered = Microseconds();
  const HRESULT hr = transform->ProcessInput(streamId, sample, 0);
  const int64_t returned = Microseconds();
  std::lock_guard<std::mutex> lock(latencyMutex);
  if (measuring) inputCalls.Add(returned - entered);
  if (FAILED(hr)) {
    // A refused frame is not waited for (the soak counts any refusal as a failure anyway).
    if (measuring && !entriesByInput[streamId].empty()) {
      entriesByInput[streamId].pop_back();
      if (!entriesForEvents.empty()) entriesForEvents.pop_back();
    }
  }
  return hr;
}

void FrameServerHost::MeasureLatency() {
  std::lock_guard<std::mutex> lock(latencyMutex);
  measuring = true;
  entriesForEvents.clear();
  entriesByInput.clear();
  toEvent.Clear();
  inputCalls.Clear();
  outputCalls.Clear();
  // Every histogram now, so that measuring allocates nothing later.
  std::lock_guard<std::mutex> outputsLock(mutex);
  for (const auto &output : outputs) {
    toOutput[output.first].Clear();
    entriesByInput[output.second.inputStreamId];
  }
}

LatencyHistogram FrameServerHost::LatencyToEvent() {
  std::lock_guard<std::mutex> lock(latencyMutex);
  return toEvent;
}

LatencyHistogram FrameServerHost::LatencyToOutput(DWORD outputStreamId) {
  std::lock_guard<std::mutex> lock(latencyMutex);
  return toOutput[outputStreamId];
}

LatencyHistogram FrameServerHost::ProcessInputDuration() {
  std::lock_guard<std::mutex> lock(latencyMutex);
  return inputCalls;
}

LatencyHistogram FrameServerHost::ProcessOutputDuration() {
  std::lock_guard<std::mutex> lock(latencyMutex);
  return outputCalls;
}

HRESULT FrameServerHost::Initialize() {
  HRESULT hr = transform.As(&events);
  if (FAILED(hr)) return hr;
  ComPtr<IMFAttributes> filterAttributes;
  hr = camera->CreateFilterAttributes(filterAttributes.GetAddressOf());
  if (FAILED(hr)) return hr;
  hr = transform->InitializeTransform(filterAttributes.Get());
  if (FAILED(hr)) return hr;

  std::vector<DWORD> inputIds, outputIds;
  hr = StreamIds(inputIds, outputIds);
  if (FAILED(hr)) return hr;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < outputIds.size(); ++i) {
      // Output N serves input N.
      outputs[outputIds[i]].inputStreamId = i < inputIds.size() ? inputIds[i] : outputIds[i];
    }
  }
  pump = std::thread([this] { Pump(); });
  return S_OK;
}

HRESULT FrameServerHost::StreamIds(std::vector<DWORD> &inputIds, std::vector<DWORD> &outputIds) {
  DWORD inputCount = 0, outputCount = 0;
  HRESULT hr = transform->GetStreamCount(&inputCount, &outputCount);
  if (FAILED(hr)) return hr;
  inputIds.resize(inputCount);
  outputIds.resize(outputCount);
  return transform->GetStreamIDs(inputCount, inputIds.data(), outputCount, outputIds.data());
}

HRESULT FrameServerHost::FindOutputType(DWORD outputStreamId, UINT32 width, UINT32 height, UINT32 fps,
                                        IMFMediaType **mediaType) {
  if (mediaType == nullptr) return E_POINTER;
  for (DWORD index = 0;; ++index) {
    ComPtr<IMFMediaType> type;
    const HRESULT hr = transform->GetOutputAvailableType(outputStreamId, index, type.GetAddressOf());
    if (hr == MF_E_NO_MORE_TYPES) return MF_E_INVALIDMEDIATYPE;
    if (FAILED(hr)) return hr;
    UINT32 w = 0, h = 0, numerator = 0, denominator = 0;
    MFGetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, &w, &h);
    MFGetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, &numerator, &denominator);
    if (w == width && h == height && denominator != 0 && numerator == fps * denominator) {
      *mediaType = type.Detach();
      return S_OK;
    }
  }
}

HRESULT FrameServerHost::StartStream(DWORD outputStreamId, IMFMediaType *mediaType) {
  {
    // Marked first: samples may arrive before SetOutputStreamState returns.
    std::lock_guard<std::mutex> lock(mutex);
    outputs[outputStreamId].running = true;
  }
  const HRESULT hr = transform->SetOutputStreamState(outputStreamId, mediaType, DeviceStreamState_Run, 0);
  if (FAILED(hr)) {
    DeviceStreamState state = DeviceStreamState_Stop;
    const bool running = SUCCEEDED(transform->GetOutputStreamState(outputStreamId, &state)) &&
                         state == DeviceStreamState_Run;
    std::lock_guard<std::mutex> lock(mutex);
    outputs[outputStreamId].running = running;
  }
  return hr;
}

HRESULT FrameServerHost::StopStream(DWORD outputStreamId) {
  const HRESULT hr = transform->SetOutputStreamState(outputStreamId, nullptr, DeviceStreamState_Stop, 0);
  std::lock_guard<std::mutex> lock(mutex);
  auto found = outputs.find(outputStreamId);
  if (found != outputs.end() && SUCCEEDED(hr)) found->second.running = false;
  return hr;
}

HRESULT FrameServerHost::Shutdown() {
  if (shutDown) return MF_E_SHUTDOWN;
  shutDown = true;
  std::vector<DWORD> running;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto &entry : outputs) {
      if (entry.second.running) running.push_back(entry.first);
    }
  }
  if (pump.joinable()) {
    for (DWORD id : running) StopStream(id);
  }
  source.StopAll();
  ComPtr<IMFShutdown> shutdown;
  HRESULT hr = transform.As(&shutdown);
  if (SUCCEEDED(hr)) hr = shutdown->Shutdown();
  // A transform whose queue is still open needs a nudge for the pump to notice the end.
  EndPump(FAILED(hr));
  return hr;
}

void FrameServerHost::Abandon() {
  if (shutDown) return;
  shutDown = true;
  source.StopAll();
  EndPump(true);
  // The camera's pins stop; the transform is never told.
  DWORD inputs = 0, pins = 0;
  if (SUCCEEDED(camera->GetStreamCount(&inputs, &pins))) {
    for (DWORD pin = 0; pin < pins; ++pin) camera->SetOutputType(pin, nullptr, 0);
  }
}

void FrameServerHost::EndPump(bool nudge) {
  stopping = true;
  if (pump.joinable()) {
    if (nudge && events) events->QueueEvent(MEUnknown, kHostWakeUp, S_OK, nullptr);
    pump.join();
  }
  // A start the pump answered while the streams were being stopped.
  source.StopAll();
}

ComPtr<IKsControl> FrameServerHost::ApplicationKsControl() {
  ComPtr<IKsControl> ksControl;
  transform.As(&ksControl);
  return ksControl;
}

void FrameServerHost::NoteError(HRESULT hr) {
  if (FAILED(hr)) lastPumpError = hr;
}

void FrameServerHost::Pump() {
  NoteThreadRole(ThreadRole::FrameServer);
  while (!stopping) {
    ComPtr<IMFMediaEvent> event;
    const HRESULT hr = events->GetEvent(0, event.GetAddressOf());
    if (FAILED(hr)) {
      if (hr != MF_E_SHUTDOWN) NoteError(hr);
      return;
    }
    MediaEventType type = MEUnknown;
    event->GetType(&type);
    {
      std::lock_guard<std::mutex> lock(mutex);
      ++eventCounts[type];
    }
    if (type == METransformInputStreamStateChanged) {
      UINT32 inputStreamId = 0;
      const HRESULT idResult = event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &inputStreamId);
      if (SUCCEEDED(idResult)) {
        AnswerStateChange(inputStreamId);
      } else {
        NoteError(idResult);
      }
    } else if (type == METransformHaveOutput) {
      {
        std::lock_guard<std::mutex> lock(latencyMutex);
        if (measuring && !entriesForEvents.empty()) {
          toEvent.Add(Microseconds() - entriesForEvents.front());
          entriesForEvents.pop_front();
        }
      }
      PullOutput();
    }
  }
}

void FrameServerHost::AnswerStateChange(DWORD inputStreamId) {
  ++stateChangeRequests;
  DeviceStreamState state = DeviceStreamState_Stop;
  ComPtr<IMFMediaType> type;
  HRESULT hr = transform->GetInputStreamPreferredState(inputStreamId, &state, type.GetAddressOf());
  if (FAILED(hr)) return NoteError(hr);
  if (state == DeviceStreamState_Run) {
    // The driver pin takes the type, the transform's input follows, then frames flow.
    hr = camera->SetOutputType(inputStreamId, type.Get(), 0);
    if (SUCCEEDED(hr)) hr = transform->SetInputStreamState(inputStreamId, type.Get(), state, 0);
    if (SUCCEEDED(hr)) hr = source.Start(inputStreamId, type.Get());
  } else {
    source.Stop(inputStreamId);
    camera->SetOutputType(inputStreamId, nullptr, 0);
    hr = transform->SetInputStreamState(inputStreamId, type.Get(), state, 0);
  }
  NoteError(hr);
}

void FrameServerHost::PullOutput() {
  std::vector<MFT_OUTPUT_DATA_BUFFER> buffers;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto &entry : outputs) {
      if (!entry.second.running) continue;
      MFT_OUTPUT_DATA_BUFFER buffer = {};
      buffer.dwStreamID = entry.first;
      buffers.push_back(buffer);
    }
  }
  if (buffers.empty()) return;
  // Samples inside the transform, before this pull: accepted on the input and not yet delivered.
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto &buffer : buffers) {
      OutputState &output = outputs[buffer.dwStreamID];
      const uint64_t framesIn = source.Counters(output.inputStreamId).accepted;
      if (framesIn > output.framesOut) output.largestQueue = std::max(output.largestQueue, framesIn - output.framesOut);
    }
  }
  DWORD status = 0;
  const int64_t pulled = Microseconds();
  const HRESULT hr = transform->ProcessOutput(0, static_cast<DWORD>(buffers.size()), buffers.data(), &status);
  if (FAILED(hr) && hr != MF_E_TRANSFORM_NEED_MORE_INPUT) NoteError(hr);
  {
    const int64_t handedOut = Microseconds();
    std::lock_guard<std::mutex> lock(latencyMutex);
    if (measuring) {
      outputCalls.Add(handedOut - pulled);
      std::lock_guard<std::mutex> outputsLock(mutex);
      for (const auto &buffer : buffers) {
        if (buffer.pSample == nullptr) continue;
        auto &entries = entriesByInput[outputs[buffer.dwStreamID].inputStreamId];
        if (entries.empty()) continue;
        toOutput[buffer.dwStreamID].Add(handedOut - entries.front(), handedOut);
        entries.pop_front();
      }
    }
  }
  const LONGLONG now = MFGetSystemTime();
  std::lock_guard<std::mutex> lock(mutex);
  for (auto &buffer : buffers) {
    if (buffer.pEvents) buffer.pEvents->Release();
    if (buffer.pSample == nullptr) continue;
    OutputState &output = outputs[buffer.dwStreamID];
    LONGLONG sampleTime = 0;
    buffer.pSample->GetSampleTime(&sampleTime);
    if (output.framesOut != 0 && sampleTime < output.lastSampleTime) ++output.outOfOrder;
    output.lastSampleTime = sampleTime;
    if (output.framesOut == 0) output.firstDelivery = now;
    output.lastDelivery = now;
    ++output.framesOut;
    if (outputObserver) outputObserver(buffer.dwStreamID, buffer.pSample);
    buffer.pSample->Release();
  }
}

void FrameServerHost::SetOutputObserver(std::function<void(DWORD, IMFSample *)> observer) {
  std::lock_guard<std::mutex> lock(mutex);
  outputObserver = std::move(observer);
}

uint64_t FrameServerHost::EventCount(MediaEventType type) {
  std::lock_guard<std::mutex> lock(mutex);
  auto found = eventCounts.find(type);
  return found == eventCounts.end() ? 0 : found->second;
}

std::vector<HostStreamStats> FrameServerHost::Stats() {
  std::vector<HostStreamStats> stats;
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto &entry : outputs) {
    const OutputState &output = entry.second;
    const SourceCounters counters = source.Counters(output.inputStreamId);
    HostStreamStats s;
    s.outputStreamId = entry.first;
    s.inputStreamId = output.inputStreamId;
    s.framesIn = counters.accepted;
    s.framesOut = output.framesOut;
    s.rejected = counters.rejected;
    s.skipped = counters.skipped;
    s.largestQueue = output.largestQueue;
    s.outOfOrder = output.outOfOrder;
    const LONGLONG span = output.lastDelivery - output.firstDelivery;
    if (output.framesOut > 1 && span > 0) s.measuredFps = (output.framesOut - 1) * 1e7 / static_cast<double>(span);
    stats.push_back(s);
  }
  return stats;
}

}  // namespace sim
