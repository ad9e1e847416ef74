#include "product/controls/WQ400FishEyeExtendedExposureControl.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "product/metadata/WQ400MetadataRecords.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

namespace {

const wchar_t kFishEyeExposureKey[] = L"Software\\Tavix\\Veldara\\WQ4XX\\FEExposure";

DWORD ReadDword(const wchar_t *valueName, DWORD fallback) {
  DWORD value = 0;
  DWORD size = sizeof(value);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kFishEyeExposureKey, valueName, RRF_RT_REG_DWORD, nullptr, &value, &size) !=
      ERROR_SUCCESS) {
    return fallback;
  }
  return value;
}

// The reply of a basic-support query on a standard control: one stepped range.
struct SteppedRangeReply {
  KSPROPERTY_DESCRIPTION description;
  KSPROPERTY_MEMBERSHEADER header;
  KSPROPERTY_STEPPING_LONG stepping;
};
struct DefaultValueReply {
  KSPROPERTY_DESCRIPTION description;
  KSPROPERTY_MEMBERSHEADER header;
  LONG value;
};
static_assert(offsetof(SteppedRangeReply, header) == sizeof(KSPROPERTY_DESCRIPTION) &&
                  offsetof(SteppedRangeReply, stepping) ==
                      sizeof(KSPROPERTY_DESCRIPTION) + sizeof(KSPROPERTY_MEMBERSHEADER),
              "stepped range reply layout");
static_assert(sizeof(KSPROPERTY_VIDEOPROCAMP_S) == 40, "KSPROPERTY_VIDEOPROCAMP_S");

// One sensor line in milliseconds: the engine sets exposures in whole lines.
constexpr float kLineMs = autoexposure::kLineTimeUs / 1000.0f;

// The engine's refusals as results: it refuses only values that this control computed itself.
HRESULT EngineResult(autoexposure::Status status) {
  return status == autoexposure::Status::Ok ? S_OK : E_INVALIDARG;
}

constexpr uint32_t kFishEyeGainValid = 0x1;
constexpr uint32_t kFishEyeExposureValid = 0x2;

}  // namespace

FishEyeExposureSettings FishEyeExposureSettings::FromRegistry() {
  WQ_SCOPE();
  FishEyeExposureSettings settings;
  settings.numConvergedSamplesForLock = ReadDword(L"NumConvergedSamplesForLock", settings.numConvergedSamplesForLock);
  settings.autoLockConvergeDelta = ReadDword(L"AutoLockConvergeDelta", settings.autoLockConvergeDelta);
  settings.manualConvergeDelta = ReadDword(L"ManualConvergeDelta", settings.manualConvergeDelta);
  settings.aeStateLog = ReadDword(L"AEStateLog", 0) != 0;
  return settings;
}

WQ400FishEyeExtendedExposureControl::WQ400FishEyeExtendedExposureControl(
    ComPtr<ExtensionUnitKsControl> extensionUnitKsControl, ComPtr<IKsControl> filterKsControl)
    : WQ400FishEyeExtendedExposureControl(std::move(extensionUnitKsControl), std::move(filterKsControl),
                                          FishEyeExposureSettings::FromRegistry()) {}

WQ400FishEyeExtendedExposureControl::WQ400FishEyeExtendedExposureControl(
    ComPtr<ExtensionUnitKsControl> extensionUnitKsControl, ComPtr<IKsControl> filterKsControl,
    const FishEyeExposureSettings &settings)
    : ExtendedExposureControl("WQ4xx Fish Eye Extended Exposure Mode", extensionUnitKsControl.Get(),
                              settings.manualConvergeDelta, settings.autoLockConvergeDelta,
                              settings.numConvergedSamplesForLock),
      callback(std::make_shared<user_space_frameworks::Callback<WQ400FishEyeExtendedExposureControl, IMFSample *, void>>(
          this, &WQ400FishEyeExtendedExposureControl::OnSamplePreProcess)),
      extensionUnitKsControl(std::move(extensionUnitKsControl)),
      filterKsControl(std::move(filterKsControl)),
      aeStateLog(settings.aeStateLog) {
  autoexposure::AutoExposureSettings engineSettings;
  // Plain engine: a tracking camera wants the shortest exposure that lights the scene, which the
  // whole-period exposures of the anti-flicker engines would forbid.
  engineSettings.kind = autoexposure::EngineKind::Plain;
  engineSettings.onSetExposure = [](void *context, float exposureMs, float gain, uint32_t flags) {
    (void)OnSetExposure(context, exposureMs, gain, flags);
  };
  engineSettings.onImageDone = [](void *context, const uint8_t *pixelBuffer) { (void)OnImageDone(context, pixelBuffer); };
  engineSettings.context = this;
  if (settings.aeStateLog) {
    // The log's folder may not exist yet; a log that cannot be opened stays off.
    CreateDirectoryW(L"c:\\Tavix", nullptr);
    CreateDirectoryW(L"c:\\Tavix\\Logs", nullptr);
    engineSettings.flags = autoexposure::kFlagLog;
    engineSettings.logPath = kAeStateLogPath;
  }
  engine = std::make_unique<autoexposure::CAutoExposure>(engineSettings);
  ReadDeviceLimits();
}

