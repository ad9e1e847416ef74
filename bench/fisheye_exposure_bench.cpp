// The fisheye exposure control's work per pair of frames (one analysed by the engine, one skipped, both
// read for their fisheye control record, with the engine's exposure and gain writes to the simulated
// camera), against the engine alone analysing one frame of the same picture.
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/BenchTiming.h"
#include "bench/MediaFoundationSession.h"

#include "product/controls/WQ400FishEyeExtendedExposureControl.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"

namespace {

using Microsoft::WRL::ComPtr;

constexpr DWORD kFrameBytes = 640 * 480;

// Rows from dark to bright, so that the engine has a histogram to work on.
void Paint(BYTE *pixels) {
  for (int row = 0; row < 480; ++row) std::memset(pixels + row * 640, 40 + row * 160 / 480, 640);
}

}  // namespace

int main() {
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  int status = 0;
  {
    auto filter = sim::SimulatedCameraFilter::Create(sim::FisheyeCamera());
    ComPtr<IMFTransform> transform;
    ComPtr<IKsControl> ksControl;
    auto unit = user_space_frameworks::MakeComObject<mft_core::ExtensionUnitKsControl>(sim::kFisheyeXuSet, "Fisheye ");
    ComPtr<IMFSample> sample;
    ComPtr<IMFMediaBuffer> buffer;
    BYTE *pixels = nullptr;
    if (!filter || FAILED(filter.As(&transform)) || FAILED(filter.As(&ksControl)) ||
        FAILED(unit->Init(transform, ksControl, 1)) || FAILED(MFCreateSample(sample.GetAddressOf())) ||
        FAILED(MFCreateMemoryBuffer(kFrameBytes, buffer.GetAddressOf())) || FAILED(buffer->Lock(&pixels, nullptr, nullptr))) {
      std::fprintf(stderr, "no camera or sample\n");
      return 1;
    }
    Paint(pixels);
    buffer->Unlock();
    buffer->SetCurrentLength(kFrameBytes);
    sample->AddBuffer(buffer.Get());
    VeldaraWQ400MetaDataTavixFishEyeControl record = {};
    record.metaDataId = mft_core::WQ400MetadataId_FishEyeControl;
    record.flags = 0x3;
    record.gain = 16;
    record.exposure = 400;
    sample->SetBlob(mft_core::VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL, reinterpret_cast<const UINT8 *>(&record),
                    sizeof(record));

    mft_core::FishEyeExposureSettings settings;
    auto control = std::make_shared<mft_core::WQ400FishEyeExtendedExposureControl>(unit, ksControl, settings);
    auto productStep = [&] {
      control->OnSamplePreProcess(sample.Get());
      control->OnSamplePreProcess(sample.Get());
    };

    autoexposure::CAutoExposure engine{autoexposure::AutoExposureSettings()};
    std::vector<BYTE> frame(kFrameBytes);
    Paint(frame.data());
    auto baselineStep = [&] {
      if (engine.AddImage(frame.data(), 480, 640, 640) != autoexposure::Status::Ok) status = 2;
    };

    bench::Print("fisheye_exposure_frame_pair", bench::Compare({21, 200, 1}, productStep, baselineStep));
    if (status != 0) std::fprintf(stderr, "the engine refused a frame\n");
  }
  return status;
}
