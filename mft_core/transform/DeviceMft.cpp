#include "mft_core/transform/DeviceMft.h"

#include "mft_core/ks/KsControlHandlers.h"
#include "mft_core/ks/KsControlsProxy.h"
#include "mft_core/ks/KsText.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

const GUID kAutoUpdateEventSet = {0xDB47DE20, 0xF628, 0x11D1, {0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05}};
const GUID kMsXuSetId = {0x0F3F95DC, 0x2632, 0x4C4E, {0x92, 0xC9, 0xA0, 0x47, 0x82, 0xF4, 0x3B, 0xC8}};

namespace {

const char *MessageName(MFT_MESSAGE_TYPE message) {
  switch (static_cast<int>(message)) {
    case MFT_MESSAGE_COMMAND_FLUSH: return "MFT_MESSAGE_COMMAND_FLUSH";
    case MFT_MESSAGE_COMMAND_DRAIN: return "MFT_MESSAGE_COMMAND_DRAIN";
    case MFT_MESSAGE_SET_D3D_MANAGER: return "MFT_MESSAGE_SET_D3D_MANAGER";
    case MFT_MESSAGE_DROP_SAMPLES: return "MFT_MESSAGE_DROP_SAMPLES";
    case MFT_MESSAGE_COMMAND_TICK: return "MFT_MESSAGE_COMMAND_TICK";
    case MFT_MESSAGE_NOTIFY_BEGIN_STREAMING: return "MFT_MESSAGE_NOTIFY_BEGIN_STREAMING";
    case MFT_MESSAGE_NOTIFY_END_STREAMING: return "MFT_MESSAGE_NOTIFY_END_STREAMING";
    case MFT_MESSAGE_NOTIFY_END_OF_STREAM: return "MFT_MESSAGE_NOTIFY_END_OF_STREAM";
    case MFT_MESSAGE_NOTIFY_START_OF_STREAM: return "MFT_MESSAGE_NOTIFY_START_OF_STREAM";
    case MFT_MESSAGE_NOTIFY_RELEASE_RESOURCES: return "MFT_MESSAGE_NOTIFY_RELEASE_RESOURCES";
    case MFT_MESSAGE_NOTIFY_REACQUIRE_RESOURCES: return "MFT_MESSAGE_NOTIFY_REACQUIRE_RESOURCES";
    case MFT_MESSAGE_NOTIFY_EVENT: return "MFT_MESSAGE_NOTIFY_EVENT";
    case MFT_MESSAGE_COMMAND_SET_OUTPUT_STREAM_STATE: return "MFT_MESSAGE_COMMAND_SET_OUTPUT_STREAM_STATE";
    case MFT_MESSAGE_COMMAND_FLUSH_OUTPUT_STREAM: return "MFT_MESSAGE_COMMAND_FLUSH_OUTPUT_STREAM";
    case MFT_MESSAGE_COMMAND_MARKER: return "MFT_MESSAGE_COMMAND_MARKER";
    default: return "unknown message";
  }
}

std::wstring Widen(const std::string &text) { return std::wstring(text.begin(), text.end()); }

}  // namespace

DeviceMft::DeviceMft(std::string name, const DeviceExtensionUnits &units, const GUID &transformClass)
    : name(std::move(name)), extensionUnits(units), urlString(Widen(this->name)) {
  // Recording is switched on in the registry and read once, here.
  SetDeviceEventsRecorder(DeviceEventsRecorder::CreateIfEnabled(transformClass, this->name));
}