WQ400FishEyeExtendedExposureControl::~WQ400FishEyeExtendedExposureControl() {
  if (subject) subject->UnregisterPreProcessObserver(callback);
  user_space_frameworks::AutoLock guard(lock);
  ReleaseFrameBuffer();
}

void WQ400FishEyeExtendedExposureControl::ReadDeviceLimits() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(lock);
  LONG minimum = 0, maximum = 0, step = 0, defaultValue = 0;
  if (SUCCEEDED(LOG_IF_FAILED(
          extensionUnitKsControl->QueryKsPropertyInfo(XU_EXPOSURE_ID, minimum, maximum, step, defaultValue)))) {
    if (minimum < 0 || maximum <= 0 || minimum > maximum) {
      WQ_TRACE(Error, "exposure range " << minimum << ".." << maximum << " us refused");
    } else {
      minExposureMs = minimum / 1000.0f;
      maxExposureMs = maximum / 1000.0f;
      exposureStepMs = step / 1000.0f;
      defaultExposureMs = defaultValue / 1000.0f;
    }
  }
  WQ_TRACE(Info, "exposure " << minExposureMs << ".." << maxExposureMs << " ms, step " << exposureStepMs
                             << ", default " << defaultExposureMs);

  const USHORT defaultExposure = static_cast<USHORT>(std::lround(defaultExposureMs * 1000.0f));
  bool exposureWorks = SUCCEEDED(LOG_IF_FAILED(extensionUnitKsControl->SetKsProperty(XU_EXPOSURE_ID, defaultExposure)));
  USHORT deviceExposure = 0;
  if (SUCCEEDED(LOG_IF_FAILED(extensionUnitKsControl->GetKsProperty(XU_EXPOSURE_ID, deviceExposure)))) {
    currentExposureMs = deviceExposure / 1000.0f;
  } else {
    exposureWorks = false;
    currentExposureMs = defaultExposureMs;
  }

  const bool gainRead = SUCCEEDED(GetDeviceGain(currentGain));
  LONG gainMinimum = 0, gainMaximum = 0;
  const bool gainRange = SUCCEEDED(LOG_IF_FAILED(QueryGainRange(gainMinimum, gainMaximum, step, defaultValue)));
  if (gainRange) {
    minGain = gainMinimum;
    maxGain = gainMaximum;
    gainStep = step > 0 ? step : 1;
    gainDefault = defaultValue;
  }
  if (!gainRead) currentGain = gainDefault;
  // The engine divides by its smallest gain, so a device minimum of 0 (no signal) becomes the first
  // gain above it on the device's grid.
  engineMinGain = static_cast<float>(minGain > 0 ? minGain : minGain + gainStep);
  engineMaxGain = std::max(static_cast<float>(maxGain), engineMinGain);
  if (!gainRange) {
    // Without a readable gain range the engine works on exposure alone, at the gain the sensor has.
    engineMinGain = engineMaxGain = static_cast<float>(std::max<LONG>(currentGain, 1));
  }
  WQ_TRACE(Info, "gain " << minGain << ".." << maxGain << " step " << gainStep << " default " << gainDefault
                         << ", current " << currentGain << "; engine gain " << engineMinGain << ".." << engineMaxGain);
  ConfigureEngine();

  // The engine may drive the camera only when its exposure control answered; otherwise the control
  // starts manual and waits for an application to ask for auto.
  if (!exposureWorks) {
    softwareAeOff = 1;
    ChangeState(ExposureControlState::ManualConverged);
  }
}

