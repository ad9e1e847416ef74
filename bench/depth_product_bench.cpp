// One depth frame through the whole depth transform made by the built DLL (LoadLibraryW and its class
// object, as the frame server makes it): ProcessInput with the camera's capture metadata (metadata
// parser, timestamp node, exposure observer, output queue), the have-output event, ProcessOutput.
// Baseline: the bare platform work a transform cannot avoid to hand the same frame on with its
// attributes: fetch and lock the capture-metadata buffer, set the six records, the hardware timestamp
// and the frame counter on the sample, hold it in a queue, queue and pull METransformHaveOutput, hand
// the sample out.
#include <cstdio>
#include <deque>
#include <vector>

#include "bench/BenchTiming.h"
#include "bench/RunningTransform.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "platform/WindowsSdk.h"
#include "product/metadata/UvcMetaDataWrapper.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "tools/DllTransformFactory.h"

namespace {

using Microsoft::WRL::ComPtr;
using namespace mft_core;

struct Blob {
  GUID attribute;
  std::vector<uint8_t> bytes;
};

// The records the depth transform attaches, taken out of the frame once.
bool ReadRecords(IMFSample *sample, std::vector<Blob> &blobs, UINT32 &hwTimestamp, UINT32 &frameCounter) {
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

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) || FAILED(MFStartup(MF_VERSION, MFSTARTUP_FULL))) {
    std::fprintf(stderr, "Media Foundation did not start\n");
    return 1;
  }
  int status = 0;
  {
    tools::DllTransformFactory factory(tools::DllTransformFactory::DefaultModulePath());
    if (!factory.Load()) {
      std::fprintf(stderr, "%s\n", factory.Error().c_str());
      return 1;
    }
    ComPtr<IMFDeviceTransform> device;
    bench::RunningTransform depth;
    HRESULT hr = factory.CreateTransform(sim::DepthCamera(), &device);
    if (SUCCEEDED(hr)) hr = depth.Start(sim::DepthCamera(), device, 848, 480, 30);
    ComPtr<IMFSample> sample = bench::MakeCapturedFrame(sim::CameraKind::Depth, 848 * 480 * 2);
    std::vector<Blob> blobs;
    UINT32 hwTimestamp = 0, frameCounter = 0;
    if (FAILED(hr) || !sample || !ReadRecords(sample.Get(), blobs, hwTimestamp, frameCounter)) {
      std::fprintf(stderr, "the depth transform did not start (0x%08lX)\n", static_cast<unsigned long>(hr));
      return 1;
    }

    const auto productStep = [&] {
      if (!depth.Frame(sample.Get())) status = 2;
    };

    ComPtr<IMFMediaEventQueue> queue;
    MFCreateEventQueue(queue.GetAddressOf());
    std::deque<ComPtr<IMFSample>> held;
    const auto baselineStep = [&] {
      ComPtr<IMFAttributes> metadata;
      ComPtr<IMFMediaBuffer> buffer;
      BYTE *bytes = nullptr;
      DWORD length = 0;
      if (SUCCEEDED(sample->GetUnknown(MFSampleExtension_CaptureMetadata, IID_PPV_ARGS(&metadata))) &&
          SUCCEEDED(metadata->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, IID_PPV_ARGS(&buffer))) &&
          SUCCEEDED(buffer->Lock(&bytes, nullptr, &length))) {
        buffer->Unlock();
      }
      for (const Blob &blob : blobs) {
        sample->SetBlob(blob.attribute, blob.bytes.data(), static_cast<UINT32>(blob.bytes.size()));
      }
      sample->SetUINT32(VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, hwTimestamp);
      sample->SetUINT32(WQ400_MF_FRAME_COUNTER, frameCounter);
      held.emplace_back(sample.Get());
      ComPtr<IMFMediaEvent> event;
      queue->QueueEventParamVar(METransformHaveOutput, GUID_NULL, S_OK, nullptr);
      queue->GetEvent(MF_EVENT_FLAG_NO_WAIT, &event);
      IMFSample *out = held.front().Detach();
      held.pop_front();
      out->Release();
    };

    bench::Print("depth_product_path", bench::Compare({31, 1000, 1}, productStep, baselineStep));
    if (status != 0) std::fprintf(stderr, "a frame did not come out\n");
    queue->Shutdown();
    depth.Stop();
  }
  MFShutdown();
  CoUninitialize();
  return status;
}
