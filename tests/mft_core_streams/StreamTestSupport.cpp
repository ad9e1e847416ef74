#include "mft_core_streams/StreamTestSupport.h"

namespace test_support {

std::vector<MediaEventType> DrainEvents(mft_core::MediaEventGenerator &generator,
                                        std::vector<Microsoft::WRL::ComPtr<IMFMediaEvent>> *events) {
  std::vector<MediaEventType> typesSeen;
  for (;;) {
    Microsoft::WRL::ComPtr<IMFMediaEvent> event;
    if (generator.GetEvent(MF_EVENT_FLAG_NO_WAIT, event.GetAddressOf()) != S_OK) break;
    MediaEventType type = MEUnknown;
    event->GetType(&type);
    typesSeen.push_back(type);
    if (events) events->push_back(event);
  }
  return typesSeen;
}

FrameServerStandIn::FrameServerStandIn(mft_core::MediaEventGenerator &generator,
                                       std::shared_ptr<mft_core::InputStream> inputStream,
                                       std::function<void(UINT32)> onRequest)
    : generator(generator), inputStream(std::move(inputStream)), onRequest(std::move(onRequest)) {
  thread = std::thread([this] {
    for (;;) {
      Microsoft::WRL::ComPtr<IMFMediaEvent> event;
      if (FAILED(this->generator.GetEvent(0, event.GetAddressOf()))) return;  // shut down
      MediaEventType type = MEUnknown;
      event->GetType(&type);
      if (type != METransformInputStreamStateChanged) continue;
      UINT32 streamId = 0xFFFFFFFF;
      event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &streamId);
      if (this->onRequest) this->onRequest(streamId);
      if (streamId != this->inputStream->GetID()) continue;
      DeviceStreamState state = DeviceStreamState_Disabled;
      Microsoft::WRL::ComPtr<IMFMediaType> preferredType;
      if (FAILED(this->inputStream->GetPreferredState(&state, preferredType.GetAddressOf()))) continue;
      {
        std::lock_guard<std::mutex> lock(mutex);
        states.push_back(state);
      }
      this->inputStream->SetCurrentMediaType(preferredType.Get());
      ++answered;  // before the answer, which releases the requester
      this->inputStream->SetState(state);
    }
  });
}

FrameServerStandIn::~FrameServerStandIn() {
  generator.Shutdown();
  thread.join();
}

std::vector<DeviceStreamState> FrameServerStandIn::States() const {
  std::lock_guard<std::mutex> lock(mutex);
  return states;
}

}  // namespace test_support
