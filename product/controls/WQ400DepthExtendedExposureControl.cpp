#include "product/controls/WQ400DepthExtendedExposureControl.h"

#include "product/metadata/WQ400MetadataRecords.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

const GUID kWQ400DepthXuSetId = {0xC9606CCB, 0x594C, 0x4D25, {0xAF, 0x47, 0xCC, 0xC4, 0x96, 0x43, 0x59, 0x95}};
const wchar_t *const WQ400DepthExtendedExposureControl::kRegistryKey =
    L"Software\\Tavix\\Veldara\\WQ4XX\\DepthExposure";

namespace {

// A DWORD value of the tuning key, or `fallback` when it is missing or of another type.
uint32_t ReadTuningValue(const wchar_t *name, uint32_t fallback) {
  DWORD value = 0;
  DWORD size = sizeof(value);
  const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, WQ400DepthExtendedExposureControl::kRegistryKey, name,
                                      RRF_RT_REG_DWORD, nullptr, &value, &size);
  return status == ERROR_SUCCESS ? value : fallback;
}

}  // namespace

WQ400DepthExtendedExposureControl::Tuning WQ400DepthExtendedExposureControl::ReadTuning() {
  WQ_SCOPE();
  Tuning tuning;
  tuning.numConvergedSamplesForLock = ReadTuningValue(L"NumConvergedSamplesForLock", 3);
  tuning.autoLockConvergeDelta = ReadTuningValue(L"AutoLockConvergeDelta", 50000);
  tuning.manualConvergeDelta = ReadTuningValue(L"ManualConvergeDelta", 50000);
  WQ_TRACE(Info, "frames for lock " << tuning.numConvergedSamplesForLock << ", auto-lock delta "
                                    << tuning.autoLockConvergeDelta << ", manual delta "
                                    << tuning.manualConvergeDelta);
  return tuning;
}

WQ400DepthExtendedExposureControl::WQ400DepthExtendedExposureControl(const ComPtr<ExtensionUnitKsControl> &xuKsControl)
    : WQ400DepthExtendedExposureControl(xuKsControl, ReadTuning()) {}

WQ400DepthExtendedExposureControl::WQ400DepthExtendedExposureControl(const ComPtr<ExtensionUnitKsControl> &xuKsControl,
                                                                     const Tuning &tuning)
    : ExtendedExposureControl(kDisplayName, xuKsControl.Get(), tuning.manualConvergeDelta,
                              tuning.autoLockConvergeDelta, tuning.numConvergedSamplesForLock),
      callback(std::make_shared<SampleCallback>(this, &WQ400DepthExtendedExposureControl::OnSamplePreProcess)),
      xuKsControl(xuKsControl) {}

WQ400DepthExtendedExposureControl::~WQ400DepthExtendedExposureControl() {
  if (subject) subject->UnregisterPreProcessObserver(callback);
}

void WQ400DepthExtendedExposureControl::RegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node) {
  WQ_SCOPE();
  // Never under `lock`: the node calls OnSamplePreProcess with its observer lock held.
  subject = node;
  attached = subject != nullptr;
  if (subject) subject->RegisterPreProcessObserver(callback);
}

void WQ400DepthExtendedExposureControl::UnRegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &) {
  WQ_SCOPE();
  if (subject) subject->UnregisterPreProcessObserver(callback);
  attached = false;
  subject.reset();
}

void WQ400DepthExtendedExposureControl::OnSamplePreProcess(IMFSample *sample) {
  WQ_SCOPE();
  VeldaraWQ400MetaDataTavixDepthControl control = {};
  UINT32 size = 0;
  if (sample != nullptr && SUCCEEDED(sample->GetBlob(VELDARA_SAMPLE_WQ400_DEPTH_CONTROL,
                                                     reinterpret_cast<UINT8 *>(&control), sizeof(control), &size))) {
    // Device units to 100 ns, wrapping as the device's 32-bit arithmetic does.
    OnSample(control.exposure * kDeviceUnit);
    return;
  }
  // Without metadata every N-th frame stands in for one that shows the requested manual value, so
  // manual and lock requests still complete. Several streams may feed the control at once.
  user_space_frameworks::AutoLock hold(lock);
  if (++missingMetadataSamples == numConvergedSamplesForLock) {
    missingMetadataSamples = 0;
    OnSample(requiredManualExposure);
  }
}

