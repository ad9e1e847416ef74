#include "mft_core/recorder/DeviceEventsRecorder.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "mft_core/ks/KsControlsProxy.h"
#include "mft_core/recorder/MfValues.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

namespace {

using device_events::RecordEncoder;
using device_events::RecordKind;
using device_events::ValueTag;

// Identifiers and data longer than this are cut; no KS request of this camera comes near.
constexpr ULONG kMaxIdentifierBytes = 4096;
constexpr ULONG kMaxDataBytes = 1 << 20;
constexpr DWORD kMaxTypesPerStream = 1024;

// "ProcessInput" from "virtual HRESULT mft_core::MFDeviceTransform::ProcessInput(DWORD, IMFSample*, DWORD)".
void ShortName(const char *function, const char *&begin, size_t &length) {
  const char *open = std::strchr(function, '(');
  const char *end = open != nullptr ? open : function + std::strlen(function);
  const char *start = end;
  while (start > function && start[-1] != ':' && start[-1] != ' ') --start;
  begin = start;
  length = static_cast<size_t>(end - start);
}

// Identifier and data of a KS request as they were on entry, kept until the request returns. Requests
// nest (an application's request forwarded to the driver), so it is a stack per thread. (No
// thread_local objects: their destructors are not reliable in statically linked MinGW programs.)
struct PendingData {
  bool entered = false;
  bool hasIdentifier = false;
  std::vector<uint8_t> identifier;
  bool present = false;
  std::vector<uint8_t> bytes;
};

class PendingStacks {
 public:
  void Push(PendingData data) {
    std::lock_guard<std::mutex> lock(mutex);
    stacks[GetCurrentThreadId()].push_back(std::move(data));
  }
  PendingData Pop() {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = stacks.find(GetCurrentThreadId());
    if (found == stacks.end() || found->second.empty()) return {};
    PendingData data = std::move(found->second.back());
    found->second.pop_back();
    if (found->second.empty()) stacks.erase(found);
    return data;
  }

 private:
  std::mutex mutex;
  std::map<DWORD, std::vector<PendingData>> stacks;
};

// An application request that changes what the camera does: a property set, a method, an event.
bool ChangesState(KsControlType type, const KSIDENTIFIER *identifier) {
  return type != KsControlType::Property || (identifier != nullptr && (identifier->Flags & KSPROPERTY_TYPE_SET) != 0);
}

class KsRequestsRecorder : public IKsControlsObserver {
 public:
  KsRequestsRecorder(DeviceEventsRecorder *recorder, RecordKind kind) : recorder(recorder), kind(kind) {}

  void OnKsControlEntry(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                        ULONG dataLength, ULONG *) override {
    if (kind == RecordKind::ApplicationKsRequest && ChangesState(type, identifier)) recorder->ControlBegins();
    PendingData pending;
    pending.entered = true;
    pending.hasIdentifier = identifier != nullptr;
    if (identifier != nullptr) {
      const auto *bytes = reinterpret_cast<const uint8_t *>(identifier);
      pending.identifier.assign(bytes, bytes + std::min(identifierLength, kMaxIdentifierBytes));
    }
    pending.present = data != nullptr;
    if (data != nullptr && dataLength != 0) {
      const auto *bytes = static_cast<const uint8_t *>(data);
      pending.bytes.assign(bytes, bytes + std::min(dataLength, kMaxDataBytes));
    }
    pendingData.Push(std::move(pending));
  }

