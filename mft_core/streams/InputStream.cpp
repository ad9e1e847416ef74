#include "mft_core/streams/InputStream.h"

#include <algorithm>

#include "mft_core/transform/MediaEventGenerator.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/FrameClock.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

InputStream::InputStream(DWORD id, MediaEventGenerator *eventGenerator, DWORD stateChangeTimeoutMs)
    : Stream(id, eventGenerator),
      stateChangeTimeoutMs(stateChangeTimeoutMs),
      fpsMonitor("input", 30000, 1),
      stateChangedEvent(false, false) {
  traceName = "Input stream " + std::to_string(id);
  fpsMonitor.SetCallback(fpsCallback);
  frameDropMonitor.Reset(1);
}

HRESULT InputStream::Init(IMFTransform *sourceTransform, const std::vector<GUID> &excludedSubtypes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sourceTransform);
  RETURN_HR_IF(E_OUTOFMEMORY, !stateChangedEvent.IsValid());
  RETURN_IF_FAILED(InitStreamAttributes(sourceTransform));
  RETURN_IF_FAILED(InitMediaTypesList(sourceTransform, excludedSubtypes));
  RETURN_IF_FAILED(InitFrameSourceTypes());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::InitMediaTypesList(IMFTransform *sourceTransform, const std::vector<GUID> &excludedSubtypes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sourceTransform);
  for (DWORD index = 0;; ++index) {
    Microsoft::WRL::ComPtr<IMFMediaType> mt;
    const HRESULT hr = sourceTransform->GetOutputAvailableType(id, index, mt.GetAddressOf());
    if (hr == MF_E_NO_MORE_TYPES) break;
    RETURN_IF_FAILED(hr);
    RETURN_HR_IF_NULL(E_UNEXPECTED, mt);
    GUID subType = GUID_NULL;
    RETURN_IF_FAILED(mt->GetGUID(MF_MT_SUBTYPE, &subType));
    if (std::find(excludedSubtypes.begin(), excludedSubtypes.end(), subType) != excludedSubtypes.end()) {
      WQ_TRACE(Info, traceName << ": leaves out " << DescribeMediaType(mt.Get()));
      continue;
    }
    AddMediaType(std::move(mt));
  }
  TraceSupportedMediaTypes();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::InitStreamAttributes(IMFTransform *sourceTransform) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sourceTransform);
  Microsoft::WRL::ComPtr<IMFAttributes> attr;
  RETURN_IF_FAILED(MFCreateAttributes(attr.GetAddressOf(), 8));
  Microsoft::WRL::ComPtr<IMFAttributes> filterAttributes;
  const HRESULT hr = sourceTransform->GetOutputStreamAttributes(id, filterAttributes.GetAddressOf());
  if (hr == E_NOTIMPL) {
    WQ_TRACE(Info, traceName << ": the driver stream has no attributes");
  } else {
    RETURN_IF_FAILED(hr);
    // A copy: the driver's store is not ours to change.
    if (filterAttributes) RETURN_IF_FAILED(filterAttributes->CopyAllItems(attr.Get()));
  }
  user_space_frameworks::AutoLock guard(streamLock);
  attributes = attr;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::GetPreferredState(DeviceStreamState *theState, IMFMediaType **preferredMt) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(theState);
  RETURN_IF_NULL(preferredMt);
  user_space_frameworks::AutoLock guard(streamLock);
  if (preferredMediaType) RETURN_IF_FAILED(preferredMediaType.CopyTo(preferredMt));
  *theState = preferredState;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::SetPreferredState(DeviceStreamState state, IMFMediaType *mediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  {
    user_space_frameworks::AutoLock guard(streamLock);
    RETURN_HR_IF(MF_E_SHUTDOWN, stateChangeAborted);
    if (mediaType != nullptr) {
      // IsSupported takes the (recursive) stream lock too.
      if (!IsSupported(mediaType, 0)) {
        WQ_TRACE(Error, traceName << ": unsupported preferred media type " << DescribeMediaType(mediaType));
        return E_FAIL;
      }
      WQ_TRACE(Info, traceName << ": preferred media type " << DescribeMediaType(mediaType));
    }
    preferredMediaType = mediaType;
    preferredState = state;
    // Only an answer to this request may release the wait below.
    stateChangedEvent.Reset();
  }

  Microsoft::WRL::ComPtr<IMFMediaEvent> event;
  RETURN_IF_FAILED(MFCreateMediaEvent(METransformInputStreamStateChanged, GUID_NULL, S_OK, nullptr, event.GetAddressOf()));
  RETURN_IF_FAILED(event->SetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, GetID()));
  RETURN_HR_IF_NULL(E_UNEXPECTED, eventGenerator);
  RETURN_IF_FAILED(eventGenerator->QueueEvent(event.Get()));

  const DWORD waitResult = stateChangedEvent.Wait(stateChangeTimeoutMs);
  {
    user_space_frameworks::AutoLock guard(streamLock);
    RETURN_HR_IF(MF_E_SHUTDOWN, stateChangeAborted);
  }
  if (waitResult != WAIT_OBJECT_0) {
    WQ_TRACE(Error, traceName << ": no answer to the state change to " << state << " within " << stateChangeTimeoutMs
                              << " ms (wait result " << waitResult << ")");
    return E_FAIL;
  }
  return S_OK;
  WQ_SCOPE_END;
}