void WQ400DepthExtendedExposureControl::SignalIfDetached() {
  WQ_SCOPE();
  if (!attached) (void)Signal();
}

KSPROPERTY WQ400DepthExtendedExposureControl::DeviceProperty(ULONG id, ULONG flags) {
  KSPROPERTY ksProperty = {};
  ksProperty.Set = kWQ400DepthXuSetId;
  ksProperty.Id = id;
  ksProperty.Flags = flags;
  return ksProperty;
}

HRESULT WQ400DepthExtendedExposureControl::Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(videoProcSetting);
  static_assert(kExposureControl == 3, "the exposure control of the depth unit");
  LONG minExposureValue = 0, maxExposureValue = 0, stepExposureValue = 0, defExposureValue = 0;
  RETURN_IF_FAILED(xuKsControl->QueryKsPropertyInfo(3, minExposureValue, maxExposureValue, stepExposureValue, defExposureValue));
  // The unit must answer for its mode, yet the mode reads as 0 whatever the device runs: the flags of
  // the header tell the mode.
  BYTE currentExposureMode = 0;
  ULONG bytesReturned = 0;
  KSPROPERTY ksProperty = DeviceProperty(kExposureModeControl, KSPROPERTY_TYPE_GET);
  RETURN_IF_FAILED(xuKsControl->KsProperty(&ksProperty, static_cast<ULONG>(sizeof(KSPROPERTY)), &currentExposureMode, static_cast<ULONG>(sizeof(currentExposureMode)), &bytesReturned));
  videoProcSetting->Mode = 0;
  videoProcSetting->Min = static_cast<LONG>(static_cast<uint32_t>(minExposureValue) * kDeviceUnit);
  videoProcSetting->Max = static_cast<LONG>(static_cast<uint32_t>(maxExposureValue) * kDeviceUnit);
  videoProcSetting->Step = static_cast<LONG>(static_cast<uint32_t>(stepExposureValue) * kDeviceUnit);

  uint32_t currentExposureValue = 0;
  ksProperty = DeviceProperty(kExposureControl, KSPROPERTY_TYPE_GET);
  RETURN_IF_FAILED(xuKsControl->KsProperty(&ksProperty, static_cast<ULONG>(sizeof(KSPROPERTY)), &currentExposureValue, static_cast<ULONG>(sizeof(currentExposureValue)), &bytesReturned));
  videoProcSetting->VideoProc.Value.ull = static_cast<uint32_t>(currentExposureValue * kDeviceUnit);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthExtendedExposureControl::SetExposureMode(BYTE exposureMode) {
  WQ_SCOPE_BEGIN(HRESULT);
  BYTE currentExposureMode = 0;
  ULONG bytesReturned = 0;
  KSPROPERTY ksProperty = DeviceProperty(kExposureModeControl, KSPROPERTY_TYPE_GET);
  RETURN_IF_FAILED(xuKsControl->KsProperty(&ksProperty, static_cast<ULONG>(sizeof(KSPROPERTY)), &currentExposureMode, static_cast<ULONG>(sizeof(currentExposureMode)), &bytesReturned));
  if (currentExposureMode == exposureMode) return S_OK;
  ksProperty = DeviceProperty(kExposureModeControl, KSPROPERTY_TYPE_SET);
  RETURN_IF_FAILED(xuKsControl->KsProperty(&ksProperty, static_cast<ULONG>(sizeof(KSPROPERTY)), &exposureMode, static_cast<ULONG>(sizeof(exposureMode)), &bytesReturned));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthExtendedExposureControl::SetManual(uint32_t exposure) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(SetExposureMode(kManualMode));
  uint32_t exposureValueTemp = exposure / kDeviceUnit;
  ULONG bytesReturned = 0;
  KSPROPERTY ksProperty = DeviceProperty(kExposureControl, KSPROPERTY_TYPE_SET);
  RETURN_IF_FAILED(xuKsControl->KsProperty(&ksProperty, static_cast<ULONG>(sizeof(KSPROPERTY)), &exposureValueTemp, static_cast<ULONG>(sizeof(exposureValueTemp)), &bytesReturned));
  SignalIfDetached();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthExtendedExposureControl::SetAuto() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(SetExposureMode(kAutoMode));
  SignalIfDetached();
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