  void OnKsControlExit(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                       ULONG dataLength, ULONG *bytesReturned, HRESULT result) override {
    PendingData pending = pendingData.Pop();
    if (!pending.entered && identifier != nullptr) {
      // Seen only on its way out: the identifier as it is now is the best there is.
      const auto *bytes = reinterpret_cast<const uint8_t *>(identifier);
      pending.hasIdentifier = true;
      pending.identifier.assign(bytes, bytes + std::min(identifierLength, kMaxIdentifierBytes));
    }
    recorder->RecordKsRequest(kind, type, pending.hasIdentifier ? &pending.identifier : nullptr,
                              pending.present ? &pending.bytes : nullptr, data, dataLength, bytesReturned, result);
    if (kind == RecordKind::ApplicationKsRequest && pending.entered &&
        ChangesState(type, pending.hasIdentifier && pending.identifier.size() >= sizeof(KSIDENTIFIER)
                               ? reinterpret_cast<const KSIDENTIFIER *>(pending.identifier.data())
                               : nullptr)) {
      recorder->ControlEnds();
    }
  }

 private:
  DeviceEventsRecorder *recorder;  // owns this observer
  const RecordKind kind;
  PendingStacks pendingData;
};

// The version of the module this code is linked into, from its version resource.
std::string ModuleVersion() {
  HMODULE module = nullptr;
  wchar_t fileName[MAX_PATH] = {};
  if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(&ModuleVersion), &module) &&
      GetModuleFileNameW(module, fileName, MAX_PATH) != 0) {
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeW(fileName, &handle);
    std::vector<uint8_t> info(size);
    VS_FIXEDFILEINFO *fixed = nullptr;
    UINT fixedLength = 0;
    if (size != 0 && GetFileVersionInfoW(fileName, 0, size, info.data()) &&
        VerQueryValueW(info.data(), L"\\", reinterpret_cast<void **>(&fixed), &fixedLength) && fixed != nullptr) {
      return std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." + std::to_string(LOWORD(fixed->dwFileVersionMS)) +
             "." + std::to_string(HIWORD(fixed->dwFileVersionLS)) + "." +
             std::to_string(LOWORD(fixed->dwFileVersionLS)) + " " + Utf8(fileName);
    }
    return std::string("unversioned build of " __DATE__ " " __TIME__ " ") + Utf8(fileName);
  }
  return "unversioned build of " __DATE__ " " __TIME__;
}

DWORD RegistryDword(HKEY key, const wchar_t *name, DWORD fallback) {
  DWORD value = 0, size = sizeof(value);
  if (RegGetValueW(key, nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size) != ERROR_SUCCESS) return fallback;
  return value;
}

uint64_t FileTimeNow() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

int64_t CounterFrequency() {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return frequency.QuadPart;
}

// The folder of `path`, created when missing.
void CreateParentFolder(const std::wstring &path) {
  const size_t slash = path.find_last_of(L"\\/");
  if (slash == std::wstring::npos || slash == 0) return;
  CreateDirectoryW(path.substr(0, slash).c_str(), nullptr);
}

}  // namespace

class DeviceEventsRecorder::RecordScope {
 public:
  // `timed`: the caller's time counts in the recorder's account (a record made inside another's
  // scope does not count twice).
  explicit RecordScope(DeviceEventsRecorder &recorder, bool timed = true) : recorder(recorder), timed(timed) {
    QueryPerformanceCounter(&start);
    // Thread identifiers are multiples of four. A thread that finds every slot taken makes its record
    // in a buffer of its own, and its time goes uncounted.
    const size_t first = (GetCurrentThreadId() >> 2) % kEncodeSlots;
    for (size_t i = 0; i < kEncodeSlots && slot == nullptr; ++i) {
      EncodeSlot &candidate = recorder.slots[(first + i) % kEncodeSlots];
      if (!candidate.busy.load(std::memory_order_relaxed) && !candidate.busy.exchange(true, std::memory_order_acquire)) {
        slot = &candidate;
      }
    }
    // Recording everything hands the record's buffer to the writer.
    if (!recorder.flightRecorder) taken = recorder.writer->TakeBuffer();
  }
  ~RecordScope() {
    if (slot == nullptr) return;
    if (timed) {
      LARGE_INTEGER end;
      QueryPerformanceCounter(&end);
      const uint64_t ticks = static_cast<uint64_t>(end.QuadPart - start.QuadPart);
      slot->ticks.fetch_add(ticks, std::memory_order_relaxed);
      slot->calls.fetch_add(1, std::memory_order_relaxed);
      if (ticks > recorder.longRecordTicks) slot->longTicks.fetch_add(ticks, std::memory_order_relaxed);
    }
    // A record of pixels leaves a large buffer: not kept.
    if (slot->bytes.capacity() > kLargestKept) std::vector<uint8_t>().swap(slot->bytes);
    slot->bytes.clear();
    slot->busy.store(false, std::memory_order_release);
  }
  RecordScope(const RecordScope &) = delete;
  RecordScope &operator=(const RecordScope &) = delete;

