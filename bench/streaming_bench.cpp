// One sample's trip from input stream to ProcessOutput (input stream wired straight to an output stream,
// as a pass-through topology does), against the bare platform work the trip cannot avoid: hold the
// sample in a deque, queue METransformHaveOutput on a real event queue, pull the event, hand the sample out.
#include <cstdio>
#include <deque>

#include "bench/BenchTiming.h"
#include "bench/MediaFoundationSession.h"

#include "mft_core/streams/InputStream.h"
#include "mft_core/streams/OutputStream.h"
#include "mft_core/transform/MediaEventGenerator.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"

namespace {

using Microsoft::WRL::ComPtr;

class BenchEventGenerator : public mft_core::MediaEventGenerator {
  WQ_IMPLEMENT_IUNKNOWN(BenchEventGenerator, IMFMediaEventGenerator)
};

}  // namespace

int main() {
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  int status = 0;
  {
    ComPtr<IMFSample> sample;
    ComPtr<IMFMediaBuffer> buffer;
    if (FAILED(MFCreateSample(sample.GetAddressOf())) || FAILED(MFCreateMemoryBuffer(64, buffer.GetAddressOf())) ||
        FAILED(sample->AddBuffer(buffer.Get())) || FAILED(sample->SetSampleTime(0))) {
      std::fprintf(stderr, "no sample\n");
      return 1;
    }

    auto generator = user_space_frameworks::MakeComObject<BenchEventGenerator>();
    auto inputStream = std::make_shared<mft_core::InputStream>(0, generator.Get());
    auto outputStream = std::make_shared<mft_core::OutputStream>(0, generator.Get(), mft_core::OutputStreamConfiguration{});
    inputStream->Connect(outputStream);
    inputStream->SetState(DeviceStreamState_Run);
    outputStream->SetState(DeviceStreamState_Run);
    ComPtr<IMFMediaEvent> event;
    while (generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.ReleaseAndGetAddressOf()) == S_OK) {
    }

    auto productStep = [&] {
      inputStream->Process(sample.Get());
      generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.ReleaseAndGetAddressOf());
      MFT_OUTPUT_DATA_BUFFER out{};
      if (outputStream->ProcessOutput(out, 0) != S_OK || out.pSample == nullptr) status = 2;
      else out.pSample->Release();
    };

    ComPtr<IMFMediaEventQueue> queue;
    MFCreateEventQueue(queue.GetAddressOf());
    std::deque<ComPtr<IMFSample>> held;
    auto baselineStep = [&] {
      held.emplace_back(sample.Get());
      queue->QueueEventParamVar(METransformHaveOutput, GUID_NULL, S_OK, nullptr);
      queue->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.ReleaseAndGetAddressOf());
      MFT_OUTPUT_DATA_BUFFER out{};
      out.pSample = held.front().Detach();
      held.pop_front();
      out.pSample->Release();
    };

    bench::Print("streaming_passthrough", bench::Compare({301, 200, 5}, productStep, baselineStep));
    if (status != 0) std::fprintf(stderr, "a sample did not come out\n");
    queue->Shutdown();
    generator->Shutdown();
  }
  return status;
}
