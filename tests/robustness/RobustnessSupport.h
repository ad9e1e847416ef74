// What the robustness tests share: the transforms under test (each with the camera it runs on), buffers
// fenced by inaccessible pages, a generator of random and mutated KS requests, and process-wide counters.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "mft_core/streams/IMetadataParser.h"
#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"

namespace robustness {

struct TransformUnderTest {
  std::string name;
  std::function<sim::CameraConfig()> camera;
  std::function<Microsoft::WRL::ComPtr<IMFDeviceTransform>()> create;
  // What the transform turns a frame's capture metadata into, to compare delivered samples with; empty
  // for a transform that attaches nothing.
  std::function<std::shared_ptr<mft_core::IMetadataParser>()> referenceParser;
};
// One transform per camera kind: the product's own where it exists, else the pass-through transform.
std::vector<TransformUnderTest> TransformsUnderTest();
// Test names cannot hold spaces.
std::string ParamName(const TransformUnderTest &transform);

// Counts scaled by WQ400_ROBUSTNESS_SCALE (a multiplier, default 1) for longer runs outside CI.
uint64_t Scaled(uint64_t count);

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

enum class KsKind { Property, Event, Method };

struct KsRequestStats {
  uint64_t sent = 0;
  uint64_t succeeded = 0;
};

// Random and mutated KS requests against one IKsControl: the product's own sets, the extended camera
// control set, standard sets and random ones; random ids and flags; identifier and data lengths that
// lie about their buffers (shorter, 0xFFFFFFFF with no buffer, non-zero with no buffer). Every buffer is
// fenced by guard pages.
class KsFuzzer {
 public:
  KsFuzzer(uint32_t seed, std::vector<GUID> ownSets, HANDLE eventHandle);
  // One request; returns its result.
  HRESULT SendOne(IKsControl *target);
  const KsRequestStats &Stats() const { return stats; }
  // A readable description of the last request, for a failure message.
  std::string LastRequest() const { return last; }

 private:
  GUID PickSet();
  ULONG PickId();
  ULONG PickFlags(KsKind kind);
  ULONG PickIdentifierLength();

  std::mt19937 random;
  std::vector<GUID> sets;
  HANDLE eventHandle;
  GuardedRegion identifierRegion{4096};
  GuardedRegion dataRegion{8192};
  GuardedRegion eventDataRegion{4096};
  KsRequestStats stats;
  std::string last;
};

// The process's handle count and private memory, for leak checks.
struct ProcessFootprint {
  DWORD handles = 0;
  uint64_t privateBytes = 0;
};
ProcessFootprint CurrentFootprint();

template <typename T>
ULONG References(T *object) {
  object->AddRef();
  return object->Release();
}

}  // namespace robustness
