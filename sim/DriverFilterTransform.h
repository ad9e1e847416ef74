// The driver filter's IMFTransform as a device transform sees it: the transform asks only for stream
// counts, identifiers, output types and output-stream attributes, so every method answers E_NOTIMPL
// until a stand-in filter overrides the few it plays.
#pragma once

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"

namespace sim {

template <typename... OtherInterfaces>
class DriverFilterTransform : public user_space_frameworks::ComObject<IMFTransform, OtherInterfaces...> {
 public:
  STDMETHODIMP GetStreamLimits(DWORD *, DWORD *, DWORD *, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP GetStreamCount(DWORD *, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP GetStreamIDs(DWORD, DWORD *, DWORD, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP GetInputStreamInfo(DWORD, MFT_INPUT_STREAM_INFO *) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputStreamInfo(DWORD, MFT_OUTPUT_STREAM_INFO *) override { return E_NOTIMPL; }
  STDMETHODIMP GetAttributes(IMFAttributes **) override { return E_NOTIMPL; }
  STDMETHODIMP GetInputStreamAttributes(DWORD, IMFAttributes **) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputStreamAttributes(DWORD, IMFAttributes **) override { return E_NOTIMPL; }
  STDMETHODIMP DeleteInputStream(DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP AddInputStreams(DWORD, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP GetInputAvailableType(DWORD, DWORD, IMFMediaType **) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputAvailableType(DWORD, DWORD, IMFMediaType **) override { return E_NOTIMPL; }
  STDMETHODIMP SetInputType(DWORD, IMFMediaType *, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP SetOutputType(DWORD, IMFMediaType *, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP GetInputCurrentType(DWORD, IMFMediaType **) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputCurrentType(DWORD, IMFMediaType **) override { return E_NOTIMPL; }
  STDMETHODIMP GetInputStatus(DWORD, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputStatus(DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP SetOutputBounds(LONGLONG, LONGLONG) override { return E_NOTIMPL; }
  STDMETHODIMP ProcessEvent(DWORD, IMFMediaEvent *) override { return E_NOTIMPL; }
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE, ULONG_PTR) override { return E_NOTIMPL; }
  STDMETHODIMP ProcessInput(DWORD, IMFSample *, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP ProcessOutput(DWORD, DWORD, MFT_OUTPUT_DATA_BUFFER *, DWORD *) override { return E_NOTIMPL; }
};

}  // namespace sim