  std::vector<uint8_t> &Bytes() { return slot != nullptr && recorder.flightRecorder ? slot->bytes : taken; }
  uint64_t Time() const { return recorder.clock.At(start); }

 private:
  static constexpr size_t kLargestKept = 256 * 1024;
  DeviceEventsRecorder &recorder;
  const bool timed;
  LARGE_INTEGER start;
  EncodeSlot *slot = nullptr;
  std::vector<uint8_t> taken;
};

DeviceEventsRecorderSettings DeviceEventsRecorderSettings::FromRegistry() {
  DeviceEventsRecorderSettings settings;
  settings.path = kDefaultFile;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kRegistryKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return settings;
  const DWORD mode = RegistryDword(key, kEnabledValue, 0);
  settings.enabled = mode != 0;
  settings.flightRecorder = mode == kFlightRecorderMode;
  if (settings.flightRecorder) {
    const DWORD ring = RegistryDword(key, kRingMegabytesValue, 32);
    settings.writer.ringBytes = static_cast<size_t>(ring == 0 ? 32 : ring) << 20;
    settings.writer.maxDumps = std::max<DWORD>(1, RegistryDword(key, kDumpFilesValue, 8));
  }
  settings.pixelData = RegistryDword(key, kPixelDataValue, 0) != 0;
  const DWORD megabytes = RegistryDword(key, kMaxMegabytesValue, 256);
  settings.writer.maxFileBytes = static_cast<uint64_t>(megabytes == 0 ? 256 : megabytes) << 20;
  wchar_t file[MAX_PATH] = {};
  DWORD size = sizeof(file);
  if (RegGetValueW(key, nullptr, kFileValue, RRF_RT_REG_SZ, nullptr, file, &size) == ERROR_SUCCESS && file[0] != 0) {
    settings.path = file;
  }
  RegCloseKey(key);
  return settings;
}

HRESULT DeviceEventsRecorderSettings::StoreInRegistry() const {
  HKEY key = nullptr;
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kRegistryKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr);
  RETURN_IF_FAILED(HRESULT_FROM_WIN32(status));
  const DWORD on = !enabled ? 0 : flightRecorder ? kFlightRecorderMode : 1, pixels = pixelData ? 1 : 0;
  const DWORD ringMegabytes = static_cast<DWORD>(writer.ringBytes >> 20), dumpFiles = writer.maxDumps;
  const DWORD megabytes = static_cast<DWORD>(writer.maxFileBytes >> 20);
  status = RegSetValueExW(key, kEnabledValue, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&on), sizeof(on));
  if (status == ERROR_SUCCESS) {
    status = RegSetValueExW(key, kPixelDataValue, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&pixels), sizeof(pixels));
  }
  if (status == ERROR_SUCCESS) {
    status = RegSetValueExW(key, kMaxMegabytesValue, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&megabytes),
                            sizeof(megabytes));
  }
  if (status == ERROR_SUCCESS && flightRecorder) {
    status = RegSetValueExW(key, kRingMegabytesValue, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&ringMegabytes),
                            sizeof(ringMegabytes));
  }
  if (status == ERROR_SUCCESS && flightRecorder) {
    status = RegSetValueExW(key, kDumpFilesValue, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&dumpFiles),
                            sizeof(dumpFiles));
  }
  if (status == ERROR_SUCCESS && !path.empty()) {
    status = RegSetValueExW(key, kFileValue, 0, REG_SZ, reinterpret_cast<const BYTE *>(path.c_str()),
                            static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
  }
  RegCloseKey(key);
  RETURN_IF_FAILED(HRESULT_FROM_WIN32(status));
  return S_OK;
}

