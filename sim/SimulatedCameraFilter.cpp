#include "sim/SimulatedCameraFilter.h"

#include <algorithm>
#include <cstring>

using Microsoft::WRL::ComPtr;

namespace sim {

namespace {

constexpr HRESULT kSetNotFound = HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND);
constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);
constexpr ULONG kBasicFlags = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT |
                              KSPROPERTY_TYPE_DEFAULTVALUES;
constexpr size_t kFirmwareHeaderSize = 24;

bool Matches(const GUID &pattern, const GUID &value) { return pattern == GUID_NULL || pattern == value; }

LONG ToLong(const std::vector<BYTE> &bytes) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof(value)));
  // Sign-extend values narrower than 32 bits only when they are meant as signed; controls here are
  // unsigned counts, so plain widening is right.
  return static_cast<LONG>(value);
}

// Writes a description, one members header and `values` into `data`, honouring the KS sizing rules:
// no buffer asks for the size, a description-sized buffer gets the description alone.
HRESULT WriteDescription(ULONG memberFlags, ULONG memberHeaderFlags, const std::vector<LONG> &values, ULONG memberSize,
                         void *data, ULONG dataLength, ULONG *bytesReturned) {
  const ULONG fullSize = static_cast<ULONG>(sizeof(KSPROPERTY_DESCRIPTION) + sizeof(KSPROPERTY_MEMBERSHEADER) +
                                            values.size() * sizeof(LONG));
  KSPROPERTY_DESCRIPTION description = {};
  description.AccessFlags = kBasicFlags;
  description.DescriptionSize = fullSize;
  description.PropTypeSet.Set = KSPROPTYPESETID_General;
  description.PropTypeSet.Id = VT_I4;
  description.PropTypeSet.Flags = 0;
  description.MembersListCount = 1;
  if (data == nullptr || dataLength < sizeof(description)) {
    *bytesReturned = fullSize;
    return kMoreData;
  }
  std::memcpy(data, &description, sizeof(description));
  if (dataLength < fullSize) {
    *bytesReturned = sizeof(description);
    return S_OK;
  }
  KSPROPERTY_MEMBERSHEADER header = {};
  header.MembersFlags = memberFlags;
  header.MembersSize = memberSize;
  header.MembersCount = 1;
  header.Flags = memberHeaderFlags;
  auto *out = static_cast<BYTE *>(data) + sizeof(description);
  std::memcpy(out, &header, sizeof(header));
  out += sizeof(header);
  std::memcpy(out, values.data(), values.size() * sizeof(LONG));
  *bytesReturned = fullSize;
  return S_OK;
}

}  // namespace

ComPtr<SimulatedCameraFilter> SimulatedCameraFilter::Create(const CameraConfig &config) {
  auto filter = user_space_frameworks::MakeComObject<SimulatedCameraFilter>(config);
  if (FAILED(filter->BuildStreams())) return nullptr;
  return filter;
}

SimulatedCameraFilter::SimulatedCameraFilter(const CameraConfig &config) : config(config) {
  for (const auto &unit : config.extensionUnits) {
    for (const auto &control : unit.controls) {
      controls.push_back({unit.set, control.id, unit.nodeId, false, control.value, control.hasRange, control.range,
                          control.fixedSize, 0});
    }
  }
  for (const auto &control : config.standardControls) {
    std::vector<BYTE> value(sizeof(LONG));
    std::memcpy(value.data(), &control.value, sizeof(LONG));
    controls.push_back({control.set, control.id, kFilterScope, true, value, true, control.range, sizeof(LONG),
                        KSPROPERTY_CAMERACONTROL_FLAGS_MANUAL});
  }
  deviceInfo = config.deviceInfo;
  // Called with firmwareMutex held, so it may read deviceInfo.
  responder = [this](const FirmwareCommand &command) {
    if (command.opcode == kFirmwareOpcodeDeviceInfo) {
      std::vector<BYTE> reply(sizeof(command.opcode));
      std::memcpy(reply.data(), &command.opcode, sizeof(command.opcode));
      const std::vector<BYTE> table = DeviceInfoTable(deviceInfo);
      reply.insert(reply.end(), table.begin(), table.end());
      return reply;
    }
    std::vector<BYTE> reply(1024, 0);
    std::memcpy(reply.data(), &command.opcode, sizeof(command.opcode));
    std::copy(command.data.begin(), command.data.begin() + std::min<size_t>(command.data.size(), 1020),
              reply.begin() + 4);
    return reply;
  };
}

SimulatedCameraFilter::~SimulatedCameraFilter() {
  for (auto &subscription : subscriptions) CloseHandle(subscription.event);
}

