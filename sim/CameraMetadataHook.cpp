#include "sim/CameraMetadataHook.h"

#include <map>
#include <memory>
#include <mutex>

namespace sim {

MetadataHook MakeCameraMetadataHook(CameraKind kind) {
  struct Writers {
    std::mutex mutex;
    std::map<DWORD, std::shared_ptr<CameraMetadataWriter>> byStream;
  };
  auto writers = std::make_shared<Writers>();
  return [kind, writers](IMFSample *sample, const FrameInfo &info) -> HRESULT {
    std::shared_ptr<CameraMetadataWriter> writer;
    {
      std::lock_guard<std::mutex> hold(writers->mutex);
      auto &entry = writers->byStream[info.streamId];
      // A restarted stream counts from its first frame again.
      if (!entry || info.frameCounter == 1) {
        entry = std::make_shared<CameraMetadataWriter>(kind, static_cast<uint32_t>(info.frameCounter),
                                                       info.fps ? 1000000u / info.fps : 33333u);
      }
      writer = entry;
    }
    const uint32_t expected = writer->GetLastFrameCounter() + 1;
    if (writer->GetLastFrameCounter() != 0 && info.frameCounter > expected) {
      writer->SkipFrameCounters(static_cast<uint32_t>(info.frameCounter - expected));
    }
    if (kind == CameraKind::Depth) writer->SetDepthExposure(static_cast<uint32_t>(info.reportedExposureUs));
    // The fisheye camera reports the gain and exposure each frame was taken with (flags: both valid).
    if (kind == CameraKind::FishEye) {
      writer->SetFishEyeControl(0x3, static_cast<uint32_t>(info.gain), static_cast<uint32_t>(info.exposureUs));
    }
    return writer->WriteNextFrame(sample);
  };
}

}  // namespace sim