void WQ400FishEyeExtendedExposureControl::ConfigureEngine() {
  WQ_SCOPE();
  // Limits on whole sensor lines inside the device's range, so that a quantised exposure never
  // leaves the range.
  const float lineMin = std::max(std::ceil(minExposureMs / kLineMs), 1.0f) * kLineMs;
  const float lineMax = std::max(std::floor(maxExposureMs / kLineMs) * kLineMs, lineMin);
  LOG_IF_FAILED(EngineResult(engine->SetExposureLimits(lineMin, lineMax)));
  LOG_IF_FAILED(EngineResult(engine->SetGainLimits(engineMinGain, engineMaxGain)));
  const float exposure = std::clamp(currentExposureMs, lineMin, lineMax);
  const float gain = std::clamp(static_cast<float>(currentGain), engineMinGain, engineMaxGain);
  LOG_IF_FAILED(EngineResult(engine->SetExposureGain(exposure, gain)));
}

void WQ400FishEyeExtendedExposureControl::RegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node) {
  WQ_SCOPE();
  if (!node) return;
  // A restarted stream comes back with the same node: joining it twice would show every frame twice.
  if (subject == node) return;
  if (subject) subject->UnregisterPreProcessObserver(callback);
  subject = node;
  subject->RegisterPreProcessObserver(callback);
  attached = true;
}

void WQ400FishEyeExtendedExposureControl::UnRegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &) {
  WQ_SCOPE();
  if (subject) subject->UnregisterPreProcessObserver(callback);
  subject.reset();
  attached = false;
}

void WQ400FishEyeExtendedExposureControl::OnSamplePreProcess(IMFSample *sample) {
  WQ_SCOPE();
  const uint64_t frame = ++frameCounter;
  if (sample == nullptr) return;

  VeldaraWQ400MetaDataTavixFishEyeControl record = {};
  UINT32 blobSize = 0;
  if (SUCCEEDED(sample->GetBlob(VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL, reinterpret_cast<UINT8 *>(&record),
                                sizeof(record), &blobSize)) &&
      blobSize == sizeof(record)) {
    if (record.flags & kFishEyeGainValid) {
      user_space_frameworks::AutoLock guard(lock);
      currentGain = static_cast<LONG>(record.gain);
    }
    if (record.flags & kFishEyeExposureValid) {
      const uint32_t exposureUs = record.exposure & 0xFFFF;
      {
        user_space_frameworks::AutoLock guard(lock);
        currentExposureMs = exposureUs / 1000.0f;
      }
      OnSample(exposureUs * 10);
    }
  }

  // Every other frame: an exposure written while one frame is processed shows only from a later one,
  // so the frame right after a decision would be judged at the old exposure and stepped twice.
  if ((frame & 1) == 0 || softwareAeOff.load() != 0) return;
  user_space_frameworks::AutoLock guard(lock);
  AnalyseFrame(sample);
}

void WQ400FishEyeExtendedExposureControl::AnalyseFrame(IMFSample *sample) {
  WQ_SCOPE();
  if (softwareAeOff.load() != 0) return;
  ComPtr<IMFMediaBuffer> buffer;
  if (FAILED(LOG_IF_FAILED(sample->ConvertToContiguousBuffer(buffer.GetAddressOf())))) return;
  DWORD length = 0;
  if (FAILED(LOG_IF_FAILED(buffer->GetCurrentLength(&length)))) return;
  constexpr DWORD kFrameBytes = static_cast<DWORD>(kEngineColumns) * kEngineRows;
  if (length != kFrameBytes) {
    if (!geometryRefusalTraced) {
      WQ_TRACE(Warning, "frame of " << length << " bytes is not " << kEngineColumns << "x" << kEngineRows
                                    << " grey; auto exposure skips such frames");
      geometryRefusalTraced = true;
    }
    return;
  }
  geometryRefusalTraced = false;
  BYTE *pixels = nullptr;
  if (FAILED(LOG_IF_FAILED(buffer->Lock(&pixels, nullptr, nullptr)))) return;
  frameBuffer = buffer;
  framePixels = pixels;
  const autoexposure::Status status = engine->AddImage(pixels, kEngineRows, kEngineColumns, kEngineColumns);
  if (status != autoexposure::Status::Ok) {
    WQ_TRACE(Warning, "the engine refused the frame (" << static_cast<int>(status) << ")");
  }
  if (aeStateLog) engine->Engine().Log().Flush();
  // The engine hands every frame back through OnImageDone; a frame it kept is let go here all the same.
  ReleaseFrameBuffer();
}