HRESULT SimulatedCameraFilter::BuildStreams() {
  HRESULT hr = MFCreateAttributes(filterAttributes.GetAddressOf(), 1);
  if (FAILED(hr)) return hr;
  for (const auto &streamConfig : config.streams) {
    StreamState state;
    hr = MFCreateAttributes(state.attributes.GetAddressOf(), 4);
    if (FAILED(hr)) return hr;
    state.attributes->SetGUID(MF_DEVICESTREAM_STREAM_CATEGORY, PINNAME_VIDEO_CAPTURE);
    state.attributes->SetUINT32(MF_DEVICESTREAM_STREAM_ID, streamConfig.id);
    state.attributes->SetUINT32(MF_DEVICESTREAM_FRAMESERVER_SHARED, 1);
    state.attributes->SetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, streamConfig.frameSourceType);
    for (const auto &format : streamConfig.formats) {
      ComPtr<IMFMediaType> type;
      hr = CreateMediaType(format, type.GetAddressOf());
      if (FAILED(hr)) return hr;
      state.types.push_back(type);
    }
    streams[streamConfig.id] = state;
  }
  return S_OK;
}

HRESULT SimulatedCameraFilter::CreateFilterAttributes(IMFAttributes **result) {
  if (result == nullptr) return E_POINTER;
  ComPtr<IMFAttributes> attributes;
  HRESULT hr = MFCreateAttributes(attributes.GetAddressOf(), 1);
  if (SUCCEEDED(hr)) hr = attributes->SetUnknown(MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL, static_cast<IMFTransform *>(this));
  if (SUCCEEDED(hr)) *result = attributes.Detach();
  return hr;
}

HRESULT SimulatedCameraFilter::CreateMediaType(const VideoFormat &format, IMFMediaType **mediaType) {
  if (mediaType == nullptr) return E_POINTER;
  ComPtr<IMFMediaType> type;
  HRESULT hr = MFCreateMediaType(type.GetAddressOf());
  if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_SUBTYPE, format.subtype);
  if (SUCCEEDED(hr)) hr = MFSetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, format.width, format.height);
  if (SUCCEEDED(hr)) hr = MFSetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, format.fps, 1);
  if (SUCCEEDED(hr)) hr = MFSetAttributeRatio(type.Get(), MF_MT_PIXEL_ASPECT_RATIO, 1, 1);
  if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_INTERLACE_MODE, MFVideoInterlace_Progressive);
  if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_ALL_SAMPLES_INDEPENDENT, 1);
  if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_FIXED_SIZE_SAMPLES, 1);
  if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_DEFAULT_STRIDE, format.width * format.bytesPerPixel);
  if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_SAMPLE_SIZE, format.width * format.height * format.bytesPerPixel);
  if (SUCCEEDED(hr)) *mediaType = type.Detach();
  return hr;
}

const StreamConfig *SimulatedCameraFilter::FindStream(DWORD streamId) const {
  for (const auto &stream : config.streams) {
    if (stream.id == streamId) return &stream;
  }
  return nullptr;
}

SimulatedCameraFilter::StreamState *SimulatedCameraFilter::Stream(DWORD streamId) {
  auto found = streams.find(streamId);
  return found == streams.end() ? nullptr : &found->second;
}

// ---- configuration and inspection ------------------------------------------------------------------

SimulatedCameraFilter::Control *SimulatedCameraFilter::FindControl(const GUID &set, ULONG id) {
  for (auto &control : controls) {
    if (control.set == set && control.id == id) return &control;
  }
  return nullptr;
}

const SimulatedCameraFilter::Control *SimulatedCameraFilter::FindControl(const GUID &set, ULONG id) const {
  return const_cast<SimulatedCameraFilter *>(this)->FindControl(set, id);
}

std::vector<BYTE> SimulatedCameraFilter::GetControlValue(const GUID &set, ULONG id) const {
  std::lock_guard<std::mutex> lock(mutex);
  const Control *control = FindControl(set, id);
  return control ? control->value : std::vector<BYTE>();
}

void SimulatedCameraFilter::SetControlValue(const GUID &set, ULONG id, std::vector<BYTE> value) {
  std::lock_guard<std::mutex> lock(mutex);
  if (Control *control = FindControl(set, id)) control->value = std::move(value);
}

LONG SimulatedCameraFilter::GetStandardControlValue(const GUID &set, ULONG id) const {
  std::lock_guard<std::mutex> lock(mutex);
  const Control *control = FindControl(set, id);
  return control ? ToLong(control->value) : 0;
}

LONG SimulatedCameraFilter::SensorExposureUs() const {
  std::lock_guard<std::mutex> lock(mutex);
  const Control *control = FindControl(config.sensor.exposureSet, config.sensor.exposureId);
  return control && !control->value.empty() ? ToLong(control->value) : config.sensor.defaultExposureUs;
}