void DeviceEventsRecorderSettings::RemoveFromRegistry() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kRegistryKey, 0, KEY_SET_VALUE, &key) != ERROR_SUCCESS) return;
  for (const wchar_t *value :
       {kEnabledValue, kPixelDataValue, kMaxMegabytesValue, kFileValue, kRingMegabytesValue, kDumpFilesValue}) {
    RegDeleteValueW(key, value);
  }
  RegCloseKey(key);
}

std::shared_ptr<DeviceEventsRecorder> DeviceEventsRecorder::CreateIfEnabled(const GUID &transformClass,
                                                                            const std::string &name) {
  const DeviceEventsRecorderSettings settings = DeviceEventsRecorderSettings::FromRegistry();
  if (!settings.enabled) return nullptr;
  std::shared_ptr<DeviceEventsRecorder> recorder;
  LOG_IF_FAILED(Create(settings, transformClass, name, recorder));
  return recorder;
}

HRESULT DeviceEventsRecorder::Create(const DeviceEventsRecorderSettings &settings, const GUID &transformClass,
                                     const std::string &name, std::shared_ptr<DeviceEventsRecorder> &recorder) {
  recorder.reset();
  RETURN_HR_IF(E_INVALIDARG, settings.path.empty());
  CreateParentFolder(settings.path);
  device_events::FileHeader header;
  header.moduleVersion = ModuleVersion();
  header.transformClass = ToRecorded(transformClass);
  header.transformName = name;
  header.startTime = FileTimeNow();
  header.options = settings.pixelData ? device_events::kOptionPixelData : 0;
  std::vector<uint8_t> headerBytes;
  device_events::EncodeHeader(header, headerBytes);

  // Two transforms of one camera record at once: the second takes "events.2.bin" and so on.
  std::wstring path = settings.path;
  std::shared_ptr<DeviceEventsRecorder> created(new DeviceEventsRecorder(settings, path, name));
  HRESULT hr = E_FAIL;
  for (int attempt = 1; attempt <= 9; ++attempt) {
    if (attempt > 1) {
      const size_t dot = settings.path.find_last_of(L'.');
      const std::wstring suffix = L"." + std::to_wstring(attempt);
      path = dot == std::wstring::npos || dot < settings.path.find_last_of(L"\\/") + 1
                 ? settings.path + suffix
                 : settings.path.substr(0, dot) + suffix + settings.path.substr(dot);
    }
    hr = EventsFileWriter::Open(path, headerBytes, settings.writer, created->clock, created->writer);
    if (hr != HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION)) break;
  }
  RETURN_IF_FAILED(hr);
  const_cast<std::wstring &>(created->path) = path;
  if (settings.flightRecorder) {
    WQ_TRACE(Info, "flight recorder of " << name << " keeps " << (settings.writer.ringBytes >> 20)
                                         << " MiB of device events for " << Utf8(path.c_str()));
  } else {
    WQ_TRACE(Info, "recording device events of " << name << " to " << Utf8(path.c_str()));
  }
  recorder = std::move(created);
  return S_OK;
}

DeviceEventsRecorder::DeviceEventsRecorder(const DeviceEventsRecorderSettings &settings, std::wstring path,
                                           std::string name)
    : longRecordTicks(static_cast<uint64_t>(CounterFrequency() / 1000)),
      pixelData(settings.pixelData),
      flightRecorder(settings.writer.ringBytes != 0),
      name(std::move(name)),
      path(std::move(path)) {
  applicationObserver = std::make_shared<KsRequestsRecorder>(this, RecordKind::ApplicationKsRequest);
  driverObserver = std::make_shared<KsRequestsRecorder>(this, RecordKind::DriverKsRequest);
}

