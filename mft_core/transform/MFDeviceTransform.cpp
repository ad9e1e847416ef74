#include "mft_core/transform/MFDeviceTransform.h"

#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/ModuleVersion.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

// Names of the entries whose bodies live in renamed members (see DeviceTransformEntries).
constexpr const char kGetInputCurrentType[] =
    "HRESULT mft_core::MFDeviceTransform::GetInputCurrentType(DWORD, IMFMediaType**)";
constexpr const char kProcessInput[] = "HRESULT mft_core::MFDeviceTransform::ProcessInput(DWORD, IMFSample*, DWORD)";
constexpr const char kProcessMessage[] =
    "HRESULT mft_core::MFDeviceTransform::ProcessMessage(MFT_MESSAGE_TYPE, ULONG_PTR)";
constexpr const char kProcessOutput[] =
    "HRESULT mft_core::MFDeviceTransform::ProcessOutput(DWORD, DWORD, MFT_OUTPUT_DATA_BUFFER*, DWORD*)";

const char *StateText(DeviceStreamState state) {
  switch (state) {
    case DeviceStreamState_Stop: return "Stop";
    case DeviceStreamState_Pause: return "Pause";
    case DeviceStreamState_Run: return "Run";
    case DeviceStreamState_Disabled: return "Disabled";
  }
  return "Unknown";
}

}  // namespace

template <typename... Args>
void MFDeviceTransform::RecordCall(const char *function, const Args &...args) {
  if (deviceEventsRecorder) {
    const RecordedValue arguments[] = {RecordedValue(args)...};
    deviceEventsRecorder->RecordCall(function, arguments, sizeof...(args));
  }
}

template <typename... Args>
HRESULT MFDeviceTransform::RecordReturn(const char *function, HRESULT result, const Args &...args) {
  if (deviceEventsRecorder) {
    const RecordedValue arguments[] = {RecordedValue(args)...};
    deviceEventsRecorder->RecordReturn(function, result, arguments, sizeof...(args));
  }
  return result;
}

// The guard of every public method: record, enter the call gate, refuse after shutdown, run the handler;
// then record the result, including one the exception guard made.
#define WQ_TRANSFORM_ENTRY(function, handler, ...)                                 \
  RecordReturn(function, ::user_space_frameworks::Guarded({function, __LINE__}, [&]() -> HRESULT { \
    RecordCall(function, __VA_ARGS__);                                             \
    const ::user_space_frameworks::CallGate::Pass wqPass_(callGate);               \
    RETURN_IF_FAILED(CheckShutdown());                                             \
    RETURN_IF_FAILED(handler);                                                     \
    return S_OK;                                                                   \
  }), __VA_ARGS__)

// ---- IMFDeviceTransform ----------------------------------------------------------------------------------------

STDMETHODIMP MFDeviceTransform::InitializeTransform(IMFAttributes *pAttributes) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnInitializeTransform(pAttributes), pAttributes);
}

STDMETHODIMP MFDeviceTransform::GetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex,
                                                      IMFMediaType **pMediaType) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetInputAvailableType(dwInputStreamID, dwTypeIndex, pMediaType),
                            dwInputStreamID, dwTypeIndex, pMediaType);
}

HRESULT MFDeviceTransform::DeviceGetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **pMediaType) {
  return WQ_TRANSFORM_ENTRY(kGetInputCurrentType, OnGetInputCurrentType(dwInputStreamID, pMediaType),
                            dwInputStreamID, pMediaType);
}

STDMETHODIMP MFDeviceTransform::GetInputStreamAttributes(DWORD dwInputStreamID, IMFAttributes **ppAttributes) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetInputStreamAttributes(dwInputStreamID, ppAttributes),
                            dwInputStreamID, ppAttributes);
}

STDMETHODIMP MFDeviceTransform::GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex,
                                                       IMFMediaType **pMediaType) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetOutputAvailableType(dwOutputStreamID, dwTypeIndex, pMediaType),
                            dwOutputStreamID, dwTypeIndex, pMediaType);
}

STDMETHODIMP MFDeviceTransform::GetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **pMediaType) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetOutputCurrentType(dwOutputStreamID, pMediaType), dwOutputStreamID,
                            pMediaType);
}