LONG SimulatedCameraFilter::ReportedExposureUs() {
  const SensorControls &sensor = config.sensor;
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex);
  const Control *exposure = FindControl(sensor.exposureSet, sensor.exposureId);
  LONG target = exposure && !exposure->value.empty() ? ToLong(exposure->value) : sensor.defaultExposureUs;
  if (sensor.exposureModeId != 0) {
    const Control *mode = FindControl(sensor.exposureSet, sensor.exposureModeId);
    if (mode && !mode->value.empty() && mode->value[0] == 1) target = sensor.autoExposureUs;
  }
  auto current = [&]() -> LONG {
    if (sensor.exposureSettleMs == 0) return rampTo;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - rampStart).count();
    if (elapsed >= static_cast<long long>(sensor.exposureSettleMs)) return rampTo;
    return static_cast<LONG>(rampFrom + (static_cast<long long>(rampTo) - rampFrom) * elapsed /
                                            static_cast<long long>(sensor.exposureSettleMs));
  };
  if (!rampStarted) {
    // The sensor comes up already running at its first setting.
    rampStarted = true;
    rampFrom = rampTo = target;
    rampStart = now;
  } else if (target != rampTo) {
    rampFrom = current();
    rampTo = target;
    rampStart = now;
  }
  return current();
}

LONG SimulatedCameraFilter::SensorGain() const {
  std::lock_guard<std::mutex> lock(mutex);
  const Control *control = FindControl(config.sensor.gainSet, config.sensor.gainId);
  return control && !control->value.empty() ? ToLong(control->value) : config.sensor.defaultGain;
}

void SimulatedCameraFilter::SetFirmwareResponder(FirmwareResponder newResponder) {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  responder = std::move(newResponder);
}

void SimulatedCameraFilter::SetFirmwareFault(FirmwareFault fault) {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  firmwareFault = fault;
}

void SimulatedCameraFilter::SetDeviceInfo(const DeviceInfoConfig &newDeviceInfo) {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  deviceInfo = newDeviceInfo;
}

void SimulatedCameraFilter::SetFirmwareLatencyMs(DWORD milliseconds) {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  firmwareLatencyMs = milliseconds;
}

std::vector<FirmwareCommand> SimulatedCameraFilter::FirmwareCommands() const {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  return firmwareCommands;
}

std::string SimulatedCameraFilter::FirmwareAccessOrder() const {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  return firmwareAccessOrder;
}

void SimulatedCameraFilter::InjectFault(const KsFault &fault) {
  std::lock_guard<std::mutex> lock(mutex);
  faults.push_back(fault);
}

void SimulatedCameraFilter::InjectNotReady(int count, const GUID &set) {
  KsFault fault;
  fault.set = set;
  fault.result = kNotReady;
  fault.count = count;
  InjectFault(fault);
}

void SimulatedCameraFilter::ClearFaults() {
  std::lock_guard<std::mutex> lock(mutex);
  faults.clear();
}

size_t SimulatedCameraFilter::SignalEvent(const GUID &set, ULONG id) {
  std::lock_guard<std::mutex> lock(mutex);
  size_t signalled = 0;
  for (auto it = subscriptions.begin(); it != subscriptions.end();) {
    if (it->set == set && it->id == id) {
      SetEvent(it->event);
      ++signalled;
      if (it->oneShot) {
        CloseHandle(it->event);
        it = subscriptions.erase(it);
        continue;
      }
    }
    ++it;
  }
  return signalled;
}

size_t SimulatedCameraFilter::ActiveEventSubscriptions(const GUID &set, ULONG id) const {
  std::lock_guard<std::mutex> lock(mutex);
  return static_cast<size_t>(std::count_if(subscriptions.begin(), subscriptions.end(), [&](const Subscription &s) {
    return s.set == set && s.id == id;
  }));
}

std::vector<KsRequestRecord> SimulatedCameraFilter::Requests() const {
  std::lock_guard<std::mutex> lock(mutex);
  return requests;
}

size_t SimulatedCameraFilter::CountRequests(KsRequestKind kind, const GUID &set, ULONG id, ULONG flagsMask) const {
  std::lock_guard<std::mutex> lock(mutex);
  return static_cast<size_t>(std::count_if(requests.begin(), requests.end(), [&](const KsRequestRecord &r) {
    return r.kind == kind && Matches(set, r.set) && (id == kAnyId || id == r.id) &&
           (flagsMask == 0 || (r.flags & flagsMask) == flagsMask);
  }));
}

void SimulatedCameraFilter::ClearRequests() {
  std::lock_guard<std::mutex> lock(mutex);
  requests.clear();
}

ComPtr<IMFMediaType> SimulatedCameraFilter::CurrentType(DWORD streamId) const {
  std::lock_guard<std::mutex> lock(mutex);
  auto found = streams.find(streamId);
  return found == streams.end() ? nullptr : found->second.current;
}

// ---- IUnknown ---------------------------------------------------------------------------------------

