// What the robustness tests share: the three camera transforms created through the built DLL (each with
// the camera it runs on), buffers fenced by inaccessible pages, a generator of random and lying KS
// requests, and an independent reading of the camera's metadata bytes to hold delivered samples against.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "common/Waiting.h"
#include "common/Watchdog.h"
#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "sim/FrameServerHost.h"

namespace robustness {

// The cameras whose transforms the DLL creates: "depth", "color", "fisheye".
std::vector<std::string> CameraNames();
sim::CameraConfig Camera(const std::string &name);
// The camera's transform from the built WQ400DeviceMft.dll (LoadLibraryW once per program,
// DllGetClassObject, IClassFactory::CreateInstance).
HRESULT CreateThroughDll(const sim::CameraConfig &camera, Microsoft::WRL::ComPtr<IMFDeviceTransform> &device);

// A camera's transform from the DLL on its simulated camera, driven by the simulated frame server;
// `host` is null when the transform could not be created.
struct TransformOnCamera {
  explicit TransformOnCamera(const std::string &cameraName);
  sim::CameraConfig camera;
  Microsoft::WRL::ComPtr<sim::SimulatedCameraFilter> filter;
  Microsoft::WRL::ComPtr<IMFDeviceTransform> device;
  std::unique_ptr<sim::FrameServerHost> host;
};

// The extended exposure control's data: a manual exposure in 100 ns units.
struct ExtendedExposureData {
  KSCAMERA_EXTENDEDPROP_HEADER header;
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting;
};
ExtendedExposureData ManualExposure(ULONGLONG exposure);

// Counts scaled by WQ400_ROBUSTNESS_SCALE (a multiplier, default 1) for longer runs outside CI.
uint64_t Scaled(uint64_t count);

using test_waiting::WaitFor;
using test_support::RoundWatchdog;

// Memory whose first and last pages are inaccessible: a read or write one byte past either end of the
// usable area faults at once.
class GuardedRegion {
 public:
  explicit GuardedRegion(size_t capacity);
  ~GuardedRegion();
  GuardedRegion(const GuardedRegion &) = delete;
  GuardedRegion &operator=(const GuardedRegion &) = delete;
  // `size` bytes that end right at the trailing guard page (overruns fault).
  BYTE *EndingAtGuard(size_t size) const { return usableEnd - size; }
  // Bytes that start right at the leading guard page (underruns fault).
  BYTE *StartingAtGuard() const { return usableBegin; }
  size_t Capacity() const { return static_cast<size_t>(usableEnd - usableBegin); }

 private:
  BYTE *base = nullptr;
  BYTE *usableBegin = nullptr;
  BYTE *usableEnd = nullptr;
};

// Attaches `raw` as the sample's raw capture metadata in a media buffer whose bytes end at a guard page,
// so reading one byte past the metadata the camera sent faults.
HRESULT AttachGuardedCaptureMetadata(IMFSample *sample, const std::vector<uint8_t> &raw);

enum class KsKind { Property, Event, Method };

struct KsRequestStats {
  uint64_t sent = 0;
  uint64_t succeeded = 0;
  uint64_t byKind[3] = {};
};

// One KS request before the lies: what a well-behaved application (or the fuzzer) would send.
struct KsRequestShape {
  KsKind kind = KsKind::Property;
  GUID set = GUID_NULL;
  ULONG id = 0;
  ULONG flags = 0;
  ULONG node = 0;  // read only with KSPROPERTY_TYPE_TOPOLOGY
  ULONG identifierLength = sizeof(KSPROPERTY);
  std::vector<BYTE> data;  // what the buffer holds; its size is the honest length
};

// Random and mutated KS requests against one IKsControl. Half start from a request the camera's
// transform really answers (its extension units at their nodes, the standard controls, the extended
// exposure control, the product's private properties, the camera's events), mutated in a field or two;
// the rest are random: the product's own sets, the extended camera control set, standard sets and random
// ones with random ids and flags. On top, identifier and data lengths lie about their buffers (shorter
// than needed, 0xFFFFFFFF, non-zero with no buffer). Every buffer ends at a guard page where the length
// it is sent with ends (or starts at one), so reading or writing past a claim faults.
class KsFuzzer {
 public:
  KsFuzzer(uint32_t seed, const sim::CameraConfig &camera, HANDLE eventHandle);
  HRESULT SendOne(IKsControl *target);
  const KsRequestStats &Stats() const { return stats; }
  // A readable description of the last request, for a failure or hang message.
  std::string LastRequest() const { return last; }

 private:
  KsRequestShape RandomShape();
  KsRequestShape MutatedShape();
  GUID PickSet();
  ULONG PickId();
  ULONG PickFlags(KsKind kind);
  ULONG PickIdentifierLength();
  HRESULT Send(IKsControl *target, const KsRequestShape &shape);

  std::mt19937 random;
  std::vector<GUID> sets;
  std::vector<KsRequestShape> answered;
  HANDLE eventHandle;
  GuardedRegion identifierRegion{4096};
  GuardedRegion dataRegion{8192};
  KsRequestStats stats;
  std::string last;
};

// One attribute a delivered sample may carry because of its capture metadata.
struct ExpectedAttribute {
  GUID key;
  bool isUint32 = false;
  std::vector<uint8_t> blob;
  UINT32 value = 0;
};

// What the camera's metadata bytes hold for one camera kind, read without the product's code: the USB
// video header item first, the camera's items from byte 40, each record taken only at its exact size,
// calibration records carried over from the last frame that had them.
class ReferenceMetadataReader {
 public:
  explicit ReferenceMetadataReader(sim::CameraKind kind);
  // Feed frames in the order the camera sends them; `raw` empty means no metadata at all.
  std::vector<ExpectedAttribute> Read(const std::vector<uint8_t> &raw);
  // Every key Read may produce for this camera kind.
  std::vector<GUID> Keys() const;

 private:
  struct Record {
    uint32_t id;
    uint32_t size;
    GUID key;
    bool sticky;
    std::vector<uint8_t> last;
  };
  std::vector<Record> records;
};

}  // namespace robustness