STDMETHODIMP MFDeviceTransform::GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **ppAttributes) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetOutputStreamAttributes(dwOutputStreamID, ppAttributes),
                            dwOutputStreamID, ppAttributes);
}

STDMETHODIMP MFDeviceTransform::GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetStreamCount(pcInputStreams, pcOutputStreams), pcInputStreams,
                            pcOutputStreams);
}

STDMETHODIMP MFDeviceTransform::GetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputStreamIds,
                                             DWORD dwOutputIDArraySize, DWORD *pdwOutputStreamIds) {
  return WQ_TRANSFORM_ENTRY(
      WQ_FUNCTION, OnGetStreamIDs(dwInputIDArraySize, pdwInputStreamIds, dwOutputIDArraySize, pdwOutputStreamIds),
      RecordedValue::StreamIds(dwInputIDArraySize, pdwInputStreamIds),
      RecordedValue::StreamIds(dwOutputIDArraySize, pdwOutputStreamIds));
}

STDMETHODIMP MFDeviceTransform::ProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *pEvent) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnProcessEvent(dwInputStreamID, pEvent), dwInputStreamID, pEvent);
}

HRESULT MFDeviceTransform::DeviceProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) {
  return WQ_TRANSFORM_ENTRY(kProcessInput, OnProcessInput(dwInputStreamID, pSample, dwFlags), dwInputStreamID,
                            pSample, dwFlags);
}

HRESULT MFDeviceTransform::DeviceProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) {
  return WQ_TRANSFORM_ENTRY(kProcessMessage, OnProcessMessage(eMessage, ulParam), static_cast<int>(eMessage),
                            ulParam);
}

HRESULT MFDeviceTransform::DeviceProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount,
                                               MFT_OUTPUT_DATA_BUFFER *pOutputSample, DWORD *pdwStatus) {
  return WQ_TRANSFORM_ENTRY(kProcessOutput, OnProcessOutput(dwFlags, cOutputBufferCount, pOutputSample, pdwStatus),
                            dwFlags, RecordedValue::OutputBuffers(cOutputBufferCount, pOutputSample), pdwStatus);
}

STDMETHODIMP MFDeviceTransform::SetInputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType,
                                                    DeviceStreamState value, DWORD dwFlags) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnSetInputStreamState(dwStreamID, pMediaType, value, dwFlags), dwStreamID,
                            pMediaType, static_cast<int>(value), dwFlags);
}

STDMETHODIMP MFDeviceTransform::GetInputStreamState(DWORD dwStreamID, DeviceStreamState *value) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetInputStreamState(dwStreamID, value), dwStreamID, value);
}

STDMETHODIMP MFDeviceTransform::SetOutputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType,
                                                     DeviceStreamState value, DWORD dwFlags) {
  const DWORD streamId = dwStreamID;
  IMFMediaType *const nextMediaType = pMediaType;
  const DeviceStreamState nextState = value;
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnSetOutputStreamState(streamId, nextMediaType, nextState, dwFlags),
                            streamId, nextMediaType, static_cast<int>(nextState), dwFlags);
}

STDMETHODIMP MFDeviceTransform::GetOutputStreamState(DWORD dwStreamID, DeviceStreamState *value) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetOutputStreamState(dwStreamID, value), dwStreamID, value);
}

STDMETHODIMP MFDeviceTransform::GetInputStreamPreferredState(DWORD dwStreamID, DeviceStreamState *value,
                                                             IMFMediaType **ppMediaType) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetInputStreamPreferredState(dwStreamID, value, ppMediaType), dwStreamID,
                            value, ppMediaType);
}

STDMETHODIMP MFDeviceTransform::FlushInputStream(DWORD dwStreamIndex, DWORD dwFlags) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnFlushInputStream(dwStreamIndex, dwFlags), dwStreamIndex, dwFlags);
}

STDMETHODIMP MFDeviceTransform::FlushOutputStream(DWORD dwStreamIndex, DWORD dwFlags) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnFlushOutputStream(dwStreamIndex, dwFlags), dwStreamIndex, dwFlags);
}

STDMETHODIMP MFDeviceTransform::GetAttributes(IMFAttributes **pAttributes) {
  return WQ_TRANSFORM_ENTRY(WQ_FUNCTION, OnGetAttributes(pAttributes), pAttributes);
}