STDMETHODIMP SimulatedCameraFilter::QueryInterface(REFIID riid, void **ppv) {
  if (ppv == nullptr) return E_POINTER;
  if ((riid == __uuidof(IKsControl) && !config.exposesKsControl) ||
      (riid == __uuidof(IKsTopologyInfo) && !config.exposesTopologyInfo)) {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  return ComObject::QueryInterface(riid, ppv);
}

// ---- IMFTransform -----------------------------------------------------------------------------------

STDMETHODIMP SimulatedCameraFilter::GetStreamLimits(DWORD *, DWORD *, DWORD *, DWORD *) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) {
  if (pcInputStreams == nullptr || pcOutputStreams == nullptr) return E_POINTER;
  *pcInputStreams = 0;
  *pcOutputStreams = static_cast<DWORD>(config.streams.size());
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::GetStreamIDs(DWORD, DWORD *, DWORD dwOutputIDArraySize, DWORD *pdwOutputIDs) {
  if (!config.reportsStreamIds) return E_NOTIMPL;
  if (pdwOutputIDs == nullptr) return E_POINTER;
  if (dwOutputIDArraySize < config.streams.size()) return MF_E_BUFFERTOOSMALL;
  for (size_t i = 0; i < config.streams.size(); ++i) pdwOutputIDs[i] = config.streams[i].id;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::GetInputStreamInfo(DWORD, MFT_INPUT_STREAM_INFO *) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::GetOutputStreamInfo(DWORD, MFT_OUTPUT_STREAM_INFO *) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::GetAttributes(IMFAttributes **pAttributes) {
  if (pAttributes == nullptr) return E_POINTER;
  return filterAttributes.CopyTo(pAttributes);
}

STDMETHODIMP SimulatedCameraFilter::GetInputStreamAttributes(DWORD, IMFAttributes **) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **pAttributes) {
  if (pAttributes == nullptr) return E_POINTER;
  StreamState *stream = Stream(dwOutputStreamID);
  if (stream == nullptr) return MF_E_INVALIDSTREAMNUMBER;
  return stream->attributes.CopyTo(pAttributes);
}

STDMETHODIMP SimulatedCameraFilter::DeleteInputStream(DWORD) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::AddInputStreams(DWORD, DWORD *) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::GetInputAvailableType(DWORD, DWORD, IMFMediaType **) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex,
                                                           IMFMediaType **ppType) {
  if (ppType == nullptr) return E_POINTER;
  StreamState *stream = Stream(dwOutputStreamID);
  if (stream == nullptr) return MF_E_INVALIDSTREAMNUMBER;
  if (dwTypeIndex >= stream->types.size()) return MF_E_NO_MORE_TYPES;
  // A copy: callers may change what they get without changing what the driver offers.
  ComPtr<IMFMediaType> copy;
  HRESULT hr = MFCreateMediaType(copy.GetAddressOf());
  if (SUCCEEDED(hr)) hr = stream->types[dwTypeIndex]->CopyAllItems(copy.Get());
  if (FAILED(hr)) return hr;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (trackHandedOut) handedOutTypes.push_back(copy);
  }
  *ppType = copy.Detach();
  return S_OK;
}

void SimulatedCameraFilter::TrackHandedOutObjects() {
  std::lock_guard<std::mutex> lock(mutex);
  trackHandedOut = true;
}

ULONG SimulatedCameraFilter::ReferencesHeldOutside() const {
  // AddRef then Release answers the count without changing it; the filter's own reference is one.
  auto outside = [](IUnknown *object) -> ULONG {
    if (object == nullptr) return 0;
    object->AddRef();
    return object->Release() - 1;
  };
  std::lock_guard<std::mutex> lock(mutex);
  ULONG held = outside(filterAttributes.Get());
  for (const auto &entry : streams) {
    held += outside(entry.second.attributes.Get()) + outside(entry.second.current.Get());
  }
  for (const auto &type : handedOutTypes) held += outside(type.Get());
  return held;
}

STDMETHODIMP SimulatedCameraFilter::SetInputType(DWORD, IMFMediaType *, DWORD) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::SetOutputType(DWORD dwOutputStreamID, IMFMediaType *pType, DWORD dwFlags) {
  StreamState *stream = Stream(dwOutputStreamID);
  if (stream == nullptr) return MF_E_INVALIDSTREAMNUMBER;
  if (pType != nullptr) {
    const bool listed = std::any_of(stream->types.begin(), stream->types.end(), [&](const ComPtr<IMFMediaType> &t) {
      DWORD flags = 0;
      return t->IsEqual(pType, &flags) == S_OK;
    });
    if (!listed) return MF_E_INVALIDMEDIATYPE;
  }
  if (dwFlags & MFT_SET_TYPE_TEST_ONLY) return S_OK;
  std::lock_guard<std::mutex> lock(mutex);
  stream->current = pType;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::GetInputCurrentType(DWORD, IMFMediaType **) { return E_NOTIMPL; }

STDMETHODIMP SimulatedCameraFilter::GetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **ppType) {
  if (ppType == nullptr) return E_POINTER;
  std::lock_guard<std::mutex> lock(mutex);
  StreamState *stream = Stream(dwOutputStreamID);
  if (stream == nullptr) return MF_E_INVALIDSTREAMNUMBER;
  if (!stream->current) return MF_E_TRANSFORM_TYPE_NOT_SET;
  return stream->current.CopyTo(ppType);
}

