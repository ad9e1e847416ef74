#include "sim/FrameSource.h"

#include "sim/Scene.h"
#include "sim/ThreadRoles.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace sim {

struct FrameSource::Stream {
  DWORD id = 0;
  FrameInfo format = {};
  UINT32 bytesPerFrame = 0;
  std::thread thread;
  std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  SourceCounters counters;  // guarded by `mutex`
  // Frame buffers the stream's thread paints again once every sample holding one is gone, as a
  // driver's buffer pool does: a fresh buffer per frame would make the test host's own page faults and
  // clearing dominate the CPU figures of the soak. When every one is held, a frame gets a buffer of its
  // own that goes when its sample goes. Used by the stream's thread only.
  std::vector<ComPtr<IMFMediaBuffer>> pool;
};

namespace {

constexpr size_t kPoolBuffers = 8;

// Only the pool holds the buffer: no sample that carried it is alive any more. Nobody else can take
// a new reference to it, so the answer cannot turn wrong after it is given.
bool IsFree(IMFMediaBuffer *buffer) {
  buffer->AddRef();
  return buffer->Release() == 1;
}

UINT32 BytesPerPixel(const GUID &subtype) {
  if (subtype == MFVideoFormat_L8 || subtype == kSubtypeY8) return 1;
  return 2;
}

}  // namespace

FrameSource::FrameSource(ComPtr<SimulatedCameraFilter> camera, SampleSink sink)
    : camera(std::move(camera)), sink(std::move(sink)) {}

FrameSource::~FrameSource() { StopAll(); }

void FrameSource::SetMetadataHook(MetadataHook hook) { metadataHook = std::move(hook); }

void FrameSource::SetFrameGap(uint64_t period) { gapPeriod = period; }

BYTE FrameSource::Brightness(LONG exposureUs, LONG gain) {
  // Mid-grey at the depth camera's default exposure (8.5 ms) and unity gain (16).
  const int64_t level = static_cast<int64_t>(exposureUs) * gain * 128 / (8500 * 16);
  return static_cast<BYTE>(std::clamp<int64_t>(level, 0, 255));
}

HRESULT FrameSource::Start(DWORD streamId, IMFMediaType *mediaType) {
  if (mediaType == nullptr) return E_POINTER;
  const StreamConfig *config = camera->FindStream(streamId);
  if (config == nullptr) return MF_E_INVALIDSTREAMNUMBER;
  auto stream = std::make_unique<Stream>();
  stream->id = streamId;
  FrameInfo &format = stream->format;
  format.streamId = streamId;
  format.frameSourceType = config->frameSourceType;
  HRESULT hr = mediaType->GetGUID(MF_MT_SUBTYPE, &format.subtype);
  if (SUCCEEDED(hr)) hr = MFGetAttributeSize(mediaType, MF_MT_FRAME_SIZE, &format.width, &format.height);
  UINT32 numerator = 0, denominator = 0;
  if (SUCCEEDED(hr)) hr = MFGetAttributeRatio(mediaType, MF_MT_FRAME_RATE, &numerator, &denominator);
  if (FAILED(hr)) return hr;
  if (numerator == 0 || denominator == 0) return MF_E_INVALIDMEDIATYPE;
  format.fps = numerator / denominator;
  if (format.fps == 0) return MF_E_INVALIDMEDIATYPE;
  stream->bytesPerFrame = format.width * format.height * BytesPerPixel(format.subtype);
  // The whole pool at the start, its pages touched, as a driver allocates its buffers when its pin
  // starts: a pool that grew when frames queued up (a stall) would show as the process's memory growing.
  for (size_t i = 0; i < kPoolBuffers; ++i) {
    ComPtr<IMFMediaBuffer> buffer;
    BYTE *data = nullptr;
    HRESULT hr = MFCreateMemoryBuffer(stream->bytesPerFrame, buffer.GetAddressOf());
    if (SUCCEEDED(hr)) hr = buffer->Lock(&data, nullptr, nullptr);
    if (FAILED(hr)) return hr;
    std::memset(data, 0, stream->bytesPerFrame);
    buffer->Unlock();
    stream->pool.push_back(std::move(buffer));
  }

  Stop(streamId);
  // Running before it is listed: a Stop on another thread (the host shutting down while its pump
  // answers a start) then always finds the thread to join.
  std::lock_guard<std::mutex> lock(mutex);
  Stream *raw = stream.get();
  raw->thread = std::thread([this, raw] { Run(*raw); });
  streams[streamId] = std::move(stream);
  return S_OK;
}