void InputStream::AbortStateChangeWait() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  stateChangeAborted = true;
  stateChangedEvent.Set();
}

HRESULT InputStream::SetState(DeviceStreamState theState) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  // Releases a pending SetPreferredState whatever the state, and even when a type with a zero rate
  // makes the FPS monitor refuse its reset.
  struct SignalOnExit {
    user_space_frameworks::Event &event;
    ~SignalOnExit() { event.Set(); }
  } signal{stateChangedEvent};
  this->theState = theState;
  if (theState == DeviceStreamState_Run) {
    isStarted = true;
    UINT32 numerator = 0, denominator = 0;
    if (currentMediaType && SUCCEEDED(MFGetAttributeRatio(currentMediaType.Get(), MF_MT_FRAME_RATE, &numerator, &denominator)) &&
        denominator != 0) {
      fpsMonitor.Reset(numerator / denominator);
    }
  } else {
    WQ_TRACE(Info, traceName << ": " << fpsMonitor.GetCurrentFps() << " fps; " << frameDropMonitor.GetStatisics());
  }
  frameDropMonitor.Reset(1);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::Flush() {
  WQ_SCOPE_BEGIN(HRESULT);
  std::shared_ptr<ITopologyNode> nextNode;
  {
    user_space_frameworks::AutoLock guard(streamLock);
    nextNode = firstNode;
  }
  if (!nextNode) return S_OK;
  RETURN_IF_FAILED(nextNode->Propagate(PropagateOrder::CallLambdaAndPropagate, [&](ITopologyNode *node) { return node->Flush(); }));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::ProcessSample(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sample);
  std::shared_ptr<ITopologyNode> nextNode;
  std::shared_ptr<IMetadataParser> parser;
  {
    user_space_frameworks::AutoLock guard(streamLock);
    fpsMonitor.OnSample(user_space_frameworks::FrameClock::NowUs());
    nextNode = firstNode;
    parser = metadataParser;
  }
  // Metadata first: the frame counter the drop monitor reads comes from it. Without a parser no sample
  // can carry a counter, so the frame is only counted (and the attribute look-up saved).
  if (parser) {
    LOG_IF_FAILED(parser->Parse(sample));
    frameDropMonitor.OnSample(sample);
  } else {
    frameDropMonitor.OnSample(nullptr);
  }
  if (!nextNode) {
    WQ_TRACE(Verbose, traceName << ": not connected, sample dropped");
    return S_OK;
  }
  RETURN_IF_FAILED(nextNode->Process(sample));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::Connect(std::shared_ptr<ITopologyNode> node) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(node);
  user_space_frameworks::AutoLock guard(streamLock);
  firstNode = std::move(node);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT InputStream::Disconnect() {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  firstNode.reset();
  return S_OK;
  WQ_SCOPE_END;
}

bool InputStream::IsConnected() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  return firstNode != nullptr;
}

void InputStream::AttachMetadataParser(std::shared_ptr<IMetadataParser> parser) {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  metadataParser = std::move(parser);
}

bool InputStream::WasStarted() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  return isStarted;
}

double InputStream::GetCurrentFps() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  return fpsMonitor.GetCurrentFps();
}

}  // namespace mft_core
