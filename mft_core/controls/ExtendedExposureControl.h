// The asynchronous extended exposure-mode control: auto, manual and auto-lock. A manual or lock request
// completes when the frames show it (OnSample, once per frame), an auto request at once; completion
// sets the application's one-shot event. The device work is the subclass's.
//
// Locks, outermost first (never taken in the other order):
//   1. a topology node's pre-process observer lock: the node holds it while it calls OnSample through
//      the subclass's observer callback;
//   2. `lock` of this control: held across Set, Get and OnSample, including the device calls
//      (Get(videoProcSetting), SetManual, SetAuto) and Signal;
//   3. the completion event handler's own lock (innermost), taken by Signal.
// So a subclass never registers or unregisters its node observer while holding `lock`, and nothing
// called under `lock` calls back into Set, Get or OnSample.
#pragma once

#include <cstdint>
#include <string>

#include "mft_core/controls/ExtendedCameraControl.h"
#include "mft_core/ks/KsControlHandlers.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

enum class ExposureControlState : int32_t {
  ManualConverged = 0,   // manual exposure reached; request complete
  ManualConverging = 1,  // manual value sent, waiting for frames to show it
  Auto = 2,              // device auto exposure on
  AutoLocking = 3,       // auto exposure on, waiting for it to settle before freezing it
  AutoLocked = 4,        // settled auto value frozen as a manual value
};

// "ManualConverged", ..., "AutoLocked"; "Unknown" for any other value.
const char *ExposureControlStateName(ExposureControlState state);

class ExtendedExposureControl : public AsyncExtendedCameraControl<OneShotKsEventHandler> {
 public:
  static constexpr ULONGLONG kCapability =
      KSCAMERA_EXTENDEDPROP_CAPS_ASYNCCONTROL | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO |
      KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK;

  // Deltas in 100 ns units.
  ExtendedExposureControl(const std::string &displayName, IKsControl *ksControl, uint32_t manualConvergeDelta,
                          uint32_t autoLockConvergeDelta, uint32_t numConvergedSamplesForLock);
  ~ExtendedExposureControl() override = default;

  HRESULT Set(PKSPROPERTY property, KSCAMERA_EXTENDEDPROP_HEADER *header,
              KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *payload) override;
  HRESULT Get(PKSPROPERTY property, KSCAMERA_EXTENDEDPROP_HEADER *header,
              KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *payload) override;

  // Once per frame, with the exposure (100 ns units) the frame reports.
  void OnSample(uint32_t exposure);
  // Restarts the stable-frame count and puts the device in auto exposure; the lock follows from frames.
  HRESULT InitiateAutoLock();
  bool IsAuto();

 protected:
  // The device work, called with `lock` held. Exposure in 100 ns units.
  virtual HRESULT Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) = 0;
  virtual HRESULT SetManual(uint32_t exposure) = 0;
  virtual HRESULT SetAuto() = 0;

  // Traces the old and the new state name. Called with `lock` held.
  void ChangeState(ExposureControlState next);

  const uint32_t manualConvergeDelta;
  const uint32_t numConvergedSamplesForLock;
  const uint32_t autoLockConvergeDelta;
  user_space_frameworks::CriticalSection lock;  // guards the fields below
  ExposureControlState state = ExposureControlState::Auto;
  uint32_t lastSampleExposure = 0;
  uint32_t convergedSamples = 0;
  uint32_t requiredManualExposure = 0;

 private:
  void ManualConvergeStep(uint32_t exposure);
  void AutoLockStep(uint32_t exposure);
};

}  // namespace mft_core
