#include "robustness/RobustnessSupport.h"

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>

#include "common/BuiltModule.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "product/controls/WQ400PrivateProperties.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "tools/DllTransformFactory.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace robustness {

std::vector<std::string> CameraNames() { return {"depth", "color", "fisheye"}; }

sim::CameraConfig Camera(const std::string &name) {
  sim::CameraConfig camera;
  if (!sim::CameraByName(name, camera)) std::abort();
  return camera;
}

HRESULT CreateThroughDll(const sim::CameraConfig &camera, ComPtr<IMFDeviceTransform> &device) {
  return test_module::KeptModule().CreateTransform(camera, device.ReleaseAndGetAddressOf());
}

TransformOnCamera::TransformOnCamera(const std::string &cameraName) : camera(Camera(cameraName)) {
  filter = sim::SimulatedCameraFilter::Create(camera);
  if (filter && SUCCEEDED(CreateThroughDll(camera, device)) && device) {
    host = std::make_unique<sim::FrameServerHost>(device, filter);
  }
}

ExtendedExposureData ManualExposure(ULONGLONG exposure) {
  ExtendedExposureData data = {};
  data.header.Version = 1;
  data.header.PinId = 0xFFFFFFFF;
  data.header.Size = sizeof(data);
  data.header.Flags = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL;
  data.setting.VideoProc.Value.ull = exposure;
  return data;
}

uint64_t Scaled(uint64_t count) {
  const char *scale = std::getenv("WQ400_ROBUSTNESS_SCALE");
  const uint64_t factor = scale != nullptr ? std::strtoull(scale, nullptr, 10) : 1;
  return count * (factor == 0 ? 1 : factor);
}

GuardedRegion::GuardedRegion(size_t capacity) {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  const size_t page = info.dwPageSize;
  const size_t usablePages = (capacity + page - 1) / page;
  base = static_cast<BYTE *>(VirtualAlloc(nullptr, (usablePages + 2) * page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  if (base == nullptr) std::abort();
  DWORD previous = 0;
  usableBegin = base + page;
  usableEnd = usableBegin + usablePages * page;
  if (!VirtualProtect(base, page, PAGE_NOACCESS, &previous) ||
      !VirtualProtect(usableEnd, page, PAGE_NOACCESS, &previous)) {
    std::abort();
  }
}

GuardedRegion::~GuardedRegion() { VirtualFree(base, 0, MEM_RELEASE); }

namespace {

template <typename T>
std::vector<BYTE> Bytes(const T &value) {
  const auto *begin = reinterpret_cast<const BYTE *>(&value);
  return std::vector<BYTE>(begin, begin + sizeof(T));
}

KsRequestShape Shape(KsKind kind, const GUID &set, ULONG id, ULONG flags, std::vector<BYTE> data) {
  KsRequestShape shape;
  shape.kind = kind;
  shape.set = set;
  shape.id = id;
  shape.flags = flags;
  shape.data = std::move(data);
  return shape;
}

// The requests the camera's transform answers, as an application sends them.
std::vector<KsRequestShape> AnsweredRequests(const sim::CameraConfig &camera) {
  std::vector<KsRequestShape> shapes;
  for (const auto &unit : camera.extensionUnits) {
    for (const auto &control : unit.controls) {
      const size_t size = control.fixedSize != 0 ? control.fixedSize : std::max<size_t>(control.value.size(), 64);
      for (ULONG flags : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT}) {
        KsRequestShape shape = Shape(KsKind::Property, unit.set, control.id, flags | KSPROPERTY_TYPE_TOPOLOGY,
                                     control.value.empty() ? std::vector<BYTE>(size) : control.value);
        shape.node = unit.nodeId;
        shape.identifierLength = sizeof(KSP_NODE);
        shapes.push_back(shape);
      }
    }
  }
  for (const auto &control : camera.standardControls) {
    KSPROPERTY_VIDEOPROCAMP_S request = {};
    request.Property = {control.set, control.id, KSPROPERTY_TYPE_SET};
    request.Value = control.range.defaultValue;
    request.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
    for (ULONG flags : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_DEFAULTVALUES}) {
      shapes.push_back(Shape(KsKind::Property, control.set, control.id, flags, Bytes(request)));
    }
  }
  const ExtendedExposureData exposure = ManualExposure(50000);
  for (ULONG flags : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET}) {
    shapes.push_back(Shape(KsKind::Property, KSPROPERTYSETID_ExtendedCameraControl,
                           KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE, flags, Bytes(exposure)));
  }
  shapes.push_back(Shape(KsKind::Property, mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_API_VERSION_ID,
                         KSPROPERTY_TYPE_GET, std::vector<BYTE>(sizeof(mft_core::KSPROPERTY_WQ400_API_VERSION))));
  for (ULONG flags : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET}) {
    KsRequestShape command = Shape(KsKind::Property, mft_core::PROPSETID_WQ400_PRIVATE,
                                   mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID, flags, std::vector<BYTE>(1024));
    command.identifierLength = sizeof(mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND);
    shapes.push_back(command);
  }
  KSEVENTDATA eventData = {};
  eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
  shapes.push_back(Shape(KsKind::Event, KSEVENTSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE,
                         KSEVENT_TYPE_ONESHOT, Bytes(eventData)));
  shapes.push_back(Shape(KsKind::Event, sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId, KSEVENT_TYPE_ENABLE,
                         Bytes(eventData)));
  return shapes;
}

}  // namespace