DeviceEventsRecorder::~DeviceEventsRecorder() { Close(); }

void DeviceEventsRecorder::Close() {
  if (!writer || closed.exchange(true)) return;
  writer->Close();
  // What the recording cost the threads that made the records, for an engineer weighing it.
  uint64_t calls = 0, ticks = 0, longTicks = 0;
  for (const EncodeSlot &slot : slots) {
    calls += slot.calls.load(std::memory_order_relaxed);
    ticks += slot.ticks.load(std::memory_order_relaxed);
    longTicks += slot.longTicks.load(std::memory_order_relaxed);
  }
  auto microseconds = [&](uint64_t count) {
    return static_cast<double>(count) * 1e6 / static_cast<double>(CounterFrequency());
  };
  // Wall time: a record call that took more than a millisecond was preempted or waited for a lock
  // (a record of pixels aside), so that part is told apart.
  WQ_TRACE(Info, (flightRecorder ? "flight recorder of " : "device events recording of ")
                     << name << ": " << calls << " records, "
                     << (calls == 0 ? 0.0 : microseconds(ticks) / static_cast<double>(calls))
                     << " us each on the recording threads, " << static_cast<uint64_t>(microseconds(ticks))
                     << " us in all, " << static_cast<uint64_t>(microseconds(longTicks))
                     << " us of it in calls longer than 1 ms");
}

bool DeviceEventsRecorder::IsRecording() const { return writer && writer->IsOpen(); }

RecordEncoder DeviceEventsRecorder::Begin(RecordScope &scope, RecordKind kind, HRESULT result) {
  RecordEncoder record(scope.Bytes());
  record.Begin(kind, scope.Time(), GetCurrentThreadId(), static_cast<uint32_t>(result));
  return record;
}

void DeviceEventsRecorder::Finish(RecordEncoder &record, bool setUp) {
  record.End();
  if (flightRecorder) {
    writer->Keep(record.Buffer().data(), record.Buffer().size(), setUp);
  } else {
    writer->Push(std::move(record.Buffer()));
  }
}

bool DeviceEventsRecorder::SetUpCall(std::string_view name) const {
  if (!framesFlowing.load(std::memory_order_relaxed)) return true;
  return name != "ProcessInput" && name != "ProcessOutput" && name.substr(0, 3) != "Get";
}

void DeviceEventsRecorder::ControlBegins() {
  if (!flightRecorder || !framesFlowing.load(std::memory_order_relaxed)) return;
  std::lock_guard<std::mutex> lock(controlMutex);
  controlThreads.push_back(GetCurrentThreadId());
  controlCalls.store(static_cast<int>(controlThreads.size()), std::memory_order_relaxed);
}

void DeviceEventsRecorder::ControlEnds() {
  if (controlCalls.load(std::memory_order_relaxed) == 0) return;
  std::lock_guard<std::mutex> lock(controlMutex);
  const auto found = std::find(controlThreads.begin(), controlThreads.end(), GetCurrentThreadId());
  if (found != controlThreads.end()) controlThreads.erase(found);
  controlCalls.store(static_cast<int>(controlThreads.size()), std::memory_order_relaxed);
}

bool DeviceEventsRecorder::OnControlThread() {
  if (!framesFlowing.load(std::memory_order_relaxed)) return true;
  if (controlCalls.load(std::memory_order_relaxed) == 0) return false;
  std::lock_guard<std::mutex> lock(controlMutex);
  return std::find(controlThreads.begin(), controlThreads.end(), GetCurrentThreadId()) != controlThreads.end();
}

RecordEncoder DeviceEventsRecorder::BeginCall(RecordScope &scope, RecordKind kind, HRESULT result,
                                             const char *function, std::string_view &name) {
  const char *begin = nullptr;
  size_t length = 0;
  ShortName(function, begin, length);
  name = std::string_view(begin, length);
  RecordEncoder record = Begin(scope, kind, result);
  record.String(begin, length);
  return record;
}

