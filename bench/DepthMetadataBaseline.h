// The platform work a depth frame's metadata cannot avoid: fetch the capture-metadata buffer from the
// sample (the metadata store, its raw-stream buffer, lock and unlock) and set the records the depth
// transform attaches, taken out of the frame once beforehand.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "mft_core/streams/FrameDropMonitor.h"
#include "platform/WindowsSdk.h"
#include "product/metadata/UvcMetaDataWrapper.h"
#include "product/metadata/WQ400MetadataRecords.h"

namespace bench {

class DepthMetadataBaseline {
 public:
  // Reads the six records, the hardware timestamp and the frame counter out of `sample`.
  bool Init(IMFSample *sample) {
    using namespace mft_core;
    const std::pair<GUID, uint32_t> records[] = {
        {MFSampleExtension_PinholeCameraIntrinsics, WQ400MetadataId_CameraIntrinsics},
        {MFStreamExtension_CameraExtrinsics, WQ400MetadataId_CameraExtrinsics},
        {VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, WQ400MetadataId_CaptureTiming},
        {VELDARA_SAMPLE_WQ400_STATISTICS, WQ400MetadataId_Stat},
        {VELDARA_SAMPLE_WQ400_CONFIGURATION, WQ400MetadataId_Configuration},
        {VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, WQ400MetadataId_DepthControl},
    };
    UvcMetaDataWrapper wrapper;
    if (FAILED(wrapper.Init(sample)) || wrapper.GetUsbVideoHeader() == nullptr) return false;
    hwTimestamp = ReadLittleU32(wrapper.GetUsbVideoHeader());
    for (const auto &record : records) {
      const MetadataItemView item = wrapper.GetMetadataItem(record.second, 0, 0xFFFF);
      if (!item) return false;
      blobs.push_back({record.first, std::vector<uint8_t>(item.data, item.data + item.size)});
      if (record.second == WQ400MetadataId_CaptureTiming) frameCounter = ReadLittleU32(item.data + 8);
    }
    return true;
  }

  // Fetches the metadata buffer and sets the six records; with `timing`, the hardware timestamp and the
  // frame counter as well.
  void Attach(IMFSample *sample, bool timing) const {
    Microsoft::WRL::ComPtr<IMFAttributes> metadata;
    Microsoft::WRL::ComPtr<IMFMediaBuffer> buffer;
    BYTE *bytes = nullptr;
    DWORD length = 0;
    if (FAILED(sample->GetUnknown(MFSampleExtension_CaptureMetadata, IID_PPV_ARGS(&metadata))) ||
        FAILED(metadata->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, IID_PPV_ARGS(&buffer))) ||
        FAILED(buffer->Lock(&bytes, nullptr, &length))) {
      return;
    }
    buffer->Unlock();
    for (const Blob &blob : blobs) {
      sample->SetBlob(blob.attribute, blob.bytes.data(), static_cast<UINT32>(blob.bytes.size()));
    }
    if (!timing) return;
    sample->SetUINT32(mft_core::VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, hwTimestamp);
    sample->SetUINT32(mft_core::WQ400_MF_FRAME_COUNTER, frameCounter);
  }

 private:
  struct Blob {
    GUID attribute;
    std::vector<uint8_t> bytes;
  };
  std::vector<Blob> blobs;
  UINT32 hwTimestamp = 0;
  UINT32 frameCounter = 0;
};

}  // namespace bench