STDMETHODIMP SimulatedCameraFilter::GetInputStatus(DWORD, DWORD *) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::GetOutputStatus(DWORD *) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::SetOutputBounds(LONGLONG, LONGLONG) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::ProcessEvent(DWORD, IMFMediaEvent *) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::ProcessMessage(MFT_MESSAGE_TYPE, ULONG_PTR) { return S_OK; }
STDMETHODIMP SimulatedCameraFilter::ProcessInput(DWORD, IMFSample *, DWORD) { return E_NOTIMPL; }
STDMETHODIMP SimulatedCameraFilter::ProcessOutput(DWORD, DWORD, MFT_OUTPUT_DATA_BUFFER *, DWORD *) {
  return E_NOTIMPL;
}

// ---- IKsControl -------------------------------------------------------------------------------------

HRESULT SimulatedCameraFilter::Record(KsRequestKind kind, const KSIDENTIFIER &identifier, ULONG node,
                                      ULONG dataLength, HRESULT result) {
  requests.push_back({kind, identifier.Set, identifier.Id, identifier.Flags, node, dataLength, result});
  return result;
}

bool SimulatedCameraFilter::TakeFault(KsRequestKind kind, const KSIDENTIFIER &identifier, HRESULT &result) {
  for (auto it = faults.begin(); it != faults.end(); ++it) {
    if (it->kind != kind || !Matches(it->set, identifier.Set) || (it->id != kAnyId && it->id != identifier.Id) ||
        (identifier.Flags & it->flagsMask) != it->flagsMask) {
      continue;
    }
    result = it->result;
    if (it->count > 0 && --it->count == 0) faults.erase(it);
    return true;
  }
  return false;
}

namespace {

// Before a driver sees a request, the kernel checks that every byte the caller claims for the identifier
// and the data is mapped and accessible; a length that runs into unmapped or inaccessible memory fails
// the request with ERROR_NOACCESS and the driver never touches the buffer.
bool Addressable(const void *buffer, ULONG length) {
  if (buffer == nullptr || length == 0) return true;
  uintptr_t at = reinterpret_cast<uintptr_t>(buffer);
  const uintptr_t end = at + length;
  if (end < at) return false;
  while (at < end) {
    MEMORY_BASIC_INFORMATION region = {};
    if (VirtualQuery(reinterpret_cast<const void *>(at), &region, sizeof(region)) == 0) return false;
    if (region.State != MEM_COMMIT || region.Protect == 0 || (region.Protect & (PAGE_NOACCESS | PAGE_GUARD)) != 0) {
      return false;
    }
    at = reinterpret_cast<uintptr_t>(region.BaseAddress) + region.RegionSize;
  }
  return true;
}

const HRESULT kNoAccess = HRESULT_FROM_WIN32(ERROR_NOACCESS);

}  // namespace

bool SimulatedCameraFilter::NodeExists(ULONG node) const {
  return node == kFilterScope || node < config.nodeTypes.size();
}

bool SimulatedCameraFilter::SetKnownAtNode(const GUID &set, ULONG node) const {
  return std::any_of(config.extensionUnits.begin(), config.extensionUnits.end(),
                     [&](const ExtensionUnitConfig &unit) { return unit.set == set && unit.nodeId == node; });
}

STDMETHODIMP SimulatedCameraFilter::KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                               ULONG ulDataLength, ULONG *pBytesReturned) {
  if (pProperty == nullptr || ulPropertyLength < sizeof(KSPROPERTY)) return E_INVALIDARG;
  if (!Addressable(pProperty, ulPropertyLength) || !Addressable(pPropertyData, ulDataLength)) return kNoAccess;
  ULONG localBytes = 0;
  ULONG *bytesReturned = pBytesReturned ? pBytesReturned : &localBytes;
  const KSIDENTIFIER identifier = *pProperty;
  ULONG node = kFilterScope;
  if (identifier.Flags & KSPROPERTY_TYPE_TOPOLOGY) {
    if (ulPropertyLength < sizeof(KSP_NODE)) return E_INVALIDARG;
    node = reinterpret_cast<const KSP_NODE *>(pProperty)->NodeId;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!NodeExists(node)) return Record(KsRequestKind::Property, identifier, node, ulDataLength, kNotFound);
    HRESULT faultResult;
    if (TakeFault(KsRequestKind::Property, identifier, faultResult)) {
      return Record(KsRequestKind::Property, identifier, node, ulDataLength, faultResult);
    }
  }
  const ULONG baseFlags = identifier.Flags & ~KSPROPERTY_TYPE_TOPOLOGY;
  const bool firmware = config.firmwareCommandSet != GUID_NULL && identifier.Set == config.firmwareCommandSet &&
                        identifier.Id == config.firmwareCommandId && SetKnownAtNode(identifier.Set, node) &&
                        (baseFlags == KSPROPERTY_TYPE_GET || baseFlags == KSPROPERTY_TYPE_SET);
  HRESULT hr;
  if (firmware) {
    hr = baseFlags == KSPROPERTY_TYPE_SET ? FirmwareWrite(pPropertyData, ulDataLength)
                                          : FirmwareRead(pPropertyData, ulDataLength, bytesReturned);
    std::lock_guard<std::mutex> lock(mutex);
    return Record(KsRequestKind::Property, identifier, node, ulDataLength, hr);
  }
  std::lock_guard<std::mutex> lock(mutex);
  hr = PropertyUnlocked(identifier, node, pPropertyData, ulDataLength, bytesReturned);
  return Record(KsRequestKind::Property, identifier, node, ulDataLength, hr);
}

