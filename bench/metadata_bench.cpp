// Baseline: the platform work a frame's metadata cannot avoid: fetch the capture-metadata buffer from the
// sample (the metadata store, its raw-stream buffer, lock and unlock) and attach the same six record
// blobs to the sample. Measured: the depth metadata parser (seven converters) on a frame carrying every
// item, in the same run.
#include <cstdio>
#include <vector>

#include "bench/BenchTiming.h"
#include "platform/WindowsSdk.h"
#include "product/metadata/UvcMetaDataWrapper.h"
#include "product/metadata/WQ400MetadataParsers.h"
#include "sim/CameraMetadataWriter.h"

namespace {

using Microsoft::WRL::ComPtr;
using namespace mft_core;

int Run() {
  sim::CameraMetadataWriter camera(sim::CameraKind::Depth);
  ComPtr<IMFSample> sample;
  if (FAILED(MFCreateSample(&sample)) || FAILED(camera.WriteNextFrame(sample.Get()))) return 1;

  // The baseline's blobs: the same records, taken out of the frame once.
  struct Blob {
    GUID attribute;
    std::vector<uint8_t> bytes;
  };
  std::vector<Blob> blobs;
  {
    const std::pair<GUID, uint32_t> records[] = {
        {MFSampleExtension_PinholeCameraIntrinsics, WQ400MetadataId_CameraIntrinsics},
        {MFStreamExtension_CameraExtrinsics, WQ400MetadataId_CameraExtrinsics},
        {VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, WQ400MetadataId_CaptureTiming},
        {VELDARA_SAMPLE_WQ400_STATISTICS, WQ400MetadataId_Stat},
        {VELDARA_SAMPLE_WQ400_CONFIGURATION, WQ400MetadataId_Configuration},
        {VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, WQ400MetadataId_DepthControl},
    };
    UvcMetaDataWrapper wrapper;
    if (FAILED(wrapper.Init(sample))) return 1;
    for (const auto &record : records) {
      const MetadataItemView item = wrapper.GetMetadataItem(record.second, 0, 0xFFFF);
      if (!item) return 1;
      blobs.push_back({record.first, std::vector<uint8_t>(item.data, item.data + item.size)});
    }
  }

  WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  const auto parse = [&] { parser.Parse(sample.Get()); };
  const auto attach = [&] {
    ComPtr<IMFAttributes> metadata;
    ComPtr<IMFMediaBuffer> buffer;
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
  };
  bench::Print("metadata_depth_parser", bench::Compare({21, 2000, 1}, parse, attach), bench::Unit::Microseconds);
  return 0;
}

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) || FAILED(MFStartup(MF_VERSION, MFSTARTUP_FULL))) return 1;
  const int result = Run();
  MFShutdown();
  CoUninitialize();
  return result;
}
