#include "mft_core/controls/ExtendedExposureControl.h"

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/NameMap.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

constexpr ULONGLONG kAuto = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO;
constexpr ULONGLONG kManual = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL;
constexpr ULONGLONG kLock = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK;

// |a - b| of two unsigned 32-bit values, taken as a signed 64-bit difference and kept as 32 bits.
uint32_t Distance(uint32_t a, uint32_t b) {
  const int64_t difference = static_cast<int64_t>(a) - static_cast<int64_t>(b);
  return static_cast<uint32_t>(difference < 0 ? -difference : difference);
}

}  // namespace

const char *ExposureControlStateName(ExposureControlState state) {
  static const user_space_frameworks::NameMap<ExposureControlState> names = {
      {ExposureControlState::ManualConverged, "ManualConverged"},
      {ExposureControlState::ManualConverging, "ManualConverging"},
      {ExposureControlState::Auto, "Auto"},
      {ExposureControlState::AutoLocking, "AutoLocking"},
      {ExposureControlState::AutoLocked, "AutoLocked"},
  };
  return names[state];
}

ExtendedExposureControl::ExtendedExposureControl(const std::string &displayName, IKsControl *ksControl,
                                                 uint32_t manualConvergeDelta, uint32_t autoLockConvergeDelta,
                                                 uint32_t numConvergedSamplesForLock)
    : AsyncExtendedCameraControl<OneShotKsEventHandler>(KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE, displayName,
                                                        ksControl),
      manualConvergeDelta(manualConvergeDelta),
      numConvergedSamplesForLock(numConvergedSamplesForLock),
      autoLockConvergeDelta(autoLockConvergeDelta) {}

void ExtendedExposureControl::ChangeState(ExposureControlState next) {
  WQ_SCOPE();
  WQ_TRACE(Info, GetTraceName() << ": " << ExposureControlStateName(state) << " -> "
                                << ExposureControlStateName(next));
  state = next;
}

HRESULT ExtendedExposureControl::Set(PKSPROPERTY, KSCAMERA_EXTENDEDPROP_HEADER *header,
                                     KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *payload) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(header);
  RETURN_IF_NULL(payload);
  user_space_frameworks::AutoLock guard(lock);
  const ULONGLONG flags = header->Flags;

  // The state changes before the device is asked and stays changed if the device call fails.
  if ((flags & kManual) != 0) {
    if (flags != kManual) {
      WQ_TRACE(Error, GetTraceName() << ": manual exposure with other flags 0x" << std::hex << flags);
      return E_INVALIDARG;
    }
    ChangeState(ExposureControlState::ManualConverging);
    requiredManualExposure = static_cast<uint32_t>(payload->VideoProc.Value.ull & 0xFFFFFFFFu);
    // Completion comes from the frames (OnSample), not from here.
    RETURN_IF_FAILED(SetManual(requiredManualExposure));
    return S_OK;
  }
  if ((flags & kLock) != 0) {
    if ((flags & ~(kAuto | kLock)) != 0) {
      WQ_TRACE(Error, GetTraceName() << ": exposure lock with other flags 0x" << std::hex << flags);
      return E_INVALIDARG;
    }
    ChangeState(ExposureControlState::AutoLocking);
    RETURN_IF_FAILED(InitiateAutoLock());
    return S_OK;
  }
  if (flags != kAuto) {
    WQ_TRACE(Error, GetTraceName() << ": unsupported exposure mode flags 0x" << std::hex << flags);
    return E_INVALIDARG;
  }
  ChangeState(ExposureControlState::Auto);
  RETURN_IF_FAILED(SetAuto());
  RETURN_IF_FAILED(Signal());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT ExtendedExposureControl::Get(PKSPROPERTY, KSCAMERA_EXTENDEDPROP_HEADER *header,
                                     KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(header);
  RETURN_IF_NULL(videoProcSetting);
  user_space_frameworks::AutoLock guard(lock);
  header->Version = 1;
  header->PinId = KSCAMERA_EXTENDEDPROP_FILTERSCOPE;
  header->Size = kRequestSize;
  header->Capability = kCapability;
  switch (state) {
    case ExposureControlState::ManualConverged:
    case ExposureControlState::ManualConverging: header->Flags = kManual; break;
    case ExposureControlState::Auto: header->Flags = kAuto; break;
    // A locked exposure reads as auto|lock although the device then runs a manual value.
    case ExposureControlState::AutoLocking:
    case ExposureControlState::AutoLocked: header->Flags = kAuto | kLock; break;
  }
  RETURN_IF_FAILED(Get(videoProcSetting));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT ExtendedExposureControl::InitiateAutoLock() {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(lock);
  convergedSamples = 0;
  RETURN_IF_FAILED(SetAuto());
  return S_OK;
  WQ_SCOPE_END;
}

bool ExtendedExposureControl::IsAuto() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(lock);
  return state == ExposureControlState::Auto;
}

void ExtendedExposureControl::OnSample(uint32_t exposure) {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(lock);
  switch (state) {
    case ExposureControlState::ManualConverging: ManualConvergeStep(exposure); break;
    case ExposureControlState::AutoLocking: AutoLockStep(exposure); break;
    default: break;
  }
  lastSampleExposure = exposure;
}

void ExtendedExposureControl::ManualConvergeStep(uint32_t exposure) {
  WQ_SCOPE();
  const uint32_t distance = Distance(exposure, requiredManualExposure);
  WQ_TRACE(Verbose, GetTraceName() << ": required " << requiredManualExposure << " frame " << exposure
                                   << " distance " << distance << " delta " << manualConvergeDelta);
  if (distance < manualConvergeDelta) {
    ChangeState(ExposureControlState::ManualConverged);
    Signal();  // an unarmed event is traced by Signal; the request is complete regardless
  }
}

void ExtendedExposureControl::AutoLockStep(uint32_t exposure) {
  WQ_SCOPE();
  const uint32_t distance = Distance(exposure, lastSampleExposure);
  if (distance >= autoLockConvergeDelta) {
    convergedSamples = 0;
  } else {
    ++convergedSamples;
  }
  WQ_TRACE(Verbose, GetTraceName() << ": previous " << lastSampleExposure << " frame " << exposure << " distance "
                                   << distance << " delta " << autoLockConvergeDelta << " stable frames "
                                   << convergedSamples);
  if (distance < autoLockConvergeDelta && convergedSamples >= numConvergedSamplesForLock) {
    ChangeState(ExposureControlState::AutoLocked);
    // Freeze the settled value; the results are not acted on, the request is complete either way.
    SetManual(exposure);
    Signal();
  }
}

}  // namespace mft_core
