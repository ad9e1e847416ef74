#include "product/metadata/WQ400TimingToAttribute.h"

#include "mft_core/streams/FrameDropMonitor.h"

namespace mft_core {

void WQ400HwTimestampToAttribute::ExtractDataToAttribute(IMFSample *sample) {
  if (sample == nullptr) return;
  UvcMetaDataWrapper wrapper;
  if (FAILED(wrapper.Init(sample))) return;
  const uint8_t *header = wrapper.GetUsbVideoHeader();
  if (header == nullptr) return;
  const UINT32 hwTimestamp = ReadLittleU32(header);
  // A sample that cannot take the attribute simply goes without it.
  (void)sample->SetUINT32(VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, hwTimestamp);
  WQ_TRACE(Verbose, GetName() << " hardware timestamp " << hwTimestamp);
}

WQ400MetaDataCaptureTimingToAttribute::WQ400MetaDataCaptureTimingToAttribute(std::string name, bool keepLast)
    : MetadataToAttribute(std::move(name), VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, WQ400MetadataId_CaptureTiming,
                          keepLast) {}

void WQ400MetaDataCaptureTimingToAttribute::Process(Microsoft::WRL::ComPtr<IMFSample> sample) {
  MetadataToAttribute::Process(sample);
  if (!sample) return;
  // Read into a record on the stack rather than an allocated copy: a blob of any other length either
  // fails to fit or comes back short, and both leave the counter alone.
  VeldaraWQ400MetaDataTavixCaptureTiming timing{};
  UINT32 blobSize = 0;
  if (FAILED(sample->GetBlob(VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, reinterpret_cast<UINT8 *>(&timing),
                             sizeof(timing), &blobSize)) ||
      blobSize != sizeof(timing)) {
    return;
  }
  LOG_IF_FAILED(sample->SetUINT32(WQ400_MF_FRAME_COUNTER, timing.frameCounter));
}

}  // namespace mft_core