HRESULT SimulatedCameraFilter::PropertyUnlocked(const KSIDENTIFIER &identifier, ULONG node, void *data,
                                                ULONG dataLength, ULONG *bytesReturned) {
  const ULONG flags = identifier.Flags & ~KSPROPERTY_TYPE_TOPOLOGY;
  const bool extensionUnitSet =
      std::any_of(config.extensionUnits.begin(), config.extensionUnits.end(),
                  [&](const ExtensionUnitConfig &unit) { return unit.set == identifier.Set; });
  if (extensionUnitSet) {
    // Extension-unit controls exist only on their unit's node.
    if (node == kFilterScope || !SetKnownAtNode(identifier.Set, node)) return kSetNotFound;
  } else {
    const bool standardSet = std::any_of(controls.begin(), controls.end(), [&](const Control &control) {
      return control.standard && control.set == identifier.Set;
    });
    if (!standardSet || node != kFilterScope) return kSetNotFound;
  }
  Control *control = FindControl(identifier.Set, identifier.Id);
  const bool firmwareProperty = identifier.Set == config.firmwareCommandSet && identifier.Id == config.firmwareCommandId;
  // The unit answers the set-support query only for a property it has.
  if (flags & KSPROPERTY_TYPE_SETSUPPORT) return control != nullptr || firmwareProperty ? S_OK : kNotFound;
  if (control == nullptr) return kNotFound;

  if (flags & KSPROPERTY_TYPE_BASICSUPPORT) {
    if (!control->hasRange) {
      return WriteDescription(KSPROPERTY_MEMBER_VALUES, 0, {}, 0, data, dataLength, bytesReturned);
    }
    const ControlRange &range = control->range;
    if (control->standard) {
      // KSPROPERTY_STEPPING_LONG: stepping delta, reserved, minimum, maximum.
      return WriteDescription(KSPROPERTY_MEMBER_STEPPEDRANGES, 0, {range.step, 0, range.minimum, range.maximum},
                              sizeof(KSPROPERTY_STEPPING_LONG), data, dataLength, bytesReturned);
    }
    // Extension-unit ranges: step, minimum, maximum.
    return WriteDescription(KSPROPERTY_MEMBER_RANGES, 0, {range.step, range.minimum, range.maximum},
                            3 * sizeof(LONG), data, dataLength, bytesReturned);
  }
  if (flags & KSPROPERTY_TYPE_DEFAULTVALUES) {
    if (!control->hasRange) return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    return WriteDescription(KSPROPERTY_MEMBER_VALUES, KSPROPERTY_MEMBER_FLAG_DEFAULT, {control->range.defaultValue},
                            sizeof(LONG), data, dataLength, bytesReturned);
  }
  if (control->standard) {
    if (data == nullptr || dataLength < sizeof(KSPROPERTY_VIDEOPROCAMP_S)) {
      *bytesReturned = sizeof(KSPROPERTY_VIDEOPROCAMP_S);
      return kMoreData;
    }
    auto *payload = static_cast<KSPROPERTY_VIDEOPROCAMP_S *>(data);
    if (flags & KSPROPERTY_TYPE_GET) {
      payload->Property = identifier;
      payload->Value = ToLong(control->value);
      payload->Flags = control->standardFlags;
      payload->Capabilities = KSPROPERTY_CAMERACONTROL_FLAGS_MANUAL | KSPROPERTY_CAMERACONTROL_FLAGS_AUTO;
      *bytesReturned = sizeof(KSPROPERTY_VIDEOPROCAMP_S);
      return S_OK;
    }
    if (flags & KSPROPERTY_TYPE_SET) {
      if (payload->Value < control->range.minimum || payload->Value > control->range.maximum) return E_INVALIDARG;
      std::memcpy(control->value.data(), &payload->Value, sizeof(LONG));
      control->standardFlags = payload->Flags;
      *bytesReturned = 0;
      return S_OK;
    }
    return E_INVALIDARG;
  }
  if (flags & KSPROPERTY_TYPE_GET) {
    const ULONG size = static_cast<ULONG>(control->value.size());
    if (dataLength < size || (size != 0 && data == nullptr)) {
      *bytesReturned = size;
      return kMoreData;
    }
    if (size != 0) std::memcpy(data, control->value.data(), size);
    *bytesReturned = size;
    return S_OK;
  }
  if (flags & KSPROPERTY_TYPE_SET) {
    if (data == nullptr && dataLength != 0) return E_INVALIDARG;
    if (control->fixedSize != 0 && dataLength != control->fixedSize) return E_INVALIDARG;
    std::vector<BYTE> value(static_cast<const BYTE *>(data), static_cast<const BYTE *>(data) + dataLength);
    if (control->hasRange) {
      const LONG requested = ToLong(value);
      if (requested < control->range.minimum || requested > control->range.maximum) return E_INVALIDARG;
    }
    control->value = std::move(value);
    *bytesReturned = 0;
    return S_OK;
  }
  return E_INVALIDARG;
}

