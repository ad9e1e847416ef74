#include "ProductHarness.h"

#include <cstring>

#include "product/metadata/WQ400MetadataRecords.h"

using Microsoft::WRL::ComPtr;

namespace product_test {

std::vector<BYTE> ProductHarness::StreamBlob(DWORD outputStreamId, REFGUID key) {
  ComPtr<IMFAttributes> attributes;
  EXPECT_EQ(S_OK, device->GetOutputStreamAttributes(outputStreamId, attributes.GetAddressOf()));
  UINT32 size = 0;
  if (!attributes || FAILED(attributes->GetBlobSize(key, &size))) return {};
  std::vector<BYTE> blob(size);
  EXPECT_EQ(S_OK, attributes->GetBlob(key, blob.data(), size, &size));
  return blob;
}

HRESULT ProductHarness::Start(UINT32 width, UINT32 height, UINT32 fps) {
  ComPtr<IMFMediaType> type;
  HRESULT hr = host->FindOutputType(0, width, height, fps, type.GetAddressOf());
  if (SUCCEEDED(hr)) hr = host->StartStream(0, type.Get());
  return hr;
}

HRESULT ProductHarness::ExposureProperty(ULONG flags, std::vector<BYTE> &data) {
  KSPROPERTY property = {};
  property.Set = KSPROPERTYSETID_ExtendedCameraControl;
  property.Id = KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE;
  property.Flags = flags;
  ULONG bytesReturned = 0;
  return host->ApplicationKsControl()->KsProperty(&property, sizeof(property), data.data(),
                                                  static_cast<ULONG>(data.size()), &bytesReturned);
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
  return ExposureProperty(KSPROPERTY_TYPE_SET, data);
}

HRESULT ProductHarness::GetExposureMode(KSCAMERA_EXTENDEDPROP_HEADER &header,
                                        KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING &setting) {
  std::vector<BYTE> data(sizeof(header) + sizeof(setting));
  const HRESULT hr = ExposureProperty(KSPROPERTY_TYPE_GET, data);
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

HRESULT ProductHarness::SetGain(LONG gain) {
  KSPROPERTY_VIDEOPROCAMP_S request = {};
  request.Property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  request.Property.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
  request.Property.Flags = KSPROPERTY_TYPE_SET;
  request.Value = gain;
  request.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
  ULONG bytesReturned = 0;
  return host->ApplicationKsControl()->KsProperty(&request.Property, sizeof(request), &request, sizeof(request),
                                                  &bytesReturned);
}

HRESULT ProductHarness::GetGain(LONG &gain) {
  KSPROPERTY_VIDEOPROCAMP_S request = {};
  request.Property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  request.Property.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
  request.Property.Flags = KSPROPERTY_TYPE_GET;
  ULONG bytesReturned = 0;
  const HRESULT hr = host->ApplicationKsControl()->KsProperty(&request.Property, sizeof(request), &request,
                                                              sizeof(request), &bytesReturned);
  gain = request.Value;
  return hr;
}

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

}  // namespace product_test
