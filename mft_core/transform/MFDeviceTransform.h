// The abstract device transform: the IMFDeviceTransform contract, the IMFTransform view of the same
// object and IMFShutdown. Every public method runs the same guard (trace, optional recording, shutdown
// check, exception mapping) and then a protected On<Method> handler that derived transforms override.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mft_core/ks/DeviceEventsRecorder.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "mft_core/streams/InputStream.h"
#include "mft_core/streams/OutputStream.h"
#include "mft_core/streams/Topology.h"
#include "mft_core/transform/MediaEventGenerator.h"
#include "mft_core/transform/RealTimeClient.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/CallGate.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/ModuleLock.h"
#include "user_space_frameworks/Sync.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {

// IMFTransform and IMFDeviceTransform share four methods with identical signatures that must answer
// differently: a class that declared them would override both interfaces' slots at once. Each
// interface's versions therefore live in their own small base.
class DeviceTransformEntries : public IMFDeviceTransform {
 public:
  STDMETHODIMP GetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **pMediaType) final {
    return DeviceGetInputCurrentType(dwInputStreamID, pMediaType);
  }
  STDMETHODIMP ProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) final {
    return DeviceProcessInput(dwInputStreamID, pSample, dwFlags);
  }
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) final {
    return DeviceProcessMessage(eMessage, ulParam);
  }
  STDMETHODIMP ProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSample,
                             DWORD *pdwStatus) final {
    return DeviceProcessOutput(dwFlags, cOutputBufferCount, pOutputSample, pdwStatus);
  }

 protected:
  virtual HRESULT DeviceGetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **pMediaType) = 0;
  virtual HRESULT DeviceProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) = 0;
  virtual HRESULT DeviceProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) = 0;
  virtual HRESULT DeviceProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSample,
                                      DWORD *pdwStatus) = 0;
};

// The IMFTransform view answers only what a device transform's consumers use; the rest is refused at
// once, without guard or trace.
class TransformView : public IMFTransform {
 public:
  STDMETHODIMP GetStreamLimits(DWORD *, DWORD *, DWORD *, DWORD *) final { return E_NOTIMPL; }
  STDMETHODIMP GetInputStreamInfo(DWORD, MFT_INPUT_STREAM_INFO *) final { return E_NOTIMPL; }
  STDMETHODIMP GetOutputStreamInfo(DWORD, MFT_OUTPUT_STREAM_INFO *) final { return E_NOTIMPL; }
  STDMETHODIMP DeleteInputStream(DWORD) final { return E_NOTIMPL; }
  STDMETHODIMP AddInputStreams(DWORD, DWORD *) final { return E_NOTIMPL; }
  STDMETHODIMP SetInputType(DWORD, IMFMediaType *, DWORD) final { return E_NOTIMPL; }
  STDMETHODIMP SetOutputType(DWORD, IMFMediaType *, DWORD) final { return E_NOTIMPL; }
  STDMETHODIMP GetInputCurrentType(DWORD, IMFMediaType **) final { return E_NOTIMPL; }
  STDMETHODIMP GetInputStatus(DWORD, DWORD *) final { return E_NOTIMPL; }
  STDMETHODIMP GetOutputStatus(DWORD *) final { return E_NOTIMPL; }
  STDMETHODIMP SetOutputBounds(LONGLONG, LONGLONG) final { return E_NOTIMPL; }
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE, ULONG_PTR) final { return E_NOTIMPL; }
  STDMETHODIMP ProcessInput(DWORD, IMFSample *, DWORD) final { return E_NOTIMPL; }
  STDMETHODIMP ProcessOutput(DWORD, DWORD, MFT_OUTPUT_DATA_BUFFER *, DWORD *) final { return E_NOTIMPL; }
};