HRESULT SimulatedCameraFilter::FirmwareWrite(const void *data, ULONG dataLength) {
  DWORD latency;
  {
    std::lock_guard<std::mutex> lock(firmwareMutex);
    firmwareAccessOrder += 'S';
    latency = firmwareLatencyMs;
  }
  if (data == nullptr || dataLength < kFirmwareHeaderSize) return E_INVALIDARG;
  const auto *bytes = static_cast<const BYTE *>(data);
  FirmwareCommand command = {};
  std::memcpy(&command.length, bytes, 2);
  std::memcpy(&command.magic, bytes + 2, 2);
  std::memcpy(&command.opcode, bytes + 4, 4);
  std::memcpy(command.params, bytes + 8, 16);
  const size_t announced = command.length >= 20 ? command.length - 20u : 0u;
  const size_t available = dataLength - kFirmwareHeaderSize;
  command.data.assign(bytes + kFirmwareHeaderSize, bytes + kFirmwareHeaderSize + std::min(announced, available));
  command.bytesWritten = dataLength;
  // The camera takes a while to answer; an unserialised second command can overtake the first here.
  if (latency != 0) Sleep(latency);
  std::lock_guard<std::mutex> lock(firmwareMutex);
  firmwareCommands.push_back(command);
  firmwareReply = responder ? responder(command) : std::vector<BYTE>();
  if (firmwareFault == FirmwareFault::WrongOpcode) {
    if (firmwareReply.size() < sizeof(command.opcode)) firmwareReply.resize(sizeof(command.opcode));
    const uint32_t other = command.opcode ^ 0x80u;
    std::memcpy(firmwareReply.data(), &other, sizeof(other));
  } else if (firmwareFault == FirmwareFault::ShortReply && firmwareReply.size() > 3) {
    firmwareReply.resize(3);
  }
  return S_OK;
}

