// One depth frame through the whole depth transform made by the built DLL (LoadLibraryW and its class
// object, as the frame server makes it): ProcessInput with the camera's capture metadata (metadata
// parser, timestamp node, exposure observer, output queue), the have-output event, ProcessOutput.
// Baseline: the bare platform work a transform cannot avoid to hand the same frame on with its
// attributes: fetch and lock the capture-metadata buffer, set the six records, the hardware timestamp
// and the frame counter on the sample, hold it in a queue, queue and pull METransformHaveOutput, hand
// the sample out.
#include <cstdio>
#include <deque>

#include "bench/BenchTiming.h"
#include "bench/DepthMetadataBaseline.h"
#include "bench/DepthProductTransform.h"
#include "bench/MediaFoundationSession.h"
#include "bench/RunningTransform.h"
#include "platform/WindowsSdk.h"

using Microsoft::WRL::ComPtr;

int main() {
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  int status = 0;
  {
    tools::DllTransformFactory factory(tools::DllTransformFactory::DefaultModulePath());
    if (!bench::LoadDepthProduct(factory)) return 1;
    bench::RunningTransform depth;
    const HRESULT hr = bench::StartDepthProduct(factory, depth);
    ComPtr<IMFSample> sample = bench::MakeCapturedFrame(sim::CameraKind::Depth, 848 * 480 * 2);
    bench::DepthMetadataBaseline metadata;
    if (FAILED(hr) || !sample || !metadata.Init(sample.Get())) {
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
      metadata.Attach(sample.Get(), true);
      held.emplace_back(sample.Get());
      ComPtr<IMFMediaEvent> event;
      queue->QueueEventParamVar(METransformHaveOutput, GUID_NULL, S_OK, nullptr);
      queue->GetEvent(MF_EVENT_FLAG_NO_WAIT, &event);
      IMFSample *out = held.front().Detach();
      held.pop_front();
      out->Release();
    };

    bench::Print("depth_product_path", bench::Compare({301, 40, 5}, productStep, baselineStep));
    if (status != 0) std::fprintf(stderr, "a frame did not come out\n");
    queue->Shutdown();
    depth.Stop();
  }
  return status;
}
