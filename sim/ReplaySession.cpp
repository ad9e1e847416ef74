#include "sim/ReplaySession.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "device_events/Timeline.h"
#include "mft_core/recorder/MfValues.h"
#include "sim/RecordedCameraFilter.h"
#include "sim/ReplayMatching.h"
#include "sim/Session.h"

using Microsoft::WRL::ComPtr;
using device_events::Record;
using device_events::RecordKind;
using device_events::Value;
using device_events::ValueTag;

namespace sim {

namespace {

constexpr size_t kContextRecords = 6;
// A queued event may lag its record by this many records before the replay waits for it.
constexpr uint64_t kEventSlack = 64;

// Where each call is made again. A call's effect on other threads happened somewhere between its entry
// and its return; the replay picks the point the recording proves:
// - ProcessOutput is made at its entry, once the frames it handed out are in, and finishes before the
//   replay goes on: it never waits for another thread, and what it found (a frame, or none yet) is
//   what the transform held when it was entered.
// - A call that may wait for another thread's call (a state request waits for the frame server's
//   answer, which releases it; the end of work in flight) is made at the first record its thread wrote
//   after entering it (the event it queued, a driver request, its return): calls of other threads that
//   came before that record saw the transform as it was before the request.
// - Every other call is made where it returned: the return is the one place where its effect (a
//   sample queued, a sample taken) had certainly happened.
bool WaitsForOtherThreads(const std::string &name) {
  return name == "InitializeTransform" || name == "SetOutputStreamState" || name == "SetInputStreamState" ||
         name == "Shutdown" || name == "ProcessMessage" || name == "FlushInputStream" || name == "FlushOutputStream";
}

// Of those, the ones whose return may wait for a call another thread entered after them and has not
// made yet. The frame server's answer to a state request (SetInputStreamState) releases a wait and
// waits for none: calls entered before its return is recorded (the next state request, which the
// answer let through) are made where their own threads place them, not at its return.
bool ReturnMayWaitForLaterCalls(const std::string &name) {
  return WaitsForOtherThreads(name) && name != "SetInputStreamState";
}

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(value));
  return text;
}

// A thread standing for one recorded thread: runs its calls in order.
class Lane {
 public:
  Lane(DWORD jitterMs, uint32_t seed) : jitterMs(jitterMs), random(seed), thread([this] { Run(); }) {}
  ~Lane() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    wake.notify_all();
    thread.join();
  }
  void Post(std::function<void()> task) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      tasks.push_back(std::move(task));
    }
    wake.notify_all();
  }

 private:
  void Run() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [&] { return stopping || !tasks.empty(); });
        if (tasks.empty()) break;
        task = std::move(tasks.front());
        tasks.pop_front();
      }
      if (jitterMs != 0) {
        random = random * 1664525u + 1013904223u;
        std::this_thread::sleep_for(std::chrono::microseconds((random >> 8) % (jitterMs * 1000 + 1)));
      }
      task();
    }
    CoUninitialize();
  }
  const DWORD jitterMs;
  uint32_t random;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> tasks;
  bool stopping = false;
  std::thread thread;
};

// One call made again: its outcome, as the recorder would have written its return.
struct PendingCall {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  std::string name;
  Record exit;
  std::string error;  // the call could not be made
  const Record *entry = nullptr;
  uint64_t exitOffset = ~uint64_t{0};  // of the recorded return; none when the recording ends first
  bool posted = false;

  void Finish() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      finished = true;
    }
    done.notify_all();
  }
  bool Wait(DWORD ms) {
    std::unique_lock<std::mutex> lock(mutex);
    return done.wait_for(lock, std::chrono::milliseconds(ms), [&] { return finished; });
  }
};

// The frame server's side of the event queue: takes every event the transform queues.
class EventPump {
 public:
  explicit EventPump(ComPtr<IMFMediaEventGenerator> generator)
      : generator(std::move(generator)), thread([this] { Run(); }) {}
  ~EventPump() { thread.join(); }

  // The first of the next few events that equals `wanted`, removed; waits up to `ms` for it.
  bool Take(const QueuedEvent &wanted, DWORD ms, std::string &seen) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
      const std::ptrdiff_t found = FindQueuedEvent(events, wanted);
      if (found >= 0) {
        events.erase(events.begin() + found);
        return true;
      }
      if (ended || arrived.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    seen = events.empty() ? std::string("no event") : "event " + std::to_string(events.front().type) +
                                                          (events.front().hasStream ? " of stream " + std::to_string(events.front().stream) : "");
    return false;
  }

 private:
  void Run() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (;;) {
      ComPtr<IMFMediaEvent> event;
      if (FAILED(generator->GetEvent(0, &event))) break;
      QueuedEvent queued;
      MediaEventType type = MEUnknown;
      HRESULT status = S_OK;
      event->GetType(&type);
      event->GetExtendedType(&queued.extendedType);
      event->GetStatus(&status);
      queued.type = type;
      queued.status = static_cast<uint32_t>(status);
      UINT32 stream = 0;
      queued.hasStream = SUCCEEDED(event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &stream));
      queued.stream = stream;
      {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(queued);
      }
      arrived.notify_all();
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      ended = true;
    }
    arrived.notify_all();
    CoUninitialize();
  }

  ComPtr<IMFMediaEventGenerator> generator;
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<QueuedEvent> events;
  bool ended = false;
  std::thread thread;
};