// A live transform keeps its module loaded: the reference is built first and destroyed last.
class MFDeviceTransform : public virtual user_space_frameworks::ModuleReference,
                          public DeviceTransformEntries,
                          public TransformView,
                          public IMFShutdown,
                          public MediaEventGenerator,
                          public RealTimeClient,
                          public KsControlsDispatcher {
  WQ_IMPLEMENT_IUNKNOWN(MFDeviceTransform, IMFDeviceTransform, IMFTransform, IMFShutdown, IMFMediaEventGenerator,
                        IMFRealTimeClientEx, IKsControl)

 public:
  const char *GetTraceName() const override { return "MFDeviceTransform"; }

  // IMFDeviceTransform (GetInputCurrentType, ProcessInput, ProcessMessage, ProcessOutput come from
  // DeviceTransformEntries). Where IMFTransform has the same signature, these answer it too.
  STDMETHODIMP InitializeTransform(IMFAttributes *pAttributes) override;
  STDMETHODIMP GetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex, IMFMediaType **pMediaType) override;
  STDMETHODIMP GetInputStreamAttributes(DWORD dwInputStreamID, IMFAttributes **ppAttributes) override;
  STDMETHODIMP GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex, IMFMediaType **pMediaType) override;
  STDMETHODIMP GetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **pMediaType) override;
  STDMETHODIMP GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **ppAttributes) override;
  STDMETHODIMP GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) override;
  STDMETHODIMP GetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputStreamIds, DWORD dwOutputIDArraySize,
                            DWORD *pdwOutputStreamIds) override;
  STDMETHODIMP ProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *pEvent) override;
  STDMETHODIMP SetInputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType, DeviceStreamState value,
                                   DWORD dwFlags) override;
  STDMETHODIMP GetInputStreamState(DWORD dwStreamID, DeviceStreamState *value) override;
  STDMETHODIMP SetOutputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType, DeviceStreamState value,
                                    DWORD dwFlags) override;
  STDMETHODIMP GetOutputStreamState(DWORD dwStreamID, DeviceStreamState *value) override;
  STDMETHODIMP GetInputStreamPreferredState(DWORD dwStreamID, DeviceStreamState *value,
                                            IMFMediaType **ppMediaType) override;
  STDMETHODIMP FlushInputStream(DWORD dwStreamIndex, DWORD dwFlags) override;
  STDMETHODIMP FlushOutputStream(DWORD dwStreamIndex, DWORD dwFlags) override;

  // IMFTransform only.
  STDMETHODIMP GetAttributes(IMFAttributes **pAttributes) override;

  // IMFShutdown
  STDMETHODIMP Shutdown() override;
  STDMETHODIMP GetShutdownStatus(MFSHUTDOWN_STATUS *pStatus) override;

  // Recording of every guarded call, application KS request and queued media event; empty means
  // none. Set before the transform is used (at construction), never while calls are running.
  void SetDeviceEventsRecorder(std::shared_ptr<IDeviceEventsRecorder> recorder);

 protected:
  MFDeviceTransform() = default;
  // The recording ends with the transform, even if a member that shares the recorder lives on.
  ~MFDeviceTransform() override {
    if (deviceEventsRecorder) deviceEventsRecorder->Close();
  }

  // ---- Handlers ------------------------------------------------------------------------------------------
  virtual HRESULT OnInitializeTransform(IMFAttributes *filterAttributes);
  virtual HRESULT OnGetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams);
  virtual HRESULT OnGetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputStreamIds, DWORD dwOutputIDArraySize,
                                 DWORD *pdwOutputStreamIds);
  virtual HRESULT OnGetInputStreamAttributes(DWORD dwInputStreamID, IMFAttributes **ppAttributes);
  virtual HRESULT OnGetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **ppAttributes);
  virtual HRESULT OnGetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex, IMFMediaType **ppMediaType);
  virtual HRESULT OnGetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex, IMFMediaType **ppMediaType);
  virtual HRESULT OnGetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **ppMediaType);
  virtual HRESULT OnGetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **ppMediaType);
  virtual HRESULT OnProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam);
  virtual HRESULT OnProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *pEvent);
  virtual HRESULT OnProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags);
  virtual HRESULT OnProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSamples,
                                  DWORD *pdwStatus);
  virtual HRESULT OnSetInputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType, DeviceStreamState value,
                                        DWORD dwFlags);
  virtual HRESULT OnGetInputStreamState(DWORD dwStreamID, DeviceStreamState *state);
  virtual HRESULT OnSetOutputStreamState(DWORD streamId, IMFMediaType *nextMediaType, DeviceStreamState nextState,
                                         DWORD dwFlags);
  virtual HRESULT OnGetOutputStreamState(DWORD dwStreamID, DeviceStreamState *state);
  virtual HRESULT OnGetInputStreamPreferredState(DWORD dwStreamID, DeviceStreamState *value,
                                                 IMFMediaType **ppMediaType);
  virtual HRESULT OnFlushInputStream(DWORD dwStreamIndex, DWORD dwFlags);
  virtual HRESULT OnFlushOutputStream(DWORD dwStreamIndex, DWORD dwFlags);
  virtual HRESULT OnGetAttributes(IMFAttributes **ppAttributes);
  virtual HRESULT OnShutdown();
  virtual HRESULT OnGetShutdownStatus(MFSHUTDOWN_STATUS *status);

  // ---- Streaming control -----------------------------------------------------------------------------------
  // Writes the module's banner to the trace.
  virtual void TraceVersionBanner();
  // Here they only start or stop the output stream; the device transform adds the driver-event listener.
  virtual HRESULT StartStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType);
  virtual HRESULT StopStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType);
  virtual HRESULT StartOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                    IMFMediaType *nextMediaType) = 0;
  virtual HRESULT StopOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                   IMFMediaType *nextMediaType) = 0;
  virtual HRESULT CheckShutdown();
  // Wakes calls blocked in a wait that only the frame server could end, once shutdown has begun: the
  // frame server's answers are refused from then on. Input streams' preferred-state waits here.
  virtual void AbortPendingWaits();

  // KS requests from applications are refused after shutdown like every other call.
  HRESULT OnKsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
                       ULONG *pBytesReturned) override;
  HRESULT OnKsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                     ULONG *pBytesReturned) override;
  HRESULT OnKsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                    ULONG *pBytesReturned) override;

  // ---- Construction hooks (the device transform and the product implement them) --------------------------
  virtual HRESULT UninitializeMembers() = 0;
  virtual HRESULT CreateAttributes() = 0;
  virtual HRESULT CreateInputStreams() = 0;
  virtual HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &intrinsics) = 0;
  virtual HRESULT CreateExtrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &extrinsics) = 0;
  virtual HRESULT CreateOutputStream(const std::shared_ptr<InputStream> &inputStream) = 0;
  virtual HRESULT InitOutputStreamConfiguration(OutputStreamConfiguration &configuration,
                                                const std::shared_ptr<InputStream> &inputStream) = 0;
  virtual HRESULT BuildTopology(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                                std::shared_ptr<Topology> &topology) = 0;
  virtual HRESULT InitializeMembers() = 0;
  virtual HRESULT CreateFilterKsControl() = 0;
  virtual HRESULT RegisterKsControlHandlres() = 0;

  // ---- Streams -----------------------------------------------------------------------------------------------
  template <typename S>
  HRESULT GetStream(std::shared_ptr<S> &stream, DWORD streamId, const std::vector<std::shared_ptr<S>> &streams);
  template <typename Action>
  HRESULT RedirectCallToInputStream(DWORD streamId, Action &&action);
  template <typename Action>
  HRESULT RedirectCallToOutputStream(DWORD streamId, Action &&action);
  // The driver filter's output-stream identifiers, which become this transform's input streams.
  HRESULT GetFilterStreamIds(std::vector<DWORD> &ids);

  std::vector<std::shared_ptr<InputStream>> inputStreams;
  std::vector<std::shared_ptr<OutputStream>> outputStreams;
  // Held while enumerating both lists; the lists are filled during initialisation only.
  user_space_frameworks::CriticalSection streamListLock;
  Microsoft::WRL::ComPtr<IMFTransform> sourceTransform;
  Microsoft::WRL::ComPtr<IMFAttributes> attributes;
  std::shared_ptr<IDeviceEventsRecorder> deviceEventsRecorder;
  // Every public call runs inside it; Shutdown closes it and waits for the calls inside before the
  // members they use are uninitialised. A call either completes against live members or is refused.
  user_space_frameworks::CallGate callGate;

 private:
  HRESULT DeviceGetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **pMediaType) final;
  HRESULT DeviceProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) final;
  HRESULT DeviceProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) final;
  HRESULT DeviceProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSample,
                              DWORD *pdwStatus) final;

  template <typename... Args>
  void RecordCall(const char *function, const Args &...args);
  template <typename... Args>
  HRESULT RecordReturn(const char *function, HRESULT result, const Args &...args);
};

template <typename S>
HRESULT MFDeviceTransform::GetStream(std::shared_ptr<S> &stream, DWORD streamId,
                                     const std::vector<std::shared_ptr<S>> &streams) {
  for (const auto &candidate : streams) {
    if (candidate && candidate->GetID() == streamId) {
      stream = candidate;
      return S_OK;
    }
  }
  WQ_TRACE(Error, "no stream with identifier " << streamId << " among " << streams.size());
  return E_FAIL;
}

template <typename Action>
HRESULT MFDeviceTransform::RedirectCallToInputStream(DWORD streamId, Action &&action) {
  std::shared_ptr<InputStream> stream;
  RETURN_IF_FAILED(GetStream(stream, streamId, inputStreams));
  return action(stream);
}

template <typename Action>
HRESULT MFDeviceTransform::RedirectCallToOutputStream(DWORD streamId, Action &&action) {
  std::shared_ptr<OutputStream> stream;
  RETURN_IF_FAILED(GetStream(stream, streamId, outputStreams));
  return action(stream);
}

}  // namespace mft_core