void FrameSource::Stop(DWORD streamId) {
  std::unique_ptr<Stream> stream;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = streams.find(streamId);
    if (found == streams.end()) return;
    stream = std::move(found->second);
    streams.erase(found);
  }
  {
    std::lock_guard<std::mutex> lock(stream->mutex);
    stream->stopping = true;
  }
  stream->wake.notify_all();
  if (stream->thread.joinable()) stream->thread.join();
  std::lock_guard<std::mutex> lock(mutex);
  SourceCounters &total = finishedCounters[streamId];
  total.produced += stream->counters.produced;
  total.accepted += stream->counters.accepted;
  total.rejected += stream->counters.rejected;
  total.skipped += stream->counters.skipped;
  if (FAILED(stream->counters.lastError)) total.lastError = stream->counters.lastError;
}

void FrameSource::StopAll() {
  std::vector<DWORD> ids;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto &entry : streams) ids.push_back(entry.first);
  }
  for (DWORD id : ids) Stop(id);
}

bool FrameSource::IsRunning(DWORD streamId) {
  std::lock_guard<std::mutex> lock(mutex);
  return streams.count(streamId) != 0;
}

SourceCounters FrameSource::Counters(DWORD streamId) {
  std::lock_guard<std::mutex> lock(mutex);
  SourceCounters total = finishedCounters[streamId];
  auto found = streams.find(streamId);
  if (found != streams.end()) {
    std::lock_guard<std::mutex> streamLock(found->second->mutex);
    const SourceCounters &running = found->second->counters;
    total.produced += running.produced;
    total.accepted += running.accepted;
    total.rejected += running.rejected;
    total.skipped += running.skipped;
    if (FAILED(running.lastError)) total.lastError = running.lastError;
  }
  return total;
}

HRESULT FrameSource::MakeSample(Stream &stream, uint64_t frameIndex, IMFSample **result) {
  FrameInfo info = stream.format;
  info.frameCounter = frameIndex + 1;
  info.sampleTime = MFGetSystemTime();
  info.hardwareTimestampUs = frameIndex * 1000000ull / info.fps;
  info.exposureUs = camera->SensorExposureUs();
  info.reportedExposureUs = camera->ReportedExposureUs();
  info.gain = camera->SensorGain();

  ComPtr<IMFMediaBuffer> buffer;
  for (const auto &pooled : stream.pool) {
    if (IsFree(pooled.Get())) {
      buffer = pooled;
      break;
    }
  }
  HRESULT hr = S_OK;
  if (!buffer) {
    hr = MFCreateMemoryBuffer(stream.bytesPerFrame, buffer.GetAddressOf());
    if (FAILED(hr)) return hr;
  }
  BYTE *data = nullptr;
  hr = buffer->Lock(&data, nullptr, nullptr);
  if (FAILED(hr)) return hr;
  const UINT32 rowBytes = info.height != 0 ? stream.bytesPerFrame / info.height : stream.bytesPerFrame;
  info.brightness = PaintScene(camera->Config().scene, data, rowBytes, info.height, info.exposureUs, info.gain);
  buffer->Unlock();
  hr = buffer->SetCurrentLength(stream.bytesPerFrame);
  ComPtr<IMFSample> sample;
  if (SUCCEEDED(hr)) hr = MFCreateSample(sample.GetAddressOf());
  if (SUCCEEDED(hr)) hr = sample->AddBuffer(buffer.Get());
  if (SUCCEEDED(hr)) hr = sample->SetSampleTime(info.sampleTime);
  if (SUCCEEDED(hr)) hr = sample->SetSampleDuration(10000000ll / info.fps);
  if (SUCCEEDED(hr) && metadataHook) hr = metadataHook(sample.Get(), info);
  if (SUCCEEDED(hr)) *result = sample.Detach();
  return hr;
}

void FrameSource::Run(Stream &stream) {
  NoteThreadRole(ThreadRole::Camera);
  using Clock = std::chrono::steady_clock;
  const auto period = std::chrono::nanoseconds(1000000000ll / stream.format.fps);
  const auto start = Clock::now();
  for (uint64_t frameIndex = 0;; ++frameIndex) {
    {
      std::unique_lock<std::mutex> lock(stream.mutex);
      if (stream.wake.wait_until(lock, start + period * frameIndex, [&] { return stream.stopping; })) return;
    }
    const uint64_t gap = gapPeriod.load();
    if (gap != 0 && (frameIndex + 1) % gap == 0) {
      std::lock_guard<std::mutex> lock(stream.mutex);
      ++stream.counters.skipped;
      continue;
    }
    ComPtr<IMFSample> sample;
    HRESULT hr = MakeSample(stream, frameIndex, sample.GetAddressOf());
    if (SUCCEEDED(hr)) hr = sink(stream.id, sample.Get());
    std::lock_guard<std::mutex> lock(stream.mutex);
    ++stream.counters.produced;
    if (SUCCEEDED(hr)) {
      ++stream.counters.accepted;
    } else {
      ++stream.counters.rejected;
      stream.counters.lastError = hr;
    }
  }
}

}  // namespace sim