bool IsNullAt(const Record &record, size_t index) {
  return index >= record.values.size() || record.values[index].IsNull();
}

// Encodes what a replayed call handed out exactly as the recorder encodes a return.
template <typename... Args>
void EncodeReturn(Record &exit, const std::string &name, HRESULT result, const Args &...args) {
  std::vector<uint8_t> bytes;
  device_events::RecordEncoder encoder(bytes);
  encoder.Begin(RecordKind::CallExit, 0, 0, static_cast<uint32_t>(result));
  encoder.String(name);
  const mft_core::RecordedValue values[] = {mft_core::RecordedValue(args)...};
  for (const auto &value : values) mft_core::EncodeOutput(encoder, value, result, false);
  encoder.End();
  device_events::ReadError error;
  device_events::EventsReader::ReadRecord(bytes.data(), bytes.size(), exit, error);
}
void EncodeReturn(Record &exit, const std::string &name, HRESULT result) {
  std::vector<uint8_t> bytes;
  device_events::RecordEncoder encoder(bytes);
  encoder.Begin(RecordKind::CallExit, 0, 0, static_cast<uint32_t>(result));
  encoder.String(name);
  encoder.End();
  device_events::ReadError error;
  device_events::EventsReader::ReadRecord(bytes.data(), bytes.size(), exit, error);
}

template <typename T>
T *OutIf(const Record &entry, size_t index, T &storage) {
  return IsNullAt(entry, index) ? nullptr : &storage;
}