namespace {

// A media buffer over a guarded region: its current length ends right at the trailing guard page.
class GuardedMediaBuffer : public user_space_frameworks::ComObject<IMFMediaBuffer> {
 public:
  explicit GuardedMediaBuffer(const std::vector<uint8_t> &bytes)
      : region(std::max<size_t>(bytes.size(), 1)), length(static_cast<DWORD>(bytes.size())) {
    if (!bytes.empty()) std::memcpy(Data(), bytes.data(), bytes.size());
  }
  STDMETHODIMP Lock(BYTE **buffer, DWORD *maxLength, DWORD *currentLength) override {
    if (buffer == nullptr) return E_POINTER;
    *buffer = Data();
    if (maxLength != nullptr) *maxLength = length;
    if (currentLength != nullptr) *currentLength = length;
    return S_OK;
  }
  STDMETHODIMP Unlock() override { return S_OK; }
  STDMETHODIMP GetCurrentLength(DWORD *currentLength) override {
    if (currentLength == nullptr) return E_POINTER;
    *currentLength = length;
    return S_OK;
  }
  STDMETHODIMP SetCurrentLength(DWORD currentLength) override {
    return currentLength == length ? S_OK : E_INVALIDARG;
  }
  STDMETHODIMP GetMaxLength(DWORD *maxLength) override {
    if (maxLength == nullptr) return E_POINTER;
    *maxLength = length;
    return S_OK;
  }

 private:
  BYTE *Data() const { return region.EndingAtGuard(length); }
  GuardedRegion region;
  const DWORD length;
};

}  // namespace

HRESULT AttachGuardedCaptureMetadata(IMFSample *sample, const std::vector<uint8_t> &raw) {
  if (sample == nullptr) return E_POINTER;
  ComPtr<IMFMediaBuffer> buffer = user_space_frameworks::MakeComObject<GuardedMediaBuffer>(raw);
  ComPtr<IMFAttributes> captureMetadata;
  HRESULT hr = MFCreateAttributes(captureMetadata.GetAddressOf(), 1);
  if (SUCCEEDED(hr)) hr = captureMetadata->SetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, buffer.Get());
  if (SUCCEEDED(hr)) hr = sample->SetUnknown(MFSampleExtension_CaptureMetadata, captureMetadata.Get());
  return hr;
}

KsFuzzer::KsFuzzer(uint32_t seed, const sim::CameraConfig &camera, HANDLE eventHandle)
    : random(seed), answered(AnsweredRequests(camera)), eventHandle(eventHandle) {
  for (const auto &unit : camera.extensionUnits) sets.push_back(unit.set);
  // Sets every camera transform sees from applications.
  sets.push_back(mft_core::PROPSETID_WQ400_PRIVATE);
  sets.push_back(KSPROPERTYSETID_ExtendedCameraControl);
  sets.push_back(KSEVENTSETID_ExtendedCameraControl);
  sets.push_back(PROPSETID_VIDCAP_VIDEOPROCAMP);
  sets.push_back(PROPSETID_VIDCAP_CAMERACONTROL);
  sets.push_back(KSEVENTSETID_VIDCAPTOSTI);
  sets.push_back(sim::kAutoUpdateEventSet);
}

GUID KsFuzzer::PickSet() {
  if (random() % 8 == 0) {
    GUID set;
    for (auto *p = reinterpret_cast<uint32_t *>(&set); p < reinterpret_cast<uint32_t *>(&set + 1); ++p) *p = random();
    return set;
  }
  return sets[random() % sets.size()];
}