void DeviceEventsRecorder::RecordCall(const char *function, const RecordedValue *arguments, size_t count) {
  if (!IsRecording()) return;
  RecordScope scope(*this);
  std::string_view name;
  RecordEncoder record = BeginCall(scope, RecordKind::CallEntry, S_OK, function, name);
  for (size_t i = 0; i < count; ++i) EncodeArgument(record, arguments[i], pixelData);
  if (name == "ProcessInput" && !framesFlowing.load(std::memory_order_relaxed)) framesFlowing = true;
  const bool setUp = SetUpCall(name);
  Finish(record, setUp);
  if (setUp) ControlBegins();
  if (count == 1 && arguments[0].kind == RecordedValue::Kind::Attributes && arguments[0].pointer != nullptr &&
      name == "InitializeTransform") {
    RecordFilter(static_cast<IMFAttributes *>(const_cast<void *>(arguments[0].pointer)));
  }
}

void DeviceEventsRecorder::RecordReturn(const char *function, HRESULT result, const RecordedValue *arguments,
                                        size_t count) {
  if (!IsRecording()) return;
  RecordScope scope(*this);
  std::string_view name;
  RecordEncoder record = BeginCall(scope, RecordKind::CallExit, result, function, name);
  for (size_t i = 0; i < count; ++i) EncodeOutput(record, arguments[i], result, pixelData);
  const bool setUp = SetUpCall(name);
  Finish(record, setUp);
  if (setUp) ControlEnds();
  if (name == "SetOutputStreamState" && SUCCEEDED(result) && count >= 3 && flightRecorder) {
    NoteStreamState(arguments[0], arguments[1], arguments[2]);
  }
  if (FAILED(result) && !user_space_frameworks::IsNormalExchangeResult(result)) {
    writer->Trigger(device_events::DumpTrigger::FailedCall,
                    std::string(name) + " " + user_space_frameworks::trace::HrText(result));
  }
}

void DeviceEventsRecorder::NoteStreamState(const RecordedValue &stream, const RecordedValue &type,
                                           const RecordedValue &state) {
  // A copy: the caller may change its type afterwards.
  Microsoft::WRL::ComPtr<IMFMediaType> copy;
  if (type.kind == RecordedValue::Kind::MediaType && type.pointer != nullptr &&
      SUCCEEDED(MFCreateMediaType(copy.GetAddressOf()))) {
    auto *original = static_cast<IMFMediaType *>(const_cast<void *>(type.pointer));
    if (FAILED(original->CopyAllItems(copy.Get()))) copy.Reset();
  }
  writer->NoteStreamState(static_cast<uint32_t>(stream.number), static_cast<uint32_t>(state.number), std::move(copy));
}

void DeviceEventsRecorder::RecordDriverEvent(REFGUID eventSet, ULONG eventId) {
  if (!IsRecording()) return;
  RecordScope scope(*this);
  RecordEncoder record = Begin(scope, RecordKind::DriverEvent, S_OK);
  record.GuidValue(ToRecorded(eventSet));
  record.U32(eventId);
  Finish(record, true);
  // The only driver event the transform listens to is the camera's firmware event.
  writer->Trigger(device_events::DumpTrigger::FirmwareEvent, "the camera signalled its firmware event");
}