HRESULT DeviceMft::OnInitializeTransform(IMFAttributes *filterAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(MFDeviceTransform::OnInitializeTransform(filterAttributes));
  RETURN_IF_FAILED(CreateFilterKsControl());
  RETURN_IF_FAILED(InitializeMembers());
  RETURN_IF_FAILED(CreateAttributes());
  RETURN_IF_FAILED(RegisterKsControlHandlres());
  RETURN_IF_FAILED(CreateInputStreams());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::CreateFilterKsControl() {
  WQ_SCOPE_BEGIN(HRESULT);
  ComPtr<IKsControl> ksControl;
  sourceTransform.As(&ksControl);
  RETURN_IF_NULL(ksControl);
  // Requests of our own go through the proxy: observed, and retried while the driver is not ready.
  auto proxy = user_space_frameworks::MakeComObject<KsControlsProxy>(ksControl.Get());
  RETURN_IF_NULL(proxy);
  if (deviceEventsRecorder) proxy->AddKsControlsObserver(deviceEventsRecorder->DriverRequestsObserver());
  filterKsControl = proxy;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::InitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  deviceXuKsControl = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(extensionUnits.deviceXuSetId, name + " ");
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, deviceXuKsControl);
  msXuKsControl = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(kMsXuSetId, name + " MSXU ");
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, msXuKsControl);
  // A camera without the unit still streams: its controls then answer E_NOINTERFACE on use.
  if (extensionUnits.deviceXuSetId != GUID_NULL) {
    LOG_IF_FAILED(deviceXuKsControl->Init(sourceTransform, filterKsControl, extensionUnits.deviceXuKnownId));
  }
  if (extensionUnits.msXuKnownId != 0) {
    LOG_IF_FAILED(msXuKsControl->Init(sourceTransform, filterKsControl, extensionUnits.msXuKnownId));
  }

  autoUpdateEventListener = KsEventListener::Create(name + " auto update listener", kAutoUpdateEventSet,
                                                    kAutoUpdateEventId, deviceEventsRecorder);
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, autoUpdateEventListener);
  autoUpdateEventListener->SetWorkQueue(GetWorkQueueAssignment());
  RETURN_IF_FAILED(autoUpdateEventListener->Init(filterKsControl.Get()));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::UninitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (autoUpdateEventListener) {
    autoUpdateEventListener->Uninit();
    autoUpdateEventListener.reset();
  }
  {
    user_space_frameworks::AutoLock lock(listenerStartsLock);
    listenerStarts.clear();
  }
  deviceXuKsControl.Reset();
  msXuKsControl.Reset();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::CreateAttributes() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(MFCreateAttributes(&attributes, 4));
  RETURN_IF_FAILED(attributes->SetUINT32(MF_TRANSFORM_ASYNC, 1));
  RETURN_IF_FAILED(attributes->SetUINT32(MFT_SUPPORT_DYNAMIC_FORMAT_CHANGE, 1));
  RETURN_IF_FAILED(attributes->SetUINT32(MF_SA_D3D_AWARE, 0));
  RETURN_IF_FAILED(attributes->SetString(MFT_ENUM_HARDWARE_URL_Attribute, urlString.c_str()));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::RegisterKsControlHandlres() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(RegisterKsPropertyDefaultHandler(std::make_shared<PassthroughKsPropsHandler>(filterKsControl.Get())));
  RETURN_IF_FAILED(RegisterKsEventDefaultHandler(std::make_shared<PassthroughKsEventsHandler>(filterKsControl.Get())));
  RETURN_IF_FAILED(RegisterKsMethodDefaultHandler(std::make_shared<PassthroughKsMethodsHandler>(filterKsControl.Get())));
  return S_OK;
  WQ_SCOPE_END;
}

std::vector<GUID> DeviceMft::GetExcludedInputMediaTypes() { return {}; }