void WQ400FishEyeExtendedExposureControl::ReleaseFrameBuffer() {
  WQ_SCOPE();
  if (!frameBuffer) return;
  LOG_IF_FAILED(frameBuffer->Unlock());
  frameBuffer.Reset();
  framePixels = nullptr;
}

HRESULT WQ400FishEyeExtendedExposureControl::OnImageDone(void *context, const uint8_t *pixelBuffer) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(context);
  RETURN_IF_NULL(pixelBuffer);
  auto *control = static_cast<WQ400FishEyeExtendedExposureControl *>(context);
  user_space_frameworks::AutoLock guard(control->lock);
  RETURN_HR_IF(E_INVALIDARG, pixelBuffer != control->framePixels);
  control->ReleaseFrameBuffer();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::OnSetExposure(void *context, float exposureMs, float gain,
                                                          uint32_t flags) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(context);
  auto *control = static_cast<WQ400FishEyeExtendedExposureControl *>(context);
  user_space_frameworks::AutoLock guard(control->lock);
  return control->ApplyEngineRequest(exposureMs, gain, flags);
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::ApplyEngineRequest(float exposureMs, float gain, uint32_t flags) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (softwareAeOff.load() != 0) return S_OK;
  bool refused = false;
  if (flags & autoexposure::kSetGain) {
    if (gain < static_cast<float>(minGain) || gain > static_cast<float>(maxGain)) {
      // The whole request ends here: the exposure was chosen together with this gain.
      WQ_TRACE(Warning, "engine gain " << gain << " outside " << minGain << ".." << maxGain << "; request dropped");
      return S_OK;
    }
    LONG deviceGain = static_cast<LONG>(gain);
    deviceGain = minGain + (deviceGain - minGain) / gainStep * gainStep;
    if (deviceGain != currentGain) {
      const HRESULT hr = SetDeviceGain(deviceGain);
      WQ_TRACE(Verbose, "gain " << currentGain << " -> " << deviceGain << ": " << user_space_frameworks::trace::HrText(hr));
      if (SUCCEEDED(hr)) {
        currentGain = deviceGain;
      } else {
        refused = true;
      }
    }
  }
  if (flags & autoexposure::kSetExposure) {
    float exposure = exposureMs;
    if (exposure < minExposureMs || exposure > maxExposureMs) {
      // Scaled once and deliberately not clamped: the device refuses what is still out of range.
      WQ_TRACE(Warning, "engine exposure " << exposure << " ms outside " << minExposureMs << ".." << maxExposureMs);
      exposure *= 0.95f;
    }
    if (exposure != currentExposureMs) {
      // Microseconds truncated to the control's two bytes; the device judges a value out of its range.
      const USHORT deviceExposure = static_cast<USHORT>(static_cast<long long>(exposure * 1000.0f));
      if (SUCCEEDED(LOG_IF_FAILED(extensionUnitKsControl->SetKsProperty(XU_EXPOSURE_ID, deviceExposure)))) {
        currentExposureMs = exposure;
      } else {
        refused = true;
      }
    }
  }
  // A refused write leaves the sensor where it was: the engine's next decision starts from there.
  if (refused) ConfigureEngine();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::GetDeviceGain(LONG &gain) {
  WQ_SCOPE_BEGIN(HRESULT);
  KSPROPERTY_VIDEOPROCAMP_S gainKsProperty = {};
  gainKsProperty.Property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  gainKsProperty.Property.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
  gainKsProperty.Property.Flags = KSPROPERTY_TYPE_GET;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(filterKsControl->KsProperty((PKSPROPERTY)&gainKsProperty, sizeof(gainKsProperty), &gainKsProperty, sizeof(gainKsProperty), &bytesReturned));
  gain = gainKsProperty.Value;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::SetDeviceGain(LONG gain) {
  WQ_SCOPE_BEGIN(HRESULT);
  KSPROPERTY_VIDEOPROCAMP_S request = {};
  request.Value = gain;
  request.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
  return SendGainProperty(KSPROPERTY_TYPE_SET, request);
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::SendGainProperty(ULONG flags, KSPROPERTY_VIDEOPROCAMP_S &request) {
  WQ_SCOPE_BEGIN(HRESULT);
  request.Property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  request.Property.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
  request.Property.Flags = flags;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(
      filterKsControl->KsProperty(&request.Property, sizeof(request), &request, sizeof(request), &bytesReturned));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::QueryGainRange(LONG &minimum, LONG &maximum, LONG &step,
                                                           LONG &defaultValue) {
  WQ_SCOPE_BEGIN(HRESULT);
  KSPROPERTY gainKsProperty = {};
  gainKsProperty.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  gainKsProperty.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
  gainKsProperty.Flags = KSPROPERTY_TYPE_BASICSUPPORT;
  SteppedRangeReply range = {};
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(filterKsControl->KsProperty(&gainKsProperty, sizeof(gainKsProperty), &range, sizeof(range),
                                               &bytesReturned));
  RETURN_HR_IF(HRESULT_FROM_WIN32(ERROR_INVALID_DATA),
               bytesReturned < offsetof(SteppedRangeReply, stepping) + sizeof(KSPROPERTY_STEPPING_LONG) ||
                   range.header.MembersCount == 0 ||
                   range.stepping.Bounds.SignedMinimum > range.stepping.Bounds.SignedMaximum);
  gainKsProperty.Flags = KSPROPERTY_TYPE_DEFAULTVALUES;
  DefaultValueReply defaults = {};
  RETURN_IF_FAILED(filterKsControl->KsProperty(&gainKsProperty, sizeof(gainKsProperty), &defaults, sizeof(defaults),
                                               &bytesReturned));
  RETURN_HR_IF(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), bytesReturned < offsetof(DefaultValueReply, value) + sizeof(LONG));
  minimum = range.stepping.Bounds.SignedMinimum;
  maximum = range.stepping.Bounds.SignedMaximum;
  step = static_cast<LONG>(range.stepping.SteppingDelta);
  defaultValue = defaults.value;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(videoProcSetting);
  // Milliseconds to 100 ns units.
  videoProcSetting->Min = static_cast<LONG>(std::lround(minExposureMs * 10000.0f));
  videoProcSetting->Max = static_cast<LONG>(std::lround(maxExposureMs * 10000.0f));
  videoProcSetting->Step = static_cast<LONG>(std::lround(exposureStepMs * 10000.0f));
  USHORT deviceExposure = 0;
  RETURN_IF_FAILED(extensionUnitKsControl->GetKsProperty(XU_EXPOSURE_ID, deviceExposure));
  videoProcSetting->VideoProc.Value.ull = static_cast<ULONGLONG>(deviceExposure) * 10;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::SetManual(uint32_t exposure) {
  WQ_SCOPE_BEGIN(HRESULT);
  // The engine stops first, also when the request is refused below.
  softwareAeOff = 1;
  const float exposureMs = exposure / 10000.0f;
  if (exposureMs < minExposureMs || exposureMs > maxExposureMs) {
    WQ_TRACE(Warning, "manual exposure " << exposure << " (100 ns) outside " << minExposureMs << ".." << maxExposureMs
                                         << " ms");
    return E_INVALIDARG;
  }
  const USHORT deviceExposure = static_cast<USHORT>(exposure / 10);
  RETURN_IF_FAILED(extensionUnitKsControl->SetKsProperty(XU_EXPOSURE_ID, deviceExposure));
  currentExposureMs = deviceExposure / 1000.0f;
  if (!attached) (void)Signal();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeExtendedExposureControl::SetAuto() {
  WQ_SCOPE_BEGIN(HRESULT);
  softwareAeOff = 0;
  WQ_TRACE(Info, "software auto exposure on at " << currentExposureMs << " ms, gain " << currentGain);
  // Whatever a manual exposure did to the sensor, the engine resumes from it.
  ConfigureEngine();
  if (!attached) (void)Signal();
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