STDMETHODIMP MFDeviceTransform::Shutdown() {
  return RecordReturn(WQ_FUNCTION, ::user_space_frameworks::Guarded(WQ_HERE, [&]() -> HRESULT {
    RecordCall(WQ_FUNCTION, "");
    RETURN_IF_FAILED(CheckShutdown());
    // One Shutdown goes ahead; one that races it is refused as any call after shutdown.
    if (!callGate.Close()) RETURN_IF_FAILED(CheckShutdown());
    // New calls are refused from here on. Calls already inside finish against live members: those
    // waiting for the frame server are woken first, since its answers are refused now.
    AbortPendingWaits();
    callGate.Drain(0);
    RETURN_IF_FAILED(OnShutdown());
    return S_OK;
  }), "");
}

STDMETHODIMP MFDeviceTransform::GetShutdownStatus(MFSHUTDOWN_STATUS *pStatus) {
  // Answers after shutdown too: no shutdown check.
  return RecordReturn(WQ_FUNCTION, WQ_GUARDED([&]() -> HRESULT {
    RecordCall(WQ_FUNCTION, pStatus);
    RETURN_IF_FAILED(OnGetShutdownStatus(pStatus));
    return S_OK;
  }), pStatus);
}

void MFDeviceTransform::SetDeviceEventsRecorder(std::shared_ptr<IDeviceEventsRecorder> recorder) {
  if (deviceEventsRecorder) RemoveKsControlsObserver(deviceEventsRecorder->ApplicationRequestsObserver());
  deviceEventsRecorder = std::move(recorder);
  SetQueuedEventsRecorder(deviceEventsRecorder.get());
  if (deviceEventsRecorder) AddKsControlsObserver(deviceEventsRecorder->ApplicationRequestsObserver());
}

// ---- Handlers ----------------------------------------------------------------------------------------------------

