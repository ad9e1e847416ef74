// The converters that carry the camera's timing onto each sample: the hardware timestamp from the USB
// video header, and the capture-timing record with the frame counter read back from it.
#pragma once

#include "product/metadata/MetadataToAttribute.h"

namespace mft_core {

class WQ400HwTimestampToAttribute : public IMetadataToAttribute {
 public:
  explicit WQ400HwTimestampToAttribute(std::string name) : IMetadataToAttribute(std::move(name)) {}
  // Sets VELDARA_SAMPLE_WQ400_HW_TIMESTAMP to the header's first word; nothing without metadata.
  void ExtractFromMetadata(IMFSample *sample, const UvcMetaDataWrapper &metadata) override;
};

class WQ400MetaDataCaptureTimingToAttribute : public MetadataToAttribute<VeldaraWQ400MetaDataTavixCaptureTiming> {
 public:
  WQ400MetaDataCaptureTimingToAttribute(std::string name, bool keepLast);
  // The capture-timing blob, then WQ400_MF_FRAME_COUNTER from whatever capture-timing
  // blob the sample carries afterwards.
  void Process(Microsoft::WRL::ComPtr<IMFSample> sample) override;
  void ProcessFrame(IMFSample *sample, const UvcMetaDataWrapper &metadata) override;

 private:
  static void SetFrameCounterFromBlob(IMFSample *sample);
};

}  // namespace mft_core