ULONG KsFuzzer::PickId() { return random() % 10 < 8 ? random() % 48 : static_cast<ULONG>(random()); }

ULONG KsFuzzer::PickFlags(KsKind kind) {
  if (random() % 10 < 2) return static_cast<ULONG>(random());
  static const ULONG propertyFlags[] = {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT,
                                        KSPROPERTY_TYPE_DEFAULTVALUES, KSPROPERTY_TYPE_SETSUPPORT,
                                        KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET, 0};
  static const ULONG eventFlags[] = {KSEVENT_TYPE_ENABLE, KSEVENT_TYPE_ONESHOT, KSEVENT_TYPE_BASICSUPPORT,
                                     KSEVENT_TYPE_QUERYBUFFER, KSEVENT_TYPE_ENABLEBUFFERED, 0};
  static const ULONG methodFlags[] = {KSMETHOD_TYPE_NONE, KSMETHOD_TYPE_READ, KSMETHOD_TYPE_WRITE,
                                      KSMETHOD_TYPE_MODIFY, KSMETHOD_TYPE_SOURCE, KSMETHOD_TYPE_BASICSUPPORT};
  ULONG flags = 0;
  switch (kind) {
    case KsKind::Property: flags = propertyFlags[random() % std::size(propertyFlags)]; break;
    case KsKind::Event: flags = eventFlags[random() % std::size(eventFlags)]; break;
    case KsKind::Method: flags = methodFlags[random() % std::size(methodFlags)]; break;
  }
  // Node-addressed now and then (KSPROPERTY_TYPE_TOPOLOGY is the same bit for all three kinds).
  if (random() % 5 == 0) flags |= KSPROPERTY_TYPE_TOPOLOGY;
  return flags;
}

ULONG KsFuzzer::PickIdentifierLength() {
  switch (random() % 10) {
    case 0: return random() % 64;
    case 1: return 0xFFFFFFFF;
    case 2: case 3: return sizeof(KSP_NODE);
    case 4: return sizeof(mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND);
    default: return sizeof(KSPROPERTY);
  }
}

KsRequestShape KsFuzzer::RandomShape() {
  KsRequestShape shape;
  const unsigned pick = random() % 10;
  shape.kind = pick < 6 ? KsKind::Property : pick < 8 ? KsKind::Event : KsKind::Method;
  shape.set = PickSet();
  shape.id = PickId();
  shape.flags = PickFlags(shape.kind);
  shape.node = random() % 4 == 0 ? static_cast<ULONG>(random()) : random() % 8;
  shape.identifierLength = PickIdentifierLength();
  static const size_t sizes[] = {0, 1, 4, 8, 16, 24, 32, 40, 44, 56, 64, 68, 128, 256, 1024, 1100};
  shape.data.resize(random() % 5 == 0 ? random() % 1200 : sizes[random() % std::size(sizes)]);
  if (shape.kind == KsKind::Event && random() % 3 != 0) {
    KSEVENTDATA eventData = {};
    eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
    shape.data = Bytes(eventData);
  }
  return shape;
}

KsRequestShape KsFuzzer::MutatedShape() {
  KsRequestShape shape = answered[random() % answered.size()];
  // Half go as the application would send them; the rest have a field or two changed.
  for (int m = random() % 2 == 0 ? 0 : 1 + static_cast<int>(random() % 2); m > 0; --m) {
    switch (random() % 6) {
      case 0: shape.flags = PickFlags(shape.kind) | (shape.flags & KSPROPERTY_TYPE_TOPOLOGY); break;
      case 1: shape.id = random() % 2 ? shape.id + 1 : static_cast<ULONG>(random()); break;
      case 2:
        shape.flags ^= KSPROPERTY_TYPE_TOPOLOGY;
        shape.node = random() % 8;
        break;
      case 3: shape.data.resize(random() % (shape.data.size() + 16)); break;
      case 4: shape.identifierLength = PickIdentifierLength(); break;
      default:
        for (auto &byte : shape.data) {
          if (random() % 8 == 0) byte = static_cast<BYTE>(random());
        }
        break;
    }
  }
  return shape;
}