// Makes the recorded call `entry` again on `device`.
void MakeCall(IMFDeviceTransform *device, RecordedCameraFilter *filter, PendingCall &call) {
  const Record &e = *call.entry;
  const std::string &name = call.name;
  Record &exit = call.exit;
  const DWORD id = U32At(e, 1);
  HRESULT hr = S_OK;
  if (name == "InitializeTransform") {
    ComPtr<IMFAttributes> attributes;
    if (!IsNullAt(e, 1)) filter->CreateFilterAttributes(e.values[1], &attributes);
    hr = device->InitializeTransform(attributes.Get());
    EncodeReturn(exit, name, hr);
  } else if (name == "GetInputAvailableType" || name == "GetOutputAvailableType") {
    IMFMediaType *type = nullptr;
    IMFMediaType **out = OutIf(e, 3, type);
    hr = name == "GetInputAvailableType" ? device->GetInputAvailableType(id, U32At(e, 2), out)
                                         : device->GetOutputAvailableType(id, U32At(e, 2), out);
    EncodeReturn(exit, name, hr, id, U32At(e, 2), out);
    if (type) type->Release();
  } else if (name == "GetInputCurrentType" || name == "GetOutputCurrentType") {
    IMFMediaType *type = nullptr;
    IMFMediaType **out = OutIf(e, 2, type);
    hr = name == "GetInputCurrentType" ? device->GetInputCurrentType(id, out) : device->GetOutputCurrentType(id, out);
    EncodeReturn(exit, name, hr, id, out);
    if (type) type->Release();
  } else if (name == "GetInputStreamAttributes" || name == "GetOutputStreamAttributes") {
    IMFAttributes *attributes = nullptr;
    IMFAttributes **out = OutIf(e, 2, attributes);
    hr = name == "GetInputStreamAttributes" ? device->GetInputStreamAttributes(id, out)
                                            : device->GetOutputStreamAttributes(id, out);
    EncodeReturn(exit, name, hr, id, out);
    if (attributes) attributes->Release();
  } else if (name == "GetStreamCount") {
    DWORD inputs = 0, outputs = 0;
    DWORD *in = OutIf(e, 1, inputs), *out = OutIf(e, 2, outputs);
    hr = device->GetStreamCount(in, out);
    EncodeReturn(exit, name, hr, in, out);
  } else if (name == "GetStreamIDs") {
    std::vector<DWORD> in(IsNullAt(e, 1) ? 0 : U32At(e, 1)), out(IsNullAt(e, 2) ? 0 : U32At(e, 2));
    DWORD *inIds = IsNullAt(e, 1) ? nullptr : in.data(), *outIds = IsNullAt(e, 2) ? nullptr : out.data();
    // A zero-sized array that was given still needs an address.
    DWORD empty[1] = {};
    if (!IsNullAt(e, 1) && in.empty()) inIds = empty;
    if (!IsNullAt(e, 2) && out.empty()) outIds = empty;
    hr = device->GetStreamIDs(U32At(e, 1), inIds, U32At(e, 2), outIds);
    EncodeReturn(exit, name, hr, mft_core::RecordedValue::StreamIds(U32At(e, 1), inIds),
                 mft_core::RecordedValue::StreamIds(U32At(e, 2), outIds));
  } else if (name == "ProcessEvent") {
    ComPtr<IMFMediaEvent> event;
    if (!IsNullAt(e, 2)) MFCreateMediaEvent(U32At(e, 2), GUID_NULL, S_OK, nullptr, &event);
    hr = device->ProcessEvent(id, event.Get());
    EncodeReturn(exit, name, hr);
  } else if (name == "ProcessInput") {
    ComPtr<IMFSample> sample;
    if (e.values.size() > 2 && e.values[2].tag == ValueTag::Sample && e.values[2].sample) {
      mft_core::DecodeSample(*e.values[2].sample, &sample);
    }
    hr = device->ProcessInput(id, sample.Get(), U32At(e, 3));
    EncodeReturn(exit, name, hr);
  } else if (name == "ProcessMessage") {
    const ULONG_PTR parameter = e.values.size() > 2 ? static_cast<ULONG_PTR>(e.values[2].number) : 0;
    hr = device->ProcessMessage(static_cast<MFT_MESSAGE_TYPE>(U32At(e, 1)), parameter);
    EncodeReturn(exit, name, hr);
  } else if (name == "ProcessOutput") {
    const DWORD count = U32At(e, 2);
    const bool noBuffers = count != 0 && IsNullAt(e, 3);
    std::vector<MFT_OUTPUT_DATA_BUFFER> buffers(noBuffers ? 0 : count);
    for (DWORD i = 0; i < buffers.size(); ++i) buffers[i].dwStreamID = U32At(e, 3 + i);
    DWORD status = 0;
    DWORD *statusOut = OutIf(e, 3 + (noBuffers ? 1 : count), status);
    hr = device->ProcessOutput(U32At(e, 1), count, noBuffers ? nullptr : buffers.data(), statusOut);
    EncodeReturn(exit, name, hr, U32At(e, 1),
                 mft_core::RecordedValue::OutputBuffers(count, noBuffers ? nullptr : buffers.data()), statusOut);
    for (auto &buffer : buffers) {
      if (buffer.pSample) buffer.pSample->Release();
      if (buffer.pEvents) buffer.pEvents->Release();
    }
  } else if (name == "SetInputStreamState" || name == "SetOutputStreamState") {
    ComPtr<IMFMediaType> type;
    if (!IsNullAt(e, 2)) mft_core::DecodeMediaType(e.values[2], &type);
    const auto state = static_cast<DeviceStreamState>(U32At(e, 3));
    hr = name == "SetInputStreamState" ? device->SetInputStreamState(id, type.Get(), state, U32At(e, 4))
                                       : device->SetOutputStreamState(id, type.Get(), state, U32At(e, 4));
    EncodeReturn(exit, name, hr);
  } else if (name == "GetInputStreamState" || name == "GetOutputStreamState") {
    DeviceStreamState state = DeviceStreamState_Stop;
    DeviceStreamState *out = OutIf(e, 2, state);
    hr = name == "GetInputStreamState" ? device->GetInputStreamState(id, out) : device->GetOutputStreamState(id, out);
    EncodeReturn(exit, name, hr, id, out);
  } else if (name == "GetInputStreamPreferredState") {
    DeviceStreamState state = DeviceStreamState_Stop;
    IMFMediaType *type = nullptr;
    DeviceStreamState *stateOut = OutIf(e, 2, state);
    IMFMediaType **typeOut = OutIf(e, 3, type);
    hr = device->GetInputStreamPreferredState(id, stateOut, typeOut);
    EncodeReturn(exit, name, hr, id, stateOut, typeOut);
    if (type) type->Release();
  } else if (name == "FlushInputStream" || name == "FlushOutputStream") {
    hr = name == "FlushInputStream" ? device->FlushInputStream(id, U32At(e, 2)) : device->FlushOutputStream(id, U32At(e, 2));
    EncodeReturn(exit, name, hr);
  } else if (name == "GetAttributes") {
    ComPtr<IMFTransform> transform;
    device->QueryInterface(IID_PPV_ARGS(&transform));
    IMFAttributes *attributes = nullptr;
    IMFAttributes **out = OutIf(e, 1, attributes);
    hr = transform ? transform->GetAttributes(out) : E_NOINTERFACE;
    EncodeReturn(exit, name, hr, out);
    if (attributes) attributes->Release();
  } else if (name == "Shutdown" || name == "GetShutdownStatus") {
    ComPtr<IMFShutdown> shutdown;
    device->QueryInterface(IID_PPV_ARGS(&shutdown));
    if (!shutdown) {
      call.error = "the transform has no IMFShutdown";
    } else if (name == "Shutdown") {
      EncodeReturn(exit, name, shutdown->Shutdown());
    } else {
      MFSHUTDOWN_STATUS status = MFSHUTDOWN_INITIATED;
      MFSHUTDOWN_STATUS *out = OutIf(e, 1, status);
      hr = shutdown->GetShutdownStatus(out);
      EncodeReturn(exit, name, hr, out);
    }
  } else {
    call.error = "a call this replay does not know: " + name;
  }
}