HRESULT DeviceMft::CreateInputStreams() {
  WQ_SCOPE_BEGIN(HRESULT);
  std::vector<DWORD> inputStreamIds;
  RETURN_IF_FAILED(GetFilterStreamIds(inputStreamIds));
  const std::vector<GUID> excludedSubtypes = GetExcludedInputMediaTypes();
  for (DWORD streamId : inputStreamIds) {
    auto inputStream = std::make_shared<InputStream>(streamId, this);
    RETURN_IF_FAILED(inputStream->Init(sourceTransform.Get(), excludedSubtypes));
    user_space_frameworks::AutoLock lock(streamListLock);
    inputStreams.push_back(inputStream);
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::CreateIntrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &intrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  intrinsics.clear();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::CreateExtrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &extrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  extrinsics.clear();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::InitOutputStreamConfiguration(OutputStreamConfiguration &configuration,
                                                 const std::shared_ptr<InputStream> &inputStream) {
  WQ_SCOPE_BEGIN(HRESULT);
  configuration.name = name;
  configuration.index = static_cast<DWORD>(outputStreams.size());
  configuration.urlString = urlString;
  RETURN_IF_FAILED(inputStream->GetSupportedMediaTypes(*configuration.mtList.get()));
  RETURN_IF_FAILED(CreateIntrinsics(inputStream, configuration.intrinsics));
  RETURN_IF_FAILED(CreateExtrinsics(inputStream, configuration.extrinsics));
  RETURN_IF_FAILED(inputStream->GetAttributes(configuration.attributes.GetAddressOf()));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::CreateOutputStream(const std::shared_ptr<InputStream> &inputStream) {
  WQ_SCOPE_BEGIN(HRESULT);
  OutputStreamConfiguration configuration;
  RETURN_IF_FAILED(InitOutputStreamConfiguration(configuration, inputStream));
  // Output streams are numbered by position: output N serves input N.
  const DWORD outputStreamId = static_cast<DWORD>(outputStreams.size());
  auto outputStream = std::make_shared<OutputStream>(outputStreamId, this, std::move(configuration));
  RETURN_IF_FAILED(outputStream->Init());
  {
    user_space_frameworks::AutoLock lock(streamListLock);
    outputStreams.push_back(outputStream);
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::OnProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Info, MessageName(eMessage) << " (0x" << std::hex << static_cast<int>(eMessage) << ") param " << ulParam);
  switch (eMessage) {
    case MFT_MESSAGE_COMMAND_FLUSH:
      for (const auto &inputStream : inputStreams) RETURN_IF_FAILED(inputStream->Flush());
      for (const auto &outputStream : outputStreams) RETURN_IF_FAILED(outputStream->Flush());
      return S_OK;
    case MFT_MESSAGE_SET_D3D_MANAGER:
      WQ_TRACE(Info, "no Direct3D manager is used");
      return E_NOTIMPL;
    default:
      return S_OK;
  }
  WQ_SCOPE_END;
}

HRESULT DeviceMft::OnShutdown() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(UninitializeMembers());
  RETURN_IF_FAILED(MFDeviceTransform::OnShutdown());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::StartStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  // The listener runs exactly while some output stream runs: a stream left running counts one start,
  // even when starting it failed after it was set running (its later stop gives that start back).
  const HRESULT started = LOG_IF_FAILED(StartOutputStream(outputStream, nextMediaType));
  if (outputStream->GetState() == DeviceStreamState_Run) RETURN_IF_FAILED(StartListenerFor(outputStream->GetID()));
  return started;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::StopStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  // Only a stream that counted a start gives one back, so the listener keeps running for the others.
  StopListenerFor(outputStream->GetID());
  RETURN_IF_FAILED(StopOutputStream(outputStream, nextMediaType));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT DeviceMft::StartListenerFor(DWORD outputStreamId) {
  WQ_SCOPE_BEGIN(HRESULT);
  {
    user_space_frameworks::AutoLock lock(listenerStartsLock);
    if (!listenerStarts.insert(outputStreamId).second) return S_OK;
  }
  // Shutdown waits for this call before it lets the listener go, so the member is live here.
  const std::shared_ptr<KsEventListener> listener = autoUpdateEventListener;
  RETURN_HR_IF_NULL(E_UNEXPECTED, listener);
  RETURN_IF_FAILED(listener->Start());
  return S_OK;
  WQ_SCOPE_END;
}

void DeviceMft::StopListenerFor(DWORD outputStreamId) {
  WQ_SCOPE();
  {
    user_space_frameworks::AutoLock lock(listenerStartsLock);
    if (listenerStarts.erase(outputStreamId) == 0) return;
  }
  const std::shared_ptr<KsEventListener> listener = autoUpdateEventListener;
  if (listener) listener->Stop();
}

}  // namespace mft_core