HRESULT MFDeviceTransform::OnInitializeTransform(IMFAttributes *filterAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(filterAttributes);
  TraceVersionBanner();
  RETURN_IF_FAILED(filterAttributes->GetUnknown(MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL, IID_PPV_ARGS(&sourceTransform)));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (pcInputStreams != nullptr) *pcInputStreams = static_cast<DWORD>(inputStreams.size());
  if (pcOutputStreams != nullptr) *pcOutputStreams = static_cast<DWORD>(outputStreams.size());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputStreamIds,
                                          DWORD dwOutputIDArraySize, DWORD *pdwOutputStreamIds) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock lock(streamListLock);
  if (pdwInputStreamIds != nullptr) {
    RETURN_HR_IF(MF_E_BUFFERTOOSMALL, dwInputIDArraySize < inputStreams.size());
    for (size_t i = 0; i < inputStreams.size(); ++i) pdwInputStreamIds[i] = inputStreams[i]->GetID();
  }
  if (pdwOutputStreamIds != nullptr) {
    RETURN_HR_IF(MF_E_BUFFERTOOSMALL, dwOutputIDArraySize < outputStreams.size());
    for (size_t i = 0; i < outputStreams.size(); ++i) pdwOutputStreamIds[i] = outputStreams[i]->GetID();
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetInputStreamAttributes(DWORD dwInputStreamID, IMFAttributes **ppAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToInputStream(dwInputStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    return stream->GetAttributes(ppAttributes);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **ppAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToOutputStream(dwOutputStreamID, [&](const std::shared_ptr<OutputStream> &stream) {
    return stream->GetAttributes(ppAttributes);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex,
                                                   IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToInputStream(dwInputStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    return stream->GetMediaTypeAt(dwTypeIndex, ppMediaType);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex,
                                                    IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToOutputStream(dwOutputStreamID, [&](const std::shared_ptr<OutputStream> &stream) {
    return stream->GetMediaTypeAt(dwTypeIndex, ppMediaType);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToInputStream(dwInputStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    return stream->GetCurrentMediaType(ppMediaType);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToOutputStream(dwOutputStreamID, [&](const std::shared_ptr<OutputStream> &stream) {
    return stream->GetCurrentMediaType(ppMediaType);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnProcessMessage(MFT_MESSAGE_TYPE, ULONG_PTR) { return S_OK; }

HRESULT MFDeviceTransform::OnProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *) {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Info, "Not Implemented: event on input stream " << dwInputStreamID << " ignored");
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pSample);
  LONGLONG llTime = 0;
  RETURN_IF_FAILED(pSample->GetSampleTime(&llTime));
  return RedirectCallToInputStream(dwInputStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    // What happens downstream is the graph's business; the frame server only learns the sample was taken.
    LOG_IF_FAILED(stream->Process(pSample));
    return S_OK;
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnProcessOutput(DWORD, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSamples,
                                           DWORD *pdwStatus) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pdwStatus);
  if (cOutputBufferCount > outputStreams.size()) {
    WQ_TRACE(Error, "buffer count " << cOutputBufferCount << " exceeds the " << outputStreams.size()
                                    << " output streams");
    return E_INVALIDARG;
  }
  if (cOutputBufferCount > 0) RETURN_IF_NULL(pOutputSamples);
  *pdwStatus = 0;
  HRESULT hr = MF_E_TRANSFORM_NEED_MORE_INPUT;
  for (DWORD i = 0; i < cOutputBufferCount; ++i) {
    MFT_OUTPUT_DATA_BUFFER &buffer = pOutputSamples[i];
    std::shared_ptr<OutputStream> stream;
    for (const auto &candidate : outputStreams) {
      if (candidate->GetID() == buffer.dwStreamID) {
        stream = candidate;
        break;
      }
    }
    // Unknown identifiers are skipped; one stream that delivers makes the call a success.
    if (stream && SUCCEEDED(stream->ProcessOutput(buffer, buffer.dwStreamID))) hr = S_OK;
  }
  if (cOutputBufferCount == 0 || hr != S_OK) {
    WQ_TRACE(Verbose, "no output from " << cOutputBufferCount << " buffers: " << user_space_frameworks::trace::HrText(hr));
  }
  return hr;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnSetInputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType,
                                                 DeviceStreamState value, DWORD) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToInputStream(dwStreamID, [&](const std::shared_ptr<InputStream> &stream) -> HRESULT {
    RETURN_IF_FAILED(stream->SetCurrentMediaType(pMediaType));
    RETURN_IF_FAILED(stream->SetState(value));
    return S_OK;
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetInputStreamState(DWORD dwStreamID, DeviceStreamState *state) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(state);
  return RedirectCallToInputStream(dwStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    *state = stream->GetState();
    return S_OK;
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetOutputStreamState(DWORD dwStreamID, DeviceStreamState *state) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(state);
  return RedirectCallToOutputStream(dwStreamID, [&](const std::shared_ptr<OutputStream> &stream) {
    *state = stream->GetState();
    return S_OK;
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnSetOutputStreamState(DWORD streamId, IMFMediaType *nextMediaType,
                                                  DeviceStreamState nextState, DWORD) {
  WQ_SCOPE_BEGIN(HRESULT);
  std::shared_ptr<OutputStream> stream;
  RETURN_IF_FAILED(GetStream(stream, streamId, outputStreams));

  const DeviceStreamState currentState = stream->GetState();
  if (currentState == nextState && nextMediaType != nullptr) {
    Microsoft::WRL::ComPtr<IMFMediaType> currentMediaType;
    DWORD flags = 0;
    if (SUCCEEDED(stream->GetCurrentMediaType(&currentMediaType)) &&
        currentMediaType->IsEqual(nextMediaType, &flags) == S_OK) {
      WQ_TRACE(Info, "output stream " << streamId << " already " << StateText(currentState)
                                      << " with this type: nothing changes");
      return S_OK;
    }
  }
  WQ_TRACE(Info, "output stream " << streamId << ": " << StateText(currentState) << " -> " << StateText(nextState));

  switch (nextState) {
    case DeviceStreamState_Stop:
      RETURN_IF_FAILED(StopStreaming(stream, nextMediaType));
      return S_OK;
    case DeviceStreamState_Run:
      RETURN_IF_FAILED(StartStreaming(stream, nextMediaType));
      return S_OK;
    case DeviceStreamState_Pause:
    case DeviceStreamState_Disabled:
      return E_NOTIMPL;
  }
  return E_INVALIDARG;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetInputStreamPreferredState(DWORD dwStreamID, DeviceStreamState *value,
                                                          IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToInputStream(dwStreamID, [&](const std::shared_ptr<InputStream> &stream) {
    return stream->GetPreferredState(value, ppMediaType);
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnFlushInputStream(DWORD dwStreamIndex, DWORD) {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Info, "Not Implemented: flush of input stream " << dwStreamIndex);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnFlushOutputStream(DWORD dwStreamIndex, DWORD) {
  WQ_SCOPE_BEGIN(HRESULT);
  return RedirectCallToOutputStream(dwStreamIndex, [&](const std::shared_ptr<OutputStream> &stream) {
    return stream->Flush();
  });
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetAttributes(IMFAttributes **ppAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(ppAttributes);
  RETURN_HR_IF(E_FAIL, !attributes);
  RETURN_IF_FAILED(attributes.CopyTo(ppAttributes));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnShutdown() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(MediaEventGenerator::Shutdown());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnGetShutdownStatus(MFSHUTDOWN_STATUS *status) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(status);
  *status = IsShutdown() ? MFSHUTDOWN_COMPLETED : MFSHUTDOWN_INITIATED;
  return S_OK;
  WQ_SCOPE_END;
}

// ---- Streaming control ---------------------------------------------------------------------------------------------

void MFDeviceTransform::TraceVersionBanner() {
  WQ_TRACE(Info, user_space_frameworks::VersionBanner());
}

HRESULT MFDeviceTransform::StartStreaming(const std::shared_ptr<OutputStream> &outputStream,
                                          IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(StartOutputStream(outputStream, nextMediaType));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::StopStreaming(const std::shared_ptr<OutputStream> &outputStream,
                                         IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(StopOutputStream(outputStream, nextMediaType));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::CheckShutdown() {
  WQ_SCOPE_BEGIN(HRESULT);
  return IsShutdown() || callGate.IsClosed() ? MF_E_SHUTDOWN : S_OK;
  WQ_SCOPE_END;
}

void MFDeviceTransform::AbortPendingWaits() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock lock(streamListLock);
  for (const auto &inputStream : inputStreams) inputStream->AbortStateChangeWait();
}

HRESULT MFDeviceTransform::OnKsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                        ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  const user_space_frameworks::CallGate::Pass pass(callGate);
  RETURN_IF_FAILED(CheckShutdown());
  return KsControlsDispatcher::OnKsProperty(pProperty, ulPropertyLength, pPropertyData, ulDataLength, pBytesReturned);
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnKsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                                      ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  const user_space_frameworks::CallGate::Pass pass(callGate);
  RETURN_IF_FAILED(CheckShutdown());
  return KsControlsDispatcher::OnKsMethod(pMethod, ulMethodLength, pMethodData, ulDataLength, pBytesReturned);
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::OnKsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                                     ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  const user_space_frameworks::CallGate::Pass pass(callGate);
  RETURN_IF_FAILED(CheckShutdown());
  return KsControlsDispatcher::OnKsEvent(pEvent, ulEventLength, pEventData, ulDataLength, pBytesReturned);
  WQ_SCOPE_END;
}

HRESULT MFDeviceTransform::GetFilterStreamIds(std::vector<DWORD> &ids) {
  WQ_SCOPE_BEGIN(HRESULT);
  ids.clear();
  RETURN_HR_IF_NULL(E_UNEXPECTED, sourceTransform);
  DWORD filterInputStreamsCnt = 0;
  DWORD filterOutputStreamsCnt = 0;
  RETURN_IF_FAILED(sourceTransform->GetStreamCount(&filterInputStreamsCnt, &filterOutputStreamsCnt));
  if (filterOutputStreamsCnt == 0) return S_OK;

  std::vector<DWORD> filterInputIds(filterInputStreamsCnt);
  std::vector<DWORD> filterOutputIds(filterOutputStreamsCnt);
  const HRESULT hr = sourceTransform->GetStreamIDs(filterInputStreamsCnt, filterInputIds.data(),
                                                   filterOutputStreamsCnt, filterOutputIds.data());
  if (hr == E_NOTIMPL) {
    // Filters with fixed streams number them from 0.
    for (DWORD i = 0; i < filterOutputStreamsCnt; ++i) filterOutputIds[i] = i;
  } else {
    RETURN_IF_FAILED(hr);
  }
  for (DWORD id : filterOutputIds) WQ_TRACE(Info, "filter output stream " << id);
  ids = std::move(filterOutputIds);
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
