#include "product/metadata/WQ400TimingToAttribute.h"

#include <cstddef>

#include "mft_core/streams/FrameDropMonitor.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

void WQ400HwTimestampToAttribute::ExtractFromMetadata(IMFSample *sample, const UvcMetaDataWrapper &metadata) {
  WQ_SCOPE();
  if (sample == nullptr) return;
  // Null unless the wrapper opened a buffer holding the whole header.
  const uint8_t *header = metadata.GetUsbVideoHeader();
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
  WQ_SCOPE();
  MetadataToAttribute::Process(sample);
  SetFrameCounterFromBlob(sample.Get());
}

void WQ400MetaDataCaptureTimingToAttribute::ProcessFrame(IMFSample *sample, const UvcMetaDataWrapper &metadata) {
  const uint8_t *attached = nullptr;
  {
    WQ_SCOPE_AS(MetadataRecordTypeName<VeldaraWQ400MetaDataTavixCaptureTiming>::processFunction);
    attached = AttachRecord(sample, metadata);
  }
  if (attached == nullptr) {
    SetFrameCounterFromBlob(sample);
    return;
  }
  // The blob the sample now carries is this very record: its counter is read without fetching it back.
  const UINT32 counter = ReadLittleU32(attached + offsetof(VeldaraWQ400MetaDataTavixCaptureTiming, frameCounter));
  LOG_IF_FAILED(sample->SetUINT32(WQ400_MF_FRAME_COUNTER, counter));
}

// The counter comes from whatever capture-timing blob the sample carries now, not from the item.
void WQ400MetaDataCaptureTimingToAttribute::SetFrameCounterFromBlob(IMFSample *sample) {
  WQ_SCOPE();
  if (sample == nullptr) return;
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
