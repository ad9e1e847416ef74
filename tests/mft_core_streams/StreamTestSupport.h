// Stand-ins for what owns and drives the streams: the transform's event queue, the driver filter and
// the frame server's answer to a state-change request.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "mft_core/streams/InputStream.h"
#include "mft_core/transform/MediaEventGenerator.h"
#include "platform/WindowsSdk.h"
#include "sim/DriverFilterTransform.h"
#include "user_space_frameworks/ComObject.h"

namespace test_support {

class TestEventGenerator : public mft_core::MediaEventGenerator {
 public:
  TestEventGenerator() = default;
  explicit TestEventGenerator(QueueFactory createQueue) : MediaEventGenerator(createQueue) {}
  WQ_IMPLEMENT_IUNKNOWN(TestEventGenerator, IMFMediaEventGenerator)
};

// Takes every queued event without waiting; returns their types.
std::vector<MediaEventType> DrainEvents(mft_core::MediaEventGenerator &generator,
                                        std::vector<Microsoft::WRL::ComPtr<IMFMediaEvent>> *events = nullptr);

// The driver filter's IMFTransform as an input stream reads it: output types and attributes per stream.
class FakeDriverFilter : public sim::DriverFilterTransform<> {
 public:
  std::map<DWORD, std::vector<Microsoft::WRL::ComPtr<IMFMediaType>>> types;
  std::map<DWORD, Microsoft::WRL::ComPtr<IMFAttributes>> streamAttributes;

  STDMETHODIMP GetOutputAvailableType(DWORD id, DWORD index, IMFMediaType **type) override {
    auto it = types.find(id);
    if (it == types.end()) return MF_E_INVALIDSTREAMNUMBER;
    if (index >= it->second.size()) return MF_E_NO_MORE_TYPES;
    return it->second[index].CopyTo(type);
  }
  STDMETHODIMP GetOutputStreamAttributes(DWORD id, IMFAttributes **attributes) override {
    auto it = streamAttributes.find(id);
    if (it == streamAttributes.end()) return E_NOTIMPL;
    return it->second.CopyTo(attributes);
  }
};

// Pulls the transform's events on its own thread, as the frame server does, and answers each
// METransformInputStreamStateChanged for `inputStream` with GetPreferredState then SetCurrentMediaType
// and SetState. `onRequest` runs first, with the stream id the event names. Ends when the queue shuts down.
class FrameServerStandIn {
 public:
  FrameServerStandIn(mft_core::MediaEventGenerator &generator, std::shared_ptr<mft_core::InputStream> inputStream,
                     std::function<void(UINT32 streamId)> onRequest = nullptr);
  ~FrameServerStandIn();  // shuts the generator down and joins

  int Answered() const { return answered.load(); }
  std::vector<DeviceStreamState> States() const;

 private:
  mft_core::MediaEventGenerator &generator;
  std::shared_ptr<mft_core::InputStream> inputStream;
  std::function<void(UINT32)> onRequest;
  std::atomic<int> answered{0};
  mutable std::mutex mutex;
  std::vector<DeviceStreamState> states;
  std::thread thread;
};

}  // namespace test_support
