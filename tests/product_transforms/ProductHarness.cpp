#include "ProductHarness.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "product/metadata/WQ400MetadataRecords.h"

using Microsoft::WRL::ComPtr;

namespace test_support {

sim::ControlConfig &UnitControl(sim::CameraConfig &camera, const GUID &set, ULONG id) {
  for (auto &unit : camera.extensionUnits) {
    if (unit.set != set) continue;
    for (auto &control : unit.controls) {
      if (control.id == id) return control;
    }
  }
  throw std::logic_error("the camera has no such unit control");
}

ComPtr<IMFMediaType> ProductHarness::OutputType(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(S_OK, host->FindOutputType(streamId, width, height, fps, type.GetAddressOf()));
  return type;
}

HRESULT ProductHarness::Start(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps) {
  ComPtr<IMFMediaType> type = OutputType(streamId, width, height, fps);
  if (!type) return MF_E_INVALIDMEDIATYPE;
  return host->StartStream(streamId, type.Get());
}

std::vector<BYTE> ProductHarness::StreamBlob(DWORD streamId, REFGUID key) {
  ComPtr<IMFAttributes> attributes;
  EXPECT_EQ(S_OK, device->GetOutputStreamAttributes(streamId, attributes.GetAddressOf()));
  UINT32 size = 0;
  if (!attributes || FAILED(attributes->GetBlobSize(key, &size))) return {};
  std::vector<BYTE> blob(size);
  EXPECT_EQ(S_OK, attributes->GetBlob(key, blob.data(), size, &size));
  return blob;
}

HRESULT ProductHarness::Property(const GUID &set, ULONG id, ULONG flags, void *data, ULONG size,
                                 ULONG *bytesReturned) {
  KSPROPERTY property = {set, id, flags};
  ULONG returned = 0;
  return host->ApplicationKsControl()->KsProperty(&property, sizeof(property), data, size,
                                                  bytesReturned ? bytesReturned : &returned);
}

HRESULT ProductHarness::SetExposureMode(ULONGLONG flags, ULONGLONG exposure) {
  std::vector<BYTE> data(sizeof(KSCAMERA_EXTENDEDPROP_HEADER) + sizeof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING));
  KSCAMERA_EXTENDEDPROP_HEADER header = {};
  header.Version = 1;
  header.PinId = 0xFFFFFFFF;
  header.Size = static_cast<ULONG>(data.size());
  header.Flags = flags;
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting = {};
  setting.VideoProc.Value.ull = exposure;
  std::memcpy(data.data(), &header, sizeof(header));
  std::memcpy(data.data() + sizeof(header), &setting, sizeof(setting));
  return Property(KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE,
                  KSPROPERTY_TYPE_SET, data.data(), static_cast<ULONG>(data.size()));
}

HRESULT ProductHarness::GetExposureMode(KSCAMERA_EXTENDEDPROP_HEADER &header,
                                        KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING &setting) {
  std::vector<BYTE> data(sizeof(header) + sizeof(setting));
  const HRESULT hr = Property(KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE,
                              KSPROPERTY_TYPE_GET, data.data(), static_cast<ULONG>(data.size()));
  std::memcpy(&header, data.data(), sizeof(header));
  std::memcpy(&setting, data.data() + sizeof(header), sizeof(setting));
  return hr;
}

HRESULT ProductHarness::SetAutoExposure() {
  autoDone.Reset();
  HRESULT hr = ArmExposureEvent(autoDone.Get());
  if (SUCCEEDED(hr)) hr = SetExposureMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO);
  if (SUCCEEDED(hr) && autoDone.Wait(5000) != WAIT_OBJECT_0) hr = E_FAIL;
  return hr;
}

HRESULT ProductHarness::ArmExposureEvent(HANDLE event) {
  KSEVENT ksEvent = {};
  ksEvent.Set = KSEVENTSETID_ExtendedCameraControl;
  ksEvent.Id = KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE;
  ksEvent.Flags = KSEVENT_TYPE_ONESHOT;
  static KSEVENTDATA eventData = {};
  eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
  eventData.EventHandle.Event = event;
  ULONG bytesReturned = 0;
  return host->ApplicationKsControl()->KsEvent(&ksEvent, sizeof(ksEvent), &eventData, sizeof(eventData),
                                               &bytesReturned);
}

HRESULT ProductHarness::GainProperty(ULONG flags, LONG &gain) {
  KSPROPERTY_VIDEOPROCAMP_S request = {};
  request.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, flags};
  if (flags == KSPROPERTY_TYPE_SET) {
    request.Value = gain;
    request.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
  }
  ULONG bytesReturned = 0;
  const HRESULT hr = host->ApplicationKsControl()->KsProperty(&request.Property, sizeof(request), &request,
                                                              sizeof(request), &bytesReturned);
  gain = request.Value;
  return hr;
}

HRESULT ProductHarness::SetGain(LONG gain) { return GainProperty(KSPROPERTY_TYPE_SET, gain); }

HRESULT ProductHarness::GetGain(LONG &gain) { return GainProperty(KSPROPERTY_TYPE_GET, gain); }

LONG ProductHarness::DeviceExposureUs() {
  const std::vector<BYTE> value = filter->GetControlValue(sim::kFisheyeXuSet, 1);
  uint16_t exposure = 0;
  std::memcpy(&exposure, value.data(), std::min(value.size(), sizeof(exposure)));
  return exposure;
}

LONG ProductHarness::DeviceGain() {
  return filter->GetStandardControlValue(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN);
}

void ProductHarness::Observe(IMFSample *sample) {
  DeliveredFrame frame;
  ComPtr<IMFMediaBuffer> buffer;
  if (SUCCEEDED(sample->ConvertToContiguousBuffer(buffer.GetAddressOf()))) {
    BYTE *data = nullptr;
    DWORD length = 0;
    if (SUCCEEDED(buffer->Lock(&data, nullptr, &length))) {
      uint64_t sum = 0;
      for (DWORD i = 0; i < length; ++i) sum += data[i];
      frame.mean = length ? static_cast<double>(sum) / length : 0;
      buffer->Unlock();
    }
  }
  VeldaraWQ400MetaDataTavixFishEyeControl record = {};
  UINT32 size = 0;
  if (SUCCEEDED(sample->GetBlob(mft_core::VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL, reinterpret_cast<UINT8 *>(&record),
                                sizeof(record), &size)) &&
      size == sizeof(record)) {
    frame.hasControlRecord = true;
    frame.exposureUs = record.exposure;
    frame.gain = record.gain;
  }
  if (extraObserver) extraObserver(sample);
  std::lock_guard<std::mutex> hold(mutex);
  frames.push_back(frame);
}

std::vector<DeliveredFrame> ProductHarness::Frames() {
  std::lock_guard<std::mutex> hold(mutex);
  return frames;
}

size_t ProductHarness::FrameCount() {
  std::lock_guard<std::mutex> hold(mutex);
  return frames.size();
}

bool ProductHarness::WaitForFrames(size_t count, int timeoutMs) {
  return WaitFor([&] { return FrameCount() >= count; }, timeoutMs);
}

}  // namespace test_support
