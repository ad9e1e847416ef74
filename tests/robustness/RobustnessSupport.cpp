#include "robustness/RobustnessSupport.h"

#include <psapi.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "product/metadata/WQ400MetadataParsers.h"
#include "product/transforms/WQ400ColorDeviceMFT.h"
#include "product/transforms/WQ400DepthDeviceMft.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace robustness {

namespace {

template <typename Transform, typename... Args>
ComPtr<IMFDeviceTransform> Make(Args &&...args) {
  ComPtr<IMFDeviceTransform> device;
  auto object = user_space_frameworks::MakeComObject<Transform>(std::forward<Args>(args)...);
  if (object) object.As(&device);
  return device;
}

}  // namespace

std::vector<TransformUnderTest> TransformsUnderTest() {
  return {
      {"depth", sim::DepthCamera, [] { return Make<mft_core::WQ400DepthDeviceMft>(); },
       [] { return std::make_shared<mft_core::WQ400DepthMetadataParser>("WQ400 Depth Device MFT"); }},
      {"color", sim::ColorCamera, [] { return Make<mft_core::WQ400ColorDeviceMFT>(); },
       [] { return std::make_shared<mft_core::WQ400ColorMetadataParser>("WQ400 Color Device MFT"); }},
      {"fisheye", sim::FisheyeCamera, [] { return Make<mft_core::WQ400FishEyeDeviceMft>(); },
       [] { return std::make_shared<mft_core::WQ400FisheyeMetadataParser>("WQ400 FishEye Device MFT"); }},
  };
}

std::string ParamName(const TransformUnderTest &transform) { return transform.name; }

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

KsFuzzer::KsFuzzer(uint32_t seed, std::vector<GUID> ownSets, HANDLE eventHandle)
    : random(seed), sets(std::move(ownSets)), eventHandle(eventHandle) {
  // Sets every camera transform sees from applications.
  sets.push_back(KSPROPERTYSETID_ExtendedCameraControl);
  sets.push_back(KSEVENTSETID_ExtendedCameraControl);
  sets.push_back(PROPSETID_VIDCAP_VIDEOPROCAMP);
  sets.push_back(PROPSETID_VIDCAP_CAMERACONTROL);
  sets.push_back(KSEVENTSETID_VIDCAPTOSTI);
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
    default: return sizeof(KSPROPERTY);
  }
}

HRESULT KsFuzzer::SendOne(IKsControl *target) {
  const unsigned pick = random() % 10;
  const KsKind kind = pick < 6 ? KsKind::Property : pick < 8 ? KsKind::Event : KsKind::Method;

  // The identifier: a node form with a random tail, ending at a guard page so that nothing reads past
  // what any identifier can hold.
  constexpr size_t kIdentifierBytes = 64;
  BYTE *identifier = identifierRegion.EndingAtGuard(kIdentifierBytes);
  for (size_t i = 0; i < kIdentifierBytes; ++i) identifier[i] = static_cast<BYTE>(random());
  KSP_NODE node = {};
  node.Property.Set = PickSet();
  node.Property.Id = PickId();
  node.Property.Flags = PickFlags(kind);
  node.NodeId = random() % 4 == 0 ? static_cast<ULONG>(random()) : random() % 8;
  std::memcpy(identifier, &node, sizeof(node));
  ULONG identifierLength = PickIdentifierLength();
  BYTE *identifierPointer = identifier;
  if (random() % 40 == 0) identifierPointer = nullptr;

  // The data: honest, shorter than its buffer, or a length with no buffer at all.
  static const size_t sizes[] = {0, 1, 4, 8, 16, 24, 32, 40, 56, 64, 68, 128, 256, 1024, 1100};
  size_t dataSize = random() % 5 == 0 ? random() % 1200 : sizes[random() % std::size(sizes)];
  BYTE *data = random() % 2 == 0 ? dataRegion.EndingAtGuard(dataSize) : dataRegion.StartingAtGuard();
  for (size_t i = 0; i < dataSize; ++i) data[i] = static_cast<BYTE>(random() % 4 == 0 ? random() : 0);
  ULONG dataLength = static_cast<ULONG>(dataSize);
  switch (random() % 10) {
    case 0: dataLength = dataSize == 0 ? 0 : static_cast<ULONG>(random() % dataSize); break;
    case 1: data = nullptr; dataLength = 0xFFFFFFFF; break;
    case 2: data = nullptr; dataLength = static_cast<ULONG>(random() % 2048); break;
    default: break;
  }
  // Events carry a KSEVENTDATA naming one of the test's own events (or garbage, now and then).
  if (kind == KsKind::Event && random() % 3 != 0) {
    auto *eventData = reinterpret_cast<KSEVENTDATA *>(eventDataRegion.EndingAtGuard(sizeof(KSEVENTDATA)));
    std::memset(eventData, 0, sizeof(KSEVENTDATA));
    eventData->NotificationType = random() % 6 == 0 ? static_cast<ULONG>(random()) : KSEVENTF_EVENT_HANDLE;
    eventData->EventHandle.Event = eventHandle;
    data = reinterpret_cast<BYTE *>(eventData);
    dataLength = random() % 6 == 0 ? static_cast<ULONG>(random() % 64) : sizeof(KSEVENTDATA);
    // The disable form: no identifier, the event data names the subscription.
    if (random() % 4 == 0) identifierPointer = nullptr, identifierLength = 0;
  }

  std::ostringstream text;
  text << (kind == KsKind::Property ? "property" : kind == KsKind::Event ? "event" : "method") << " set "
       << std::hex << node.Property.Set.Data1 << " id " << node.Property.Id << " flags " << node.Property.Flags
       << " node " << node.NodeId << " identifier " << (identifierPointer ? "" : "null ") << identifierLength
       << " data " << (data ? "" : "null ") << dataLength;
  last = text.str();

  ULONG bytesReturned = 0;
  ULONG *bytesReturnedPointer = random() % 20 == 0 ? nullptr : &bytesReturned;
  HRESULT hr = E_FAIL;
  switch (kind) {
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
  ++stats.sent;
  if (SUCCEEDED(hr)) ++stats.succeeded;
  return hr;
}

ProcessFootprint CurrentFootprint() {
  ProcessFootprint footprint;
  GetProcessHandleCount(GetCurrentProcess(), &footprint.handles);
  PROCESS_MEMORY_COUNTERS_EX counters = {};
  counters.cb = sizeof(counters);
  if (GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&counters),
                           sizeof(counters))) {
    footprint.privateBytes = counters.PrivateUsage;
  }
  return footprint;
}

}  // namespace robustness
