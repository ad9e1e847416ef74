// The camera driver played back from a device events recording: its streams, types, attributes and
// nodes as the recording's filter record describes them, and each KS request answered with the
// answer the driver gave in the recording. Requests the recording does not have, and requests whose
// data differ from the recorded ones, are noted for the replay to report. Driver events are signalled
// on the handle the transform subscribed with.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "device_events/EventsReader.h"
#include "platform/WindowsSdk.h"
#include "sim/DriverFilterTransform.h"

namespace sim {

class RecordedCameraFilter : public DriverFilterTransform<IKsControl, IKsTopologyInfo> {
 public:
  RecordedCameraFilter() = default;
  // `filter` is the recording's filter record; `driverRequests` its driver KS request records in order.
  static HRESULT Create(const device_events::Record &filter, std::vector<device_events::Record> driverRequests,
                        Microsoft::WRL::ComPtr<RecordedCameraFilter> &created);

  // The attributes the frame server hands to InitializeTransform: the recorded ones, plus this filter.
  HRESULT CreateFilterAttributes(const device_events::Value &recorded, IMFAttributes **attributes);
  // Signals the event the transform subscribed to with (set, id); false when it has not.
  bool SignalEvent(const GUID &set, ULONG id);
  // What did not match the recording, in order ("request not in the recording: ..."), with the
  // recorded return of the replayed call that made the request (kNoCall: not made by a replayed call).
  static constexpr uint64_t kNoCall = ~uint64_t{0};
  struct Divergence {
    std::string what;
    uint64_t callExitOffset = kNoCall;
  };
  std::vector<Divergence> Divergences();
  // Recorded requests the transform never made.
  std::vector<const device_events::Record *> UnusedRequests();
  // Whether the transform has made the `index`-th recorded request (in the order given to Create).
  bool Answered(size_t index);

  // While one lives on a thread, that thread is making a recorded call of `recordedThread` whose return
  // was recorded at `exitOffset`: its requests are matched with that thread's first, and a request
  // that the recording has only after that return came too early.
  class CallScope {
   public:
    CallScope(uint32_t recordedThread, uint64_t exitOffset);
    ~CallScope();
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;

   private:
    uint32_t previousThread;
    uint64_t previousOffset;
  };

  // IMFTransform: what a device transform asks of its filter.
  STDMETHODIMP GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) override;
  STDMETHODIMP GetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputIDs, DWORD dwOutputIDArraySize,
                            DWORD *pdwOutputIDs) override;
  STDMETHODIMP GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **pAttributes) override;
  STDMETHODIMP GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex, IMFMediaType **ppType) override;

  // IKsControl
  STDMETHODIMP KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
                          ULONG *pBytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                        ULONG *pBytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                       ULONG *pBytesReturned) override;

  // IKsTopologyInfo
  STDMETHODIMP get_NumCategories(DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP get_Category(DWORD, GUID *) override { return E_NOTIMPL; }
  STDMETHODIMP get_NumConnections(DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP get_ConnectionInfo(DWORD, KSTOPOLOGY_CONNECTION *) override { return E_NOTIMPL; }
  STDMETHODIMP get_NodeName(DWORD, WCHAR *, DWORD, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP get_NumNodes(DWORD *pdwNumNodes) override;
  STDMETHODIMP get_NodeType(DWORD dwNodeId, GUID *pNodeType) override;
  STDMETHODIMP CreateNodeInstance(DWORD, REFIID, void **) override { return E_NOTIMPL; }

 protected:
  ~RecordedCameraFilter() override;

 private:
  struct Stream {
    DWORD id = 0;
    device_events::Value attributes;
    std::vector<device_events::Value> types;
  };
  struct Subscription {
    GUID set;
    ULONG id;
    HANDLE event;  // a duplicate of the transform's handle, owned here
    const void *eventData;
  };

  HRESULT Answer(uint32_t kind, const void *identifier, ULONG identifierLength, LPVOID data, ULONG dataLength,
                 ULONG *bytesReturned);

  DWORD inputCount = 0;
  HRESULT idsResult = S_OK;
  std::vector<Stream> streams;
  bool hasTopology = false;
  std::vector<GUID> nodes;

  std::mutex mutex;  // requests, subscriptions, divergences
  std::vector<device_events::Record> requests;
  std::vector<bool> used;
  std::vector<Subscription> subscriptions;
  std::vector<Divergence> divergences;
};

}  // namespace sim
