// What the lifetime tests share: the three camera transforms created through the built DLL's class
// factory, counts that scale for longer runs, a per-round watchdog, and the process's footprint.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "common/Waiting.h"
#include "common/Watchdog.h"
#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "sim/FrameServerHost.h"
#include "tools/DllTransformFactory.h"
#include "tools/ProcessFootprint.h"

namespace lifetime {

struct Subject {
  std::string name;  // "depth", "color", "fisheye": the camera and the class the DLL makes for it
  sim::CameraConfig (*camera)();
  UINT32 width;  // a size every stream of the camera offers (the depth transform runs all at one)
  UINT32 height;
  sim::CameraKind metadataKind;
};
const std::vector<Subject> &Subjects();
// Test parameters print as their names.
inline void PrintTo(const Subject &subject, std::ostream *out) { *out << subject.name; }
std::string SubjectName(const Subject &subject);

// How the frame server ends with a transform: idle, streaming then shut down, or streaming and let go
// without a shutdown (a host that loads the DLL itself may do that).
enum class Ending { Idle, ShutDown, Abandoned };

// A new transform of the subject's class, through DllGetClassObject and IClassFactory.
Microsoft::WRL::ComPtr<IMFDeviceTransform> CreateThroughDll(const Subject &subject);

// `count` times WQ400_LIFETIME_SCALE (a whole multiplier, default 1), for longer runs outside CI.
uint64_t Scaled(uint64_t count);

using test_waiting::References;
using test_waiting::WaitFor;
using test_support::RoundWatchdog;

// How much private memory the platform itself keeps after `pairs` waits on an event put on a work queue
// (MFPutWaitingWorkItem) and cancelled: what the driver-event listener asks of it per start and stop.
// Windows keeps nothing; Wine 8 keeps a few hundred bytes per pair.
int64_t PlatformGrowthOfCancelledWaits(uint64_t pairs);

// The first available output type of a stream at this size and rate (the first one when `fps` is 0).
Microsoft::WRL::ComPtr<IMFMediaType> OutputType(IMFDeviceTransform *transform, DWORD streamId, UINT32 width = 0,
                                                UINT32 height = 0, UINT32 fps = 0);
using test_waiting::FramesOut;

}  // namespace lifetime