void DeviceEventsRecorder::RecordMediaEvent(IMFMediaEvent *event) {
  if (!IsRecording() || event == nullptr) return;
  MediaEventType type = MEUnknown;
  RecordScope scope(*this);
  GUID extendedType = GUID_NULL;
  HRESULT status = S_OK;
  event->GetType(&type);
  event->GetExtendedType(&extendedType);
  event->GetStatus(&status);
  RecordEncoder record = Begin(scope, RecordKind::MediaEvent, status);
  record.U32(type);
  record.GuidValue(ToRecorded(extendedType));
  PROPVARIANT value;
  PropVariantInit(&value);
  if (SUCCEEDED(event->GetValue(&value))) {
    EncodePropVariant(record, &value);
  } else {
    record.Null();
  }
  PropVariantClear(&value);
  UINT32 streamId = 0;
  if (SUCCEEDED(event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &streamId))) {
    record.U32(streamId);
  } else {
    record.Null();
  }
  EncodeAttributes(record, event, ValueTag::Attributes);
  Finish(record, type != METransformHaveOutput || !framesFlowing.load(std::memory_order_relaxed));
  if (type == MEDeviceThermalStateChanged) {
    writer->Trigger(device_events::DumpTrigger::FirmwareEvent, "the camera's thermal state changed");
  }
}

void DeviceEventsRecorder::RecordMediaEvent(MediaEventType type, REFGUID extendedType, HRESULT status,
                                            const PROPVARIANT *value) {
  if (!IsRecording()) return;
  RecordScope scope(*this);
  RecordEncoder record = Begin(scope, RecordKind::MediaEvent, status);
  record.U32(type);
  record.GuidValue(ToRecorded(extendedType));
  EncodePropVariant(record, value);
  record.Null();
  record.Null();
  Finish(record, type != METransformHaveOutput || !framesFlowing.load(std::memory_order_relaxed));
  if (type == MEDeviceThermalStateChanged) {
    writer->Trigger(device_events::DumpTrigger::FirmwareEvent, "the camera's thermal state changed");
  }
}

void DeviceEventsRecorder::RecordKsRequest(RecordKind kind, KsControlType type, const std::vector<uint8_t> *identifier,
                                           const std::vector<uint8_t> *dataIn, const void *data, ULONG dataLength,
                                           const ULONG *bytesReturned, HRESULT result) {
  if (!IsRecording()) return;
  RecordScope scope(*this);
  RecordEncoder record = Begin(scope, kind, result);
  record.U32(static_cast<uint32_t>(type));
  if (identifier == nullptr) {
    record.Null();
  } else {
    record.Bytes(identifier->data(), identifier->size());
  }
  if (dataIn == nullptr) {
    record.Null();
  } else {
    record.Bytes(dataIn->data(), dataIn->size());
  }
  record.U32(dataLength);
  if (data == nullptr) {
    record.Null();
  } else {
    // What the driver wrote, as far as it says it wrote and the buffer reaches.
    ULONG length = dataLength;
    if (bytesReturned != nullptr) length = std::min(length, *bytesReturned);
    record.Bytes(data, std::min(length, kMaxDataBytes));
  }
  if (bytesReturned == nullptr) {
    record.Null();
  } else {
    record.U32(*bytesReturned);
  }
  const auto *requested = identifier != nullptr && identifier->size() >= sizeof(KSIDENTIFIER)
                              ? reinterpret_cast<const KSIDENTIFIER *>(identifier->data())
                              : nullptr;
  Finish(record, flightRecorder &&
                     (OnControlThread() || (kind == RecordKind::ApplicationKsRequest && ChangesState(type, requested))));
  if (kind == RecordKind::ApplicationKsRequest && type == KsControlType::Property && requested != nullptr &&
      (requested->Flags & KSPROPERTY_TYPE_SET) != 0 && SUCCEEDED(result) && dataIn != nullptr &&
      flightRecorder) {
    writer->NoteControl(*identifier, *dataIn);
  }
  if (kind != RecordKind::DriverKsRequest || !flightRecorder) return;
  constexpr HRESULT kNotReady = HRESULT_FROM_WIN32(ERROR_NOT_READY);
  if (result == kNotReady || notReadyThreads.load(std::memory_order_relaxed) != 0) CountNotReady(result == kNotReady);
  // Asking whether the driver supports a set or a property is answered, not failed, by "not found".
  ULONG flags = 0;
  if (identifier != nullptr && identifier->size() >= sizeof(KSIDENTIFIER)) {
    flags = reinterpret_cast<const KSIDENTIFIER *>(identifier->data())->Flags;
  }
  const bool supportQuery = (flags & (KSPROPERTY_TYPE_SETSUPPORT | KSPROPERTY_TYPE_BASICSUPPORT)) != 0;
  const bool notSupported =
      result == HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND) || result == HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
  if (FAILED(result) && result != kNotReady && !user_space_frameworks::IsNormalExchangeResult(result) &&
      !(supportQuery && notSupported)) {
    writer->Trigger(device_events::DumpTrigger::DriverRequest,
                    "the driver answered " + user_space_frameworks::trace::HrText(result));
  }
}

