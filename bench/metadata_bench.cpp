// Baseline: the platform work a frame's metadata cannot avoid: fetch the capture-metadata buffer from the
// sample (the metadata store, its raw-stream buffer, lock and unlock) and attach the same six record
// blobs to the sample. Measured: the depth metadata parser (seven converters) on a frame carrying every
// item, in the same run.
#include <cstdio>

#include "bench/BenchTiming.h"
#include "bench/DepthMetadataBaseline.h"
#include "bench/MediaFoundationSession.h"
#include "platform/WindowsSdk.h"
#include "product/metadata/WQ400MetadataParsers.h"
#include "sim/CameraMetadataWriter.h"

int main() {
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  sim::CameraMetadataWriter camera(sim::CameraKind::Depth);
  Microsoft::WRL::ComPtr<IMFSample> sample;
  bench::DepthMetadataBaseline baseline;
  if (FAILED(MFCreateSample(&sample)) || FAILED(camera.WriteNextFrame(sample.Get())) || !baseline.Init(sample.Get())) {
    return 1;
  }
  mft_core::WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  const auto parse = [&] { parser.Parse(sample.Get()); };
  const auto attach = [&] { baseline.Attach(sample.Get(), false); };
  bench::Print("metadata_depth_parser", bench::Compare({301, 100, 5}, parse, attach), bench::Unit::Microseconds);
  return 0;
}