// Whether every output stream a recorded ProcessOutput return names is in the state the call found it
// in (running, or not), waiting up to `ms` for it.
bool StreamsAsRecorded(IMFDeviceTransform *device, const Record &exit, DWORD ms) {
  // Only a call that looked at its buffers says what it found.
  if (exit.result != static_cast<uint32_t>(S_OK) && exit.result != static_cast<uint32_t>(MF_E_TRANSFORM_NEED_MORE_INPUT)) {
    return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    bool asRecorded = true;
    for (size_t b = 1; b + 2 < exit.values.size() && asRecorded; b += 3) {
      const bool wasRunning = U32At(exit, b + 1) != 0 || exit.values[b + 2].tag == ValueTag::Sample;
      DeviceStreamState state = DeviceStreamState_Stop;
      const bool running = SUCCEEDED(device->GetOutputStreamState(U32At(exit, b), &state)) &&
                           state == DeviceStreamState_Run;
      asRecorded = running == wasRunning;
    }
    if (asRecorded) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Why two recorded values differ, or empty.
std::string CompareValues(const Value &recorded, const Value &now) {
  if (recorded.tag != now.tag) {
    return std::string("recorded a ") + device_events::ValueTagName(recorded.tag) + " value, now a " +
           device_events::ValueTagName(now.tag);
  }
  switch (recorded.tag) {
    case ValueTag::Null: return {};
    case ValueTag::U32:
    case ValueTag::U64:
    case ValueTag::I64:
      return recorded.number == now.number ? std::string()
                                           : "recorded " + std::to_string(recorded.number) + ", now " + std::to_string(now.number);
    case ValueTag::Guid:
      return recorded.guid == now.guid ? std::string()
                                       : "recorded " + device_events::GuidText(recorded.guid) + ", now " + device_events::GuidText(now.guid);
    case ValueTag::String:
    case ValueTag::Bytes:
      return recorded.bytes == now.bytes ? std::string() : "the bytes differ";
    case ValueTag::Attributes:
    case ValueTag::MediaType: return mft_core::CompareAttributeBlobs(recorded.bytes, now.bytes);
    case ValueTag::Sample: {
      const auto &a = *recorded.sample;
      const auto &b = *now.sample;
      if (a.present != b.present || a.time != b.time || a.duration != b.duration) return "sample time or duration differs";
      if (a.flags != b.flags || a.totalLength != b.totalLength || a.bufferCount != b.bufferCount) {
        return "sample flags or length differ";
      }
      std::string attributes = mft_core::CompareAttributeBlobs(a.attributes.bytes, b.attributes.bytes);
      if (!attributes.empty()) return "sample attributes: " + attributes;
      if (a.captureMetadata.IsNull() != b.captureMetadata.IsNull()) return "capture metadata present only once";
      if (!a.captureMetadata.IsNull()) {
        attributes = mft_core::CompareAttributeBlobs(a.captureMetadata.bytes, b.captureMetadata.bytes);
        if (!attributes.empty()) return "capture metadata: " + attributes;
      }
      if (a.rawMetadata.IsNull() != b.rawMetadata.IsNull() || a.rawMetadata.bytes != b.rawMetadata.bytes) {
        return "raw metadata differs";
      }
      return {};
    }
  }
  return "values of an unknown kind";
}

// Where the replay of a recording that was not closed ends. Its last calls were in flight: their returns
// and what they caused are missing, and so are the returns of calls that were still running beside
// them. The replay ends before the entry of the first call that had not returned by that point.
size_t ReplayableEnd(const std::vector<Record> &records) {
  const CallPairs calls = PairCalls(records);
  const std::vector<size_t> &exitOf = calls.exitOf;
  // The largest end before which every call entered has returned: the calls entered before each
  // position return by `latest[position]` at the latest.
  std::vector<size_t> latest(records.size() + 1, 0);
  for (size_t i = 0; i < records.size(); ++i) {
    const size_t returns = records[i].Kind() == RecordKind::CallEntry ? exitOf[i] : 0;  // kNoExit: never
    latest[i + 1] = std::max(latest[i], returns);
  }
  size_t end = records.size();
  while (end > 0 && latest[end] >= end) --end;
  return end;
}

// A flight recorder's dump holds its ring-dump record, the set-up records kept aside (the filter,
// the transform's initialisation and every control call since, with what they caused), a state record,
// then the ring. The ring begins anywhere: inside calls, with frames held by the transform. The replay
// makes the set-up calls older than the ring's first quiet point (no call in flight, no frame held),
// then the ring from there. False with `error` when the dump cannot be replayed.
bool StartAtState(std::vector<Record> &records, std::string &start, std::string &error) {
  size_t state = 0;
  while (state < records.size() && records[state].Kind() != RecordKind::State) ++state;
  if (state == records.size()) return true;  // an older dump: no set-up kept
  if (records[state].values.size() < 2 || records[state].values[1].number == 0) {
    error = "the dump's set-up records are incomplete (they outgrew their room): it cannot be replayed";
    return false;
  }
  std::vector<Record> ring(records.begin() + static_cast<std::ptrdiff_t>(state) + 1, records.end());
  if (!ring.empty() && ring.back().Kind() == RecordKind::End) ring.pop_back();
  ring.resize(ReplayableEnd(ring));
  // A return whose call the ring lost must come before the start.
  const CallPairs calls = PairCalls(ring);
  const std::vector<size_t> &exitOf = calls.exitOf;
  const std::vector<bool> &orphan = calls.orphanExit;
  size_t afterOrphans = 0;
  for (size_t i = 0; i < ring.size(); ++i) {
    if (orphan[i]) afterOrphans = i + 1;
  }
  // Frames each stream took in and handed out; what it held when the ring began is the least that
  // keeps every hand-out covered.
  auto framesAt = [&](size_t i, std::map<uint32_t, int64_t> &held) {
    const Record &r = ring[i];
    if (r.Kind() == RecordKind::CallEntry && device_events::CallName(r) == "ProcessInput" && exitOf[i] != kNoExit &&
        ring[exitOf[i]].result == 0) {
      ++held[U32At(r, 1)];
    }
    if (r.Kind() == RecordKind::CallExit && device_events::CallName(r) == "ProcessOutput") {
      for (size_t b = 1; b + 2 < r.values.size(); b += 3) {
        if (r.values[b + 2].tag == ValueTag::Sample) --held[U32At(r, b)];
      }
    }
  };
  std::map<uint32_t, int64_t> held, before;
  for (size_t i = 0; i < ring.size(); ++i) {
    framesAt(i, held);
    for (const auto &stream : held) before[stream.first] = std::max(before[stream.first], -stream.second);
  }
  held = before;
  size_t first = ring.size(), inFlight = 0;
  for (size_t i = 0; i < ring.size(); ++i) {
    const bool quiet = inFlight == 0 && i >= afterOrphans &&
                       std::all_of(held.begin(), held.end(), [](const auto &stream) { return stream.second == 0; });
    if (quiet) {
      first = i;
      break;
    }
    if (ring[i].Kind() == RecordKind::CallEntry && exitOf[i] != kNoExit) ++inFlight;
    if (ring[i].Kind() == RecordKind::CallExit && !orphan[i]) --inFlight;
    framesAt(i, held);
  }
  if (first == ring.size()) {
    error = "the dump's ring has no point where no call was in flight and no frame held: it cannot be replayed";
    return false;
  }
  // Set-up records from the ring's start on are in the ring as well.
  const uint64_t from = ring[first].time;
  std::vector<Record> replayed;
  size_t setUp = 0;
  for (size_t i = 1; i < state; ++i) {
    if (records[i].time >= from) continue;
    replayed.push_back(records[i]);
    ++setUp;
  }
  const uint64_t startOffset = ring[first].offset;
  replayed.insert(replayed.end(), std::make_move_iterator(ring.begin() + static_cast<std::ptrdiff_t>(first)),
                  std::make_move_iterator(ring.end()));
  start = "a flight recorder's dump: " + std::to_string(setUp) +
          " set-up records kept aside, then its ring from the first point with no call in flight and no frame held "
          "(offset " + std::to_string(startOffset) + "; " + std::to_string(first) + " ring records before it left out)";
  records = std::move(replayed);
  return true;
}

}  // namespace

std::string ReplayReport::Summary() const {
  std::ostringstream text;
  text << (matched ? "MATCH" : "DIVERGED") << ": " << records << " records replayed; " << calls << " calls, "
       << applicationRequests << " application KS requests, " << driverRequests << " driver requests answered, "
       << driverEvents << " driver events, " << mediaEvents << " media events compared";
  if (!start.empty()) text << "\nstarted at " << start;
  if (!ending.empty()) text << "\n" << ending;
  return text.str();
}

HRESULT CreateSimulatedSessionTransform(const device_events::FileHeader &header, IMFDeviceTransform **transform) {
  const std::string prefix = "Simulated ", suffix = " MFT";
  const std::string &name = header.transformName;
  if (name.size() <= prefix.size() + suffix.size() || name.compare(0, prefix.size(), prefix) != 0) return E_INVALIDARG;
  CameraConfig camera;
  if (!CameraByName(name.substr(prefix.size(), name.size() - prefix.size() - suffix.size()), camera)) return E_INVALIDARG;
  PassThroughTransformFactory factory;
  return factory.CreateTransform(camera, transform);
}

ReplayReport ReplayRecording(const std::vector<uint8_t> &bytes, const ReplayTransformFactory &factory,
                             const ReplayOptions &options) {
  ReplayReport report;
  device_events::EventsReader reader(bytes.data(), bytes.size());
  device_events::FileHeader header;
  device_events::ReadError error;
  if (!reader.ReadHeader(header, error)) {
    report.divergence = "the recording cannot be read: " + error.Text();
    return report;
  }
  std::vector<Record> records;
  Record record;
  std::string cut;
  for (;;) {
    const auto status = reader.Next(record, error);
    if (status == device_events::EventsReader::Status::End) break;
    if (status == device_events::EventsReader::Status::Cut) {
      cut = error.message;
      break;
    }
    if (status == device_events::EventsReader::Status::Error) {
      report.divergence = "the recording is damaged: " + error.Text();
      return report;
    }
    records.push_back(record);
  }
  if (!records.empty() && records.front().Kind() == RecordKind::RingDump) {
    std::string refused;
    if (!StartAtState(records, report.start, refused)) {
      report.divergence = refused;
      return report;
    }
  }
  // (A dump's ring was trimmed to its last whole call already.)
  if (report.start.empty() && (records.empty() || records.back().Kind() != RecordKind::End)) {
    if (cut.empty()) cut = "the recording ends between two records without its closing record";
    const size_t end = ReplayableEnd(records);
    report.ending = cut + "; replayed up to " +
                    (end == records.size() ? std::string("its last whole record")
                                           : "the entry of the first call still in flight then (offset " +
                                                 std::to_string(records[end].offset) + "), " +
                                                 std::to_string(records.size() - end) + " records left out");
    records.resize(end);
  }
  const Record *filterRecord = nullptr;
  std::vector<Record> driverRequests;
  // Each call's return with the call's entry, and the driver requests the call made itself (on its
  // thread, between entry and return) by their position among the driver requests.
  std::map<const Record *, const Record *> exitOf;
  std::map<const Record *, std::vector<size_t>> requestsMadeBy;
  {
    std::map<uint32_t, std::vector<const Record *>> open;
    for (const Record &r : records) {
      if (r.Kind() == RecordKind::Filter && filterRecord == nullptr) filterRecord = &r;
      if (r.Kind() == RecordKind::DriverKsRequest) {
        if (!open[r.threadId].empty()) requestsMadeBy[open[r.threadId].back()].push_back(driverRequests.size());
        driverRequests.push_back(r);
      }
      if (r.Kind() == RecordKind::CallEntry) open[r.threadId].push_back(&r);
      if (r.Kind() == RecordKind::CallExit && !open[r.threadId].empty()) {
        const Record *entry = open[r.threadId].back();
        exitOf[entry] = &r;
        auto made = requestsMadeBy.find(entry);
        if (made != requestsMadeBy.end()) {
          requestsMadeBy[&r] = std::move(made->second);
          requestsMadeBy.erase(made);
        }
        open[r.threadId].pop_back();
      }
    }
  }
  const std::vector<Record> recordedRequests = driverRequests;
  FrameOrder frameOrder = OrderFrames(records, exitOf);
  auto &framesOf = frameOrder.framesOf;
  auto &framesNeeded = frameOrder.framesNeeded;
  if (filterRecord == nullptr) {
    report.divergence = "the recording has no driver filter record (it did not see InitializeTransform)";
    return report;
  }
  ComPtr<RecordedCameraFilter> filter;
  if (FAILED(RecordedCameraFilter::Create(*filterRecord, std::move(driverRequests), filter))) {
    report.divergence = "the recording's driver filter record is malformed (offset " + std::to_string(filterRecord->offset) + ")";
    return report;
  }
  ComPtr<IMFDeviceTransform> device;
  const HRESULT created = factory(header, &device);
  if (FAILED(created) || !device) {
    report.divergence = "the transform \"" + header.transformName + "\" could not be created (" + Hex(created) + ")";
    return report;
  }
  ComPtr<IMFMediaEventGenerator> generator;
  device.As(&generator);

  const device_events::Names names;
  std::deque<std::string> context;
  // `at` is one of `records`.
  auto diverge = [&](const Record &at, const std::string &what) {
    const auto index = static_cast<uint64_t>(&at - records.data());
    report.divergence = "at record " + std::to_string(index) + " (offset " + std::to_string(at.offset) +
                        "): " + device_events::FormatRecord(at, names) + "\n    " + what;
    report.divergenceRecord = index;
    report.divergenceKind = at.kind;
    report.divergenceCall = device_events::CallName(at);
    report.context.assign(context.begin(), context.end());
  };
  {
    std::unique_ptr<EventPump> pump = generator ? std::make_unique<EventPump>(generator) : nullptr;
    std::map<uint32_t, std::unique_ptr<Lane>> lanes;
    std::map<uint32_t, std::deque<std::shared_ptr<PendingCall>>> pending;
    // Calls by their entry, made before their entry is reached when a ProcessOutput needs their frame;
    // and how many frames of each stream are known to be in.
    std::map<const Record *, std::shared_ptr<PendingCall>> callsByEntry;
    std::map<uint32_t, size_t> framesIn;
    auto callOf = [&](const Record &entry) {
      auto &call = callsByEntry[&entry];
      if (!call) {
        call = std::make_shared<PendingCall>();
        call->entry = &entry;
        call->name = device_events::CallName(entry);
        if (exitOf.count(&entry) != 0) call->exitOffset = exitOf[&entry]->offset;
      }
      return call;
    };
    bool shutdownReplayed = false;
    auto lane = [&](uint32_t thread) -> Lane & {
      auto &slot = lanes[thread];
      if (!slot) slot = std::make_unique<Lane>(options.laneJitterMs, thread);
      return *slot;
    };
    auto post = [&](uint32_t thread, const std::shared_ptr<PendingCall> &call) {
      if (call->posted) return;
      call->posted = true;
      IMFDeviceTransform *target = device.Get();
      RecordedCameraFilter *driver = filter.Get();
      lane(thread).Post([call, target, driver] {
        RecordedCameraFilter::CallScope scope(call->entry->threadId, call->exitOffset);
        MakeCall(target, driver, *call);
        call->Finish();
      });
    };
    // Recorded media events not yet seen queued, oldest first.
    struct Expected {
      QueuedEvent event;
      uint64_t recordIndex;
      const Record *record;
    };
    std::deque<Expected> expected;
    auto settle = [&](bool final) {
      while (!expected.empty() && report.divergence.empty()) {
        const Expected &front = expected.front();
        const bool late = final || report.records - front.recordIndex > kEventSlack;
        std::string seen;
        if (pump && pump->Take(front.event, late ? options.waitMs : 0, seen)) {
          expected.pop_front();
          continue;
        }
        if (late) diverge(*front.record, "the transform did not queue this event (" + seen + " queued first)");
        break;
      }
    };

    // Calls that may wait for other threads, entered and not made yet, by their thread.
    std::map<uint32_t, std::shared_ptr<PendingCall>> deferred;
    auto postDeferred = [&](uint32_t thread) {
      const auto found = deferred.find(thread);
      if (found == deferred.end()) return;
      post(thread, found->second);
      deferred.erase(found);
    };
    auto postAllDeferred = [&] {
      while (!deferred.empty()) postDeferred(deferred.begin()->first);
    };

    for (const Record &r : records) {
      if (!report.divergence.empty()) break;
      postDeferred(r.threadId);
      switch (r.Kind()) {
        case RecordKind::CallEntry: {
          auto call = callOf(r);
          if (call->name == "Shutdown") shutdownReplayed = true;
          pending[r.threadId].push_back(call);
          if (call->name == "ProcessOutput" && exitOf.count(&r) != 0) {
            // The frames it hands out are made first, with every frame before them, in their order.
            for (const auto &needed : framesNeeded[&r]) {
              const auto &frames = framesOf[needed.first];
              size_t &in = framesIn[needed.first];
              for (; in < needed.second && in < frames.size() && report.divergence.empty(); ++in) {
                auto input = callOf(*frames[in]);
                post(frames[in]->threadId, input);
                if (!input->Wait(options.waitMs)) {
                  diverge(*frames[in], "a frame the next pull hands out: the call did not return within " +
                                           std::to_string(options.waitMs) + " ms");
                } else if (input->exit.result != exitOf[frames[in]]->result) {
                  diverge(*exitOf[frames[in]], "made before the pull that hands its frame out: recorded " +
                                                   device_events::ResultText(exitOf[frames[in]]->result) + ", now " +
                                                   device_events::ResultText(input->exit.result));
                }
              }
            }
            if (!report.divergence.empty()) break;
            // A stream it asked for that was not running left its buffer as given; one that was running
            // gave a sample or said it had none. A state request in flight on another thread may have
            // changed that (or not yet) when the call was made: wait for the state it found.
            if (!StreamsAsRecorded(device.Get(), *exitOf[&r], 0)) {
              postAllDeferred();
              if (!StreamsAsRecorded(device.Get(), *exitOf[&r], options.waitMs)) {
                diverge(r, "an output stream it asked for did not reach the state (running or not) the call found it in within " +
                               std::to_string(options.waitMs) + " ms");
                break;
              }
            }
            post(r.threadId, call);
            call->Wait(options.waitMs);
          }
          if (WaitsForOtherThreads(call->name)) deferred[r.threadId] = call;
          break;
        }
        case RecordKind::CallExit: {
          auto &calls = pending[r.threadId];
          if (calls.empty()) {
            diverge(r, "a return without its call in the recording");
            break;
          }
          auto call = calls.back();
          calls.pop_back();
          ++report.calls;
          // A call that waits for another thread may wait for one entered after it and not made yet
          // (a Shutdown ends the waits in flight).
          if (ReturnMayWaitForLaterCalls(call->name)) postAllDeferred();
          post(r.threadId, call);
          if (!call->Wait(options.waitMs)) {
            diverge(r, "the call did not return within " + std::to_string(options.waitMs) + " ms");
            break;
          }
          if (!call->error.empty()) {
            diverge(r, call->error);
            break;
          }
          if (call->exit.result != r.result) {
            diverge(r, "recorded " + device_events::ResultText(r.result) + ", now " +
                           device_events::ResultText(call->exit.result));
            break;
          }
          if (call->exit.values.size() != r.values.size()) {
            diverge(r, "recorded " + std::to_string(r.values.size()) + " values, now " +
                           std::to_string(call->exit.values.size()));
            break;
          }
          for (size_t i = 1; i < r.values.size() && report.divergence.empty(); ++i) {
            const std::string why = CompareValues(r.values[i], call->exit.values[i]);
            if (!why.empty()) diverge(r, "value " + std::to_string(i) + " handed out: " + why);
          }
          // The driver requests the call made when recorded must have been made by now.
          for (size_t request : requestsMadeBy[&r]) {
            if (!report.divergence.empty()) break;
            if (!filter->Answered(request)) {
              diverge(r, "the call did not make the driver request it made when recorded: " +
                             device_events::FormatRecord(recordedRequests[request], names));
            }
          }
          break;
        }
        case RecordKind::ApplicationKsRequest: {
          ++report.applicationRequests;
          if (r.values.size() < 6) {
            diverge(r, "malformed application request");
            break;
          }
          // Buffers live with the request, so that a request that never returns cannot outlive them.
          struct KsCall {
            std::vector<uint64_t> identifier, data;
            ULONG returned = 0;
            HRESULT hr = E_FAIL;
            HANDLE event = nullptr;
            ~KsCall() {
              if (event) CloseHandle(event);
            }
          };
          auto ks = std::make_shared<KsCall>();
          ComPtr<IKsControl> ksControl;
          device.As(&ksControl);
          const uint32_t kind = U32At(r, 0);
          ks->identifier.resize((r.values[1].bytes.size() + 7) / 8 + 1);
          std::memcpy(ks->identifier.data(), r.values[1].bytes.data(), r.values[1].bytes.size());
          const ULONG dataLength = U32At(r, 3);
          ks->data.resize(dataLength / 8 + 1);
          if (!r.values[2].IsNull()) {
            std::memcpy(ks->data.data(), r.values[2].bytes.data(), std::min<size_t>(r.values[2].bytes.size(), dataLength));
          }
          // An application's event handle is its own: a fresh one stands in for it.
          if (kind == 0 && dataLength >= sizeof(KSEVENTDATA) && !r.values[2].IsNull()) {
            ks->event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
            reinterpret_cast<KSEVENTDATA *>(ks->data.data())->EventHandle.Event = ks->event;
          }
          ULONG *returnedOut = r.values[5].IsNull() ? nullptr : &ks->returned;
          void *dataOut = r.values[2].IsNull() && r.values[4].IsNull() ? nullptr : ks->data.data();
          void *id = r.values[1].IsNull() ? nullptr : ks->identifier.data();
          const auto idLength = static_cast<ULONG>(r.values[1].bytes.size());
          auto done = std::make_shared<PendingCall>();
          lane(r.threadId).Post([ks, ksControl, kind, id, idLength, dataOut, dataLength, returnedOut, done] {
            if (kind == 1) {
              ks->hr = ksControl->KsProperty(static_cast<PKSPROPERTY>(id), idLength, dataOut, dataLength, returnedOut);
            } else if (kind == 2) {
              ks->hr = ksControl->KsMethod(static_cast<PKSMETHOD>(id), idLength, dataOut, dataLength, returnedOut);
            } else {
              ks->hr = ksControl->KsEvent(static_cast<PKSEVENT>(id), idLength, dataOut, dataLength, returnedOut);
            }
            done->Finish();
          });
          if (!done->Wait(options.waitMs)) {
            diverge(r, "the request did not return within " + std::to_string(options.waitMs) + " ms");
            break;
          }
          if (static_cast<uint32_t>(ks->hr) != r.result) {
            diverge(r, "recorded " + device_events::ResultText(r.result) + ", now " +
                           device_events::ResultText(static_cast<uint32_t>(ks->hr)));
          } else if (returnedOut && r.values[5].number != ks->returned) {
            diverge(r, "recorded " + std::to_string(r.values[5].number) + " bytes returned, now " +
                           std::to_string(ks->returned));
          } else if (!r.values[4].IsNull() && dataOut &&
                     std::memcmp(r.values[4].bytes.data(), dataOut, r.values[4].bytes.size()) != 0) {
            diverge(r, "the data answered differ");
          }
          break;
        }
        case RecordKind::DriverKsRequest:
          ++report.driverRequests;  // answered by the recorded driver when the transform asks
          break;
        case RecordKind::DriverEvent: {
          ++report.driverEvents;
          if (r.values.size() < 2 || !filter->SignalEvent(mft_core::FromRecorded(r.values[0].guid), U32At(r, 1))) {
            diverge(r, "the transform has not subscribed to this driver event");
          }
          break;
        }
        case RecordKind::MediaEvent: {
          ++report.mediaEvents;
          QueuedEvent wanted;
          wanted.type = U32At(r, 0);
          if (r.values.size() > 1) wanted.extendedType = mft_core::FromRecorded(r.values[1].guid);
          wanted.status = r.result;
          wanted.hasStream = r.values.size() > 3 && r.values[3].tag == ValueTag::U32;
          wanted.stream = U32At(r, 3);
          // Have-output events come from frames, which are made where they returned: they are matched
          // when they come. Any other event comes from a state change in flight (or a driver event)
          // and is awaited here, before the calls that answer it are made.
          if (wanted.type == METransformHaveOutput) {
            expected.push_back({wanted, report.records, &r});
          } else {
            std::string seen;
            if (!pump || !pump->Take(wanted, options.waitMs, seen)) {
              diverge(r, "the transform did not queue this event (" + seen + " queued first)");
            }
          }
          break;
        }
        case RecordKind::Dropped:
          diverge(r, "the recording lost records here: the run cannot be compared past this point");
          break;
        default:
          break;
      }
      settle(false);
      if (report.divergence.empty()) {
        const auto driverDivergences = filter->Divergences();
        if (!driverDivergences.empty()) {
          // Reported at the return of the call that made the request, when a replayed call made it.
          const auto &first = driverDivergences.front();
          const auto call = std::lower_bound(records.begin(), records.end(), first.callExitOffset,
                                             [](const Record &record, uint64_t offset) { return record.offset < offset; });
          diverge(call != records.end() && call->offset == first.callExitOffset ? *call : r, first.what);
        }
      }
      ++report.records;
      context.push_back(device_events::FormatRecord(r, names));
      if (context.size() > kContextRecords) context.pop_front();
    }
    postAllDeferred();
    settle(true);
    if (report.divergence.empty()) {
      const auto unused = filter->UnusedRequests();
      if (!unused.empty()) {
        report.divergence = std::to_string(unused.size()) + " recorded driver requests were not made, the first at offset " +
                            std::to_string(unused.front()->offset) + ": " + device_events::FormatRecord(*unused.front(), names);
      }
    }
    // Let the lanes finish what they run, then end the event pump.
    for (auto &calls : pending) {
      for (auto &call : calls.second) {
        if (call->posted) call->Wait(options.waitMs);
      }
    }
    lanes.clear();
    if (!shutdownReplayed || !report.divergence.empty()) {
      ComPtr<IMFShutdown> shutdown;
      if (SUCCEEDED(device.As(&shutdown))) shutdown->Shutdown();
    }
  }
  report.matched = report.divergence.empty();
  return report;
}

}  // namespace sim