void DeviceEventsRecorder::CountNotReady(bool notReady) {
  std::lock_guard<std::mutex> lock(notReadyMutex);
  const DWORD thread = GetCurrentThreadId();
  if (!notReady) {
    if (notReadyInARow.erase(thread) != 0) notReadyThreads.fetch_sub(1, std::memory_order_relaxed);
    return;
  }
  auto inserted = notReadyInARow.emplace(thread, 0);
  if (inserted.second) notReadyThreads.fetch_add(1, std::memory_order_relaxed);
  if (++inserted.first->second < KsControlsProxy::kNotReadyAttempts) return;
  notReadyInARow.erase(inserted.first);
  notReadyThreads.fetch_sub(1, std::memory_order_relaxed);
  writer->Trigger(device_events::DumpTrigger::DriverRequest, "the driver stayed not ready through every retry");
}

void DeviceEventsRecorder::RecordFilter(IMFAttributes *filterAttributes) {
  ComPtr<IMFTransform> filter;
  if (FAILED(filterAttributes->GetUnknown(MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL, IID_PPV_ARGS(&filter)))) return;
  DWORD inputCount = 0, outputCount = 0;
  const HRESULT countResult = filter->GetStreamCount(&inputCount, &outputCount);
  std::vector<DWORD> inputIds(inputCount), outputIds(outputCount);
  HRESULT idsResult = countResult;
  if (SUCCEEDED(countResult) && outputCount != 0) {
    idsResult = filter->GetStreamIDs(inputCount, inputIds.data(), outputCount, outputIds.data());
    if (FAILED(idsResult)) {
      for (DWORD i = 0; i < outputCount; ++i) outputIds[i] = i;
    }
  }
  RecordScope scope(*this, false);
  RecordEncoder record = Begin(scope, RecordKind::Filter, countResult);
  record.U32(inputCount);
  record.U32(outputCount);
  record.U32(static_cast<uint32_t>(idsResult));
  for (DWORD id : outputIds) {
    record.U32(id);
    ComPtr<IMFAttributes> attributes;
    if (SUCCEEDED(filter->GetOutputStreamAttributes(id, &attributes)) && attributes) {
      EncodeAttributes(record, attributes.Get(), ValueTag::Attributes);
    } else {
      record.Null();
    }
    std::vector<ComPtr<IMFMediaType>> types;
    for (DWORD index = 0; index < kMaxTypesPerStream; ++index) {
      ComPtr<IMFMediaType> type;
      if (FAILED(filter->GetOutputAvailableType(id, index, &type)) || !type) break;
      types.push_back(type);
    }
    record.U32(static_cast<uint32_t>(types.size()));
    for (const auto &type : types) EncodeAttributes(record, type.Get(), ValueTag::MediaType);
  }
  ComPtr<IKsTopologyInfo> topology;
  DWORD nodes = 0;
  if (SUCCEEDED(filter.As(&topology)) && SUCCEEDED(topology->get_NumNodes(&nodes))) {
    record.U32(nodes);
    for (DWORD node = 0; node < nodes; ++node) {
      GUID nodeType = GUID_NULL;
      topology->get_NodeType(node, &nodeType);
      record.GuidValue(ToRecorded(nodeType));
    }
  } else {
    record.Null();
  }
  Finish(record, true);
}

}  // namespace mft_core