HRESULT KsFuzzer::SendOne(IKsControl *target) {
  // Now and then the application takes back the event subscriptions it left behind, as applications
  // do when they close: the driver keeps (and signals) every one until then.
  if (++stats.sent % 4096 == 0) {
    // Subscriptions are named by where their event data was: the start of the region, or a length of
    // event data ending at its end.
    std::vector<BYTE *> places = {dataRegion.StartingAtGuard()};
    for (size_t length = sizeof(KSEVENTDATA); length <= 80; ++length) places.push_back(dataRegion.EndingAtGuard(length));
    for (BYTE *eventData : places) {
      ULONG bytesReturned = 0;
      for (int i = 0; i < 4096 && SUCCEEDED(target->KsEvent(nullptr, 0, eventData, sizeof(KSEVENTDATA), &bytesReturned));
           ++i) {
      }
    }
  }
  return Send(target, random() % 2 == 0 ? MutatedShape() : RandomShape());
}

HRESULT KsFuzzer::Send(IKsControl *target, const KsRequestShape &shape) {
  // The identifier: the node form with a random tail, ending at a guard page at the largest size any
  // identifier has (a 0xFFFFFFFF length can only be trusted up to the form its set and flags name), or
  // right at the guard when its length is honest about a shorter form.
  constexpr size_t kIdentifierBytes = 64;
  BYTE *identifier = identifierRegion.EndingAtGuard(kIdentifierBytes);
  for (size_t i = 0; i < kIdentifierBytes; ++i) identifier[i] = static_cast<BYTE>(random());
  KSP_NODE node = {};
  node.Property.Set = shape.set;
  node.Property.Id = shape.id;
  node.Property.Flags = shape.flags;
  node.NodeId = shape.node;
  std::memcpy(identifier, &node, sizeof(node));
  ULONG identifierLength = shape.identifierLength;
  if (random() % 10 == 0) identifierLength = PickIdentifierLength();
  BYTE *identifierPointer = identifier;
  if (identifierLength <= kIdentifierBytes && random() % 2 == 0) {
    identifierPointer = identifierRegion.EndingAtGuard(identifierLength);
    std::memmove(identifierPointer, identifier, identifierLength);
  }
  if (random() % 40 == 0) identifierPointer = nullptr;

  // The data ends at the guard page exactly where the length it is sent with ends, so writing past the
  // claim faults; now and then it starts at one instead.
  ULONG dataLength = static_cast<ULONG>(shape.data.size());
  if (random() % 8 == 0 && dataLength != 0) dataLength = static_cast<ULONG>(random() % dataLength);
  BYTE *data = random() % 4 != 0 ? dataRegion.EndingAtGuard(dataLength) : dataRegion.StartingAtGuard();
  std::memcpy(data, shape.data.data(), dataLength);
  if (shape.kind == KsKind::Event && dataLength >= sizeof(KSEVENTDATA)) {
    auto *eventData = reinterpret_cast<KSEVENTDATA *>(data);
    eventData->EventHandle.Event = eventHandle;
  }
  switch (random() % 16) {
    case 0: data = nullptr; dataLength = 0xFFFFFFFF; break;
    case 1: data = nullptr; dataLength = static_cast<ULONG>(random() % 2048); break;
    // A claim of 4 GiB over the whole region: a caller's buffer is never smaller than it says, but
    // nothing may be written beyond what the answer needs.
    case 2: data = dataRegion.StartingAtGuard(); dataLength = 0xFFFFFFFF; break;
    default: break;
  }
  // The disable form of an event: no identifier, the event data names the subscription.
  if (shape.kind == KsKind::Event && random() % 6 == 0) identifierPointer = nullptr, identifierLength = 0;

  std::ostringstream text;
  text << (shape.kind == KsKind::Property ? "property" : shape.kind == KsKind::Event ? "event" : "method")
       << " set " << std::hex << shape.set.Data1 << " id " << shape.id << " flags " << shape.flags << " node "
       << shape.node << " identifier " << (identifierPointer ? "" : "null ") << identifierLength << " data "
       << (data ? "" : "null ") << dataLength;
  last = text.str();

  ULONG bytesReturned = 0;
  ULONG *bytesReturnedPointer = random() % 20 == 0 ? nullptr : &bytesReturned;
  HRESULT hr = E_FAIL;
  switch (shape.kind) {
    case KsKind::Property:
      hr = target->KsProperty(reinterpret_cast<PKSPROPERTY>(identifierPointer), identifierLength, data, dataLength,
                              bytesReturnedPointer);
      break;
    case KsKind::Event:
      hr = target->KsEvent(reinterpret_cast<PKSEVENT>(identifierPointer), identifierLength, data, dataLength,
                           bytesReturnedPointer);
      break;
    case KsKind::Method:
      hr = target->KsMethod(reinterpret_cast<PKSMETHOD>(identifierPointer), identifierLength, data, dataLength,
                            bytesReturnedPointer);
      break;
  }
  ++stats.byKind[static_cast<int>(shape.kind)];
  if (SUCCEEDED(hr)) ++stats.succeeded;
  return hr;
}