HRESULT SimulatedCameraFilter::FirmwareRead(void *data, ULONG dataLength, ULONG *bytesReturned) {
  std::lock_guard<std::mutex> lock(firmwareMutex);
  firmwareAccessOrder += 'G';
  if (firmwareFault == FirmwareFault::FailReply) return kFirmwareFailure;
  const ULONG size = static_cast<ULONG>(firmwareReply.size());
  if (dataLength < size || (size != 0 && data == nullptr)) {
    *bytesReturned = size;
    return kMoreData;
  }
  if (size != 0) std::memcpy(data, firmwareReply.data(), size);
  *bytesReturned = size;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData,
                                             ULONG ulDataLength, ULONG *) {
  if (pMethod == nullptr || ulMethodLength < sizeof(KSMETHOD)) return E_INVALIDARG;
  if (!Addressable(pMethod, ulMethodLength) || !Addressable(pMethodData, ulDataLength)) return kNoAccess;
  const KSIDENTIFIER identifier = *pMethod;
  ULONG node = kFilterScope;
  if (identifier.Flags & KSMETHOD_TYPE_TOPOLOGY) {
    if (ulMethodLength < sizeof(KSM_NODE)) return E_INVALIDARG;
    node = reinterpret_cast<const KSM_NODE *>(pMethod)->NodeId;
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (!NodeExists(node)) return Record(KsRequestKind::Method, identifier, node, ulDataLength, kNotFound);
  HRESULT hr = kSetNotFound;  // the camera implements no methods, at the filter or at a node
  TakeFault(KsRequestKind::Method, identifier, hr);
  return Record(KsRequestKind::Method, identifier, node, ulDataLength, hr);
}

STDMETHODIMP SimulatedCameraFilter::KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData,
                                            ULONG ulDataLength, ULONG *pBytesReturned) {
  if (pBytesReturned) *pBytesReturned = 0;
  if (!Addressable(pEvent, ulEventLength) || !Addressable(pEventData, ulDataLength)) return kNoAccess;
  std::lock_guard<std::mutex> lock(mutex);
  if (pEvent == nullptr) {
    // Disable: the event data that enabled the subscription names it.
    KSIDENTIFIER identifier = {};
    if (pEventData == nullptr || ulDataLength < sizeof(KSEVENTDATA)) {
      return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, E_INVALIDARG);
    }
    auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                              [&](const Subscription &s) { return s.eventData == pEventData; });
    if (found == subscriptions.end()) {
      return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, kNotFound);
    }
    identifier.Set = found->set;
    identifier.Id = found->id;
    CloseHandle(found->event);
    subscriptions.erase(found);
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, S_OK);
  }
  if (ulEventLength < sizeof(KSEVENT)) return E_INVALIDARG;
  const KSIDENTIFIER identifier = *pEvent;
  ULONG node = kFilterScope;
  if (identifier.Flags & KSEVENT_TYPE_TOPOLOGY) {
    if (ulEventLength < sizeof(KSE_NODE)) return E_INVALIDARG;
    node = reinterpret_cast<const KSE_NODE *>(pEvent)->NodeId;
  }
  if (!NodeExists(node)) return Record(KsRequestKind::Event, identifier, node, ulDataLength, kNotFound);
  HRESULT hr;
  if (TakeFault(KsRequestKind::Event, identifier, hr)) {
    return Record(KsRequestKind::Event, identifier, node, ulDataLength, hr);
  }
  // The firmware-condition event is the filter's; no node raises events.
  if (node != kFilterScope) return Record(KsRequestKind::Event, identifier, node, ulDataLength, kSetNotFound);
  if (identifier.Set != kAutoUpdateEventSet || identifier.Id != kAutoUpdateEventId) {
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, kSetNotFound);
  }
  const ULONG flags = identifier.Flags & ~KSEVENT_TYPE_TOPOLOGY;
  if (flags & KSEVENT_TYPE_BASICSUPPORT) {
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, S_OK);
  }
  if (!(flags & (KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT))) {
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, E_INVALIDARG);
  }
  const auto *eventData = static_cast<const KSEVENTDATA *>(pEventData);
  if (eventData == nullptr || ulDataLength < sizeof(KSEVENTDATA) ||
      eventData->NotificationType != KSEVENTF_EVENT_HANDLE) {
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, E_INVALIDARG);
  }
  HANDLE duplicate = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), eventData->EventHandle.Event, GetCurrentProcess(), &duplicate, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, HRESULT_FROM_WIN32(GetLastError()));
  }
  subscriptions.push_back({identifier.Set, identifier.Id, pEventData, duplicate, (flags & KSEVENT_TYPE_ONESHOT) != 0});
  return Record(KsRequestKind::Event, identifier, kFilterScope, ulDataLength, S_OK);
}

// ---- IKsTopologyInfo --------------------------------------------------------------------------------

STDMETHODIMP SimulatedCameraFilter::get_NumCategories(DWORD *pdwNumCategories) {
  if (pdwNumCategories == nullptr) return E_POINTER;
  *pdwNumCategories = 1;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::get_Category(DWORD dwIndex, GUID *pCategory) {
  if (pCategory == nullptr) return E_POINTER;
  if (dwIndex != 0) return MF_E_INVALIDINDEX;
  *pCategory = KSCATEGORY_CAPTURE;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::get_NumConnections(DWORD *pdwNumConnections) {
  if (pdwNumConnections == nullptr) return E_POINTER;
  *pdwNumConnections = 0;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::get_ConnectionInfo(DWORD, KSTOPOLOGY_CONNECTION *) { return MF_E_INVALIDINDEX; }

STDMETHODIMP SimulatedCameraFilter::get_NodeName(DWORD dwNodeId, WCHAR *pwchNodeName, DWORD dwBufSize,
                                                 DWORD *pdwNameLen) {
  if (pdwNameLen == nullptr) return E_POINTER;
  if (dwNodeId >= config.nodeTypes.size()) return MF_E_INVALIDINDEX;
  std::string name = "Node " + std::to_string(dwNodeId);
  for (const auto &unit : config.extensionUnits) {
    if (unit.nodeId == dwNodeId) name = unit.name;
  }
  const DWORD bytes = static_cast<DWORD>((name.size() + 1) * sizeof(WCHAR));
  *pdwNameLen = bytes;
  if (pwchNodeName == nullptr || dwBufSize < bytes) return kMoreData;
  for (size_t i = 0; i < name.size(); ++i) pwchNodeName[i] = static_cast<WCHAR>(name[i]);
  pwchNodeName[name.size()] = 0;
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::get_NumNodes(DWORD *pdwNumNodes) {
  if (pdwNumNodes == nullptr) return E_POINTER;
  *pdwNumNodes = static_cast<DWORD>(config.nodeTypes.size());
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::get_NodeType(DWORD dwNodeId, GUID *pNodeType) {
  if (pNodeType == nullptr) return E_POINTER;
  if (dwNodeId >= config.nodeTypes.size()) return MF_E_INVALIDINDEX;
  *pNodeType = config.nodeTypes[dwNodeId];
  return S_OK;
}

STDMETHODIMP SimulatedCameraFilter::CreateNodeInstance(DWORD, REFIID, void **) { return E_NOTIMPL; }

}  // namespace sim