namespace {

uint32_t LittleU32(const uint8_t *bytes) {
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
         static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

constexpr uint32_t kUsbVideoHeaderId = 2;
constexpr size_t kHeaderWordOffset = 8;
constexpr size_t kCameraItemsOffset = 40;
constexpr size_t kFrameCounterOffset = 8;  // in the capture-timing record

// The item's payload when an item with `id` and exactly `size` payload bytes comes before anything that
// ends the walk (a zero size, a size past the end, a head cut short).
std::optional<std::vector<uint8_t>> FindItem(const std::vector<uint8_t> &raw, uint32_t id, uint32_t size) {
  size_t at = kCameraItemsOffset;
  while (at < raw.size()) {
    if (raw.size() - at < 8) return std::nullopt;
    const uint32_t itemId = LittleU32(&raw[at]);
    const uint32_t itemSize = LittleU32(&raw[at + 4]);
    if (itemSize == 0 || itemSize > raw.size() - at) return std::nullopt;
    if (itemId == id && itemSize >= 8 && itemSize - 8 == size) {
      return std::vector<uint8_t>(raw.begin() + static_cast<std::ptrdiff_t>(at + 8),
                                  raw.begin() + static_cast<std::ptrdiff_t>(at + itemSize));
    }
    at += itemSize;
  }
  return std::nullopt;
}

}  // namespace

ReferenceMetadataReader::ReferenceMetadataReader(sim::CameraKind kind) {
  using namespace mft_core;
  records.push_back({5, 48, MFSampleExtension_PinholeCameraIntrinsics, true, {}});
  if (kind == sim::CameraKind::FishEye) {
    records.push_back({0x80000007, 68, VELDARA_SAMPLE_WQ400_FISHEYE_EXTRINSICS, true, {}});
  } else {
    records.push_back({4, 48, MFStreamExtension_CameraExtrinsics, true, {}});
  }
  records.push_back({0x80000001, 32, VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, false, {}});
  records.push_back({0x80000002, 32, VELDARA_SAMPLE_WQ400_CONFIGURATION, false, {}});
  switch (kind) {
    case sim::CameraKind::Depth:
      records.push_back({0x80000003, 72, VELDARA_SAMPLE_WQ400_STATISTICS, false, {}});
      records.push_back({0x80000000, 52, VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, false, {}});
      break;
    case sim::CameraKind::FishEye:
      records.push_back({0x80000004, 16, VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL, false, {}});
      break;
    case sim::CameraKind::Color:
      records.push_back({0x80000005, 64, VELDARA_SAMPLE_WQ400_COLOR_CONTROL, false, {}});
      break;
  }
}

std::vector<ExpectedAttribute> ReferenceMetadataReader::Read(const std::vector<uint8_t> &raw) {
  const bool usable = raw.size() >= 4 && LittleU32(raw.data()) == kUsbVideoHeaderId;
  std::vector<ExpectedAttribute> expected;
  for (Record &record : records) {
    std::optional<std::vector<uint8_t>> payload;
    if (usable) payload = FindItem(raw, record.id, record.size);
    if (payload && record.sticky) record.last = *payload;
    if (!payload && record.sticky && !record.last.empty()) payload = record.last;
    if (!payload) continue;
    expected.push_back({record.key, false, *payload, 0});
    if (record.key == mft_core::VELDARA_SAMPLE_WQ400_CAPTURE_TIMING) {
      expected.push_back({mft_core::WQ400_MF_FRAME_COUNTER, true, {}, LittleU32(&(*payload)[kFrameCounterOffset])});
    }
  }
  if (usable && raw.size() >= kHeaderWordOffset + 4) {
    expected.push_back({mft_core::VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, true, {}, LittleU32(&raw[kHeaderWordOffset])});
  }
  return expected;
}

std::vector<GUID> ReferenceMetadataReader::Keys() const {
  std::vector<GUID> keys;
  for (const Record &record : records) keys.push_back(record.key);
  keys.push_back(mft_core::WQ400_MF_FRAME_COUNTER);
  keys.push_back(mft_core::VELDARA_SAMPLE_WQ400_HW_TIMESTAMP);
  return keys;
}

}  // namespace robustness
