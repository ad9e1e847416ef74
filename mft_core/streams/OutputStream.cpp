#include "mft_core/streams/OutputStream.h"

#include <algorithm>
#include <sstream>

#include "mft_core/transform/MediaEventGenerator.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/FrameClock.h"
#include "user_space_frameworks/MFAttributesParser.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

OutputStream::OutputStream(DWORD id, MediaEventGenerator *eventGenerator, OutputStreamConfiguration configuration)
    : Stream(id, eventGenerator),
      configuration(std::move(configuration)),
      topologyFpsMonitor("topology", 0, 1),
      processOutputFpsMonitor("process output", 0, 1) {
  traceName = "Output stream " + std::to_string(id);
  topologyFpsMonitor.SetCallback(fpsCallback);
  processOutputFpsMonitor.SetCallback(fpsCallback);
}

OutputStream::~OutputStream() = default;

HRESULT OutputStream::Init() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (configuration.mtList) RETURN_IF_FAILED(CopyMediaTypes(*configuration.mtList));
  Microsoft::WRL::ComPtr<IMFAttributes> attr;
  RETURN_IF_FAILED(InitAttributes(attr.GetAddressOf()));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::CopyMediaTypes(const MediaTypeList &source) {
  WQ_SCOPE_BEGIN(HRESULT);
  for (const auto &srcMt : source) {
    if (!srcMt) continue;
    Microsoft::WRL::ComPtr<IMFMediaType> dstMt;
    RETURN_IF_FAILED(MFCreateMediaType(dstMt.GetAddressOf()));
    RETURN_IF_FAILED(srcMt->CopyAllItems(dstMt.Get()));
    AddMediaType(std::move(dstMt));
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::InitAttributes(IMFAttributes **attr) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(attr);
  // The frame source type is the one the configured (input stream's) attributes announce.
  UINT32 frameSourceTypes = 0;
  if (configuration.attributes) {
    configuration.attributes->GetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, &frameSourceTypes);
  }
  Microsoft::WRL::ComPtr<IMFAttributes> streamAttributes;
  RETURN_IF_FAILED(MFCreateAttributes(streamAttributes.GetAddressOf(), 16));
  RETURN_IF_FAILED(streamAttributes->SetUINT32(MFT_SUPPORT_DYNAMIC_FORMAT_CHANGE, TRUE));
  RETURN_IF_FAILED(streamAttributes->SetString(MFT_ENUM_HARDWARE_URL_Attribute, configuration.urlString.c_str()));
  RETURN_IF_FAILED(streamAttributes->SetUINT32(MF_TRANSFORM_ASYNC, TRUE));
  RETURN_IF_FAILED(streamAttributes->SetGUID(MF_DEVICESTREAM_STREAM_CATEGORY, PINNAME_VIDEO_CAPTURE));
  RETURN_IF_FAILED(streamAttributes->SetUINT32(MF_DEVICESTREAM_STREAM_ID, id));
  RETURN_IF_FAILED(streamAttributes->SetUINT32(MF_DEVICESTREAM_FRAMESERVER_SHARED, TRUE));
  RETURN_IF_FAILED(streamAttributes->SetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, frameSourceTypes));
  {
    user_space_frameworks::AutoLock guard(streamLock);
    attributes = streamAttributes;
    supportedFrameSourceTypes = frameSourceTypes;
  }
  RETURN_IF_FAILED(AddExtrinsicsToStreamAttributes(configuration.extrinsics));
  RETURN_IF_FAILED(AddIntrinsicsToStreamAttributes(configuration.intrinsics));
  RETURN_IF_FAILED(AddDepthAttributes(configuration.depth));
  RETURN_IF_FAILED(user_space_frameworks::MFAttributesParser::CopyStore(streamAttributes.Get(), configuration.attributes.Get(),
                                                                        false, {MF_SA_D3D11_SHARED_WITHOUT_MUTEX}));
  RETURN_IF_FAILED(streamAttributes.CopyTo(attr));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::AddExtrinsicsToStreamAttributes(const std::vector<BYTE> &extrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (extrinsics.empty()) return S_OK;
  user_space_frameworks::AutoLock guard(streamLock);
  RETURN_HR_IF_NULL(E_UNEXPECTED, attributes);
  RETURN_IF_FAILED(attributes->SetBlob(MFStreamExtension_CameraExtrinsics, extrinsics.data(),
                                       static_cast<UINT32>(extrinsics.size())));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::AddIntrinsicsToStreamAttributes(const std::vector<BYTE> &intrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (intrinsics.empty()) return S_OK;
  user_space_frameworks::AutoLock guard(streamLock);
  RETURN_HR_IF_NULL(E_UNEXPECTED, attributes);
  RETURN_IF_FAILED(attributes->SetBlob(MFStreamExtension_PinholeCameraIntrinsics, intrinsics.data(),
                                       static_cast<UINT32>(intrinsics.size())));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::AddDepthAttributes(const DepthConfiguration &depth) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (depth.subtypes.empty()) return S_OK;
  user_space_frameworks::AutoLock guard(streamLock);
  RETURN_HR_IF_NULL(E_UNEXPECTED, attributes);
  RETURN_IF_FAILED(attributes->SetUINT32(MF_MT_DEPTH_MEASUREMENT, depth.measurementType));
  RETURN_IF_FAILED(attributes->SetUINT32(MF_MT_DEPTH_VALUE_UNIT, depth.depthValueUnit));
  for (const auto &mt : mediaTypes) {
    GUID subType = GUID_NULL;
    if (FAILED(mt->GetGUID(MF_MT_SUBTYPE, &subType))) continue;
    if (std::find(depth.subtypes.begin(), depth.subtypes.end(), subType) == depth.subtypes.end()) continue;
    RETURN_IF_FAILED(mt->SetUINT32(MF_MT_DEPTH_MEASUREMENT, depth.measurementType));
    RETURN_IF_FAILED(mt->SetUINT32(MF_MT_DEPTH_VALUE_UNIT, depth.depthValueUnit));
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::ProcessSample(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sample);
  size_t queueLength = 0;
  {
    user_space_frameworks::AutoLock guard(streamLock);
    topologyFpsMonitor.OnSample(user_space_frameworks::FrameClock::NowUs());
    if (theState != DeviceStreamState_Run) {
      WQ_TRACE(Verbose, traceName << ": not running, sample dropped");
      return S_OK;
    }
    sampleQueue.emplace_back(sample);
    queueLength = sampleQueue.size();
  }
  // Outside the stream lock: the event generator has its own.
  RETURN_IF_FAILED(eventGenerator->QueueHaveOutput());
  if (user_space_frameworks::trace::EventsEnabled()) {
    LONGLONG sampleTime = 0;
    sample->GetSampleTime(&sampleTime);
    const uint32_t stream = id;
    const int64_t time = sampleTime;
    const uint32_t queued = static_cast<uint32_t>(queueLength);
    user_space_frameworks::trace::WriteEvent("SampleQueued", user_space_frameworks::trace::EventOpcode::Info, nullptr,
                                             {user_space_frameworks::trace::UInt32Field("Stream", stream),
                                              user_space_frameworks::trace::Int64Field("SampleTime", time),
                                              user_space_frameworks::trace::UInt32Field("QueueLength", queued)});
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::ProcessOutput(MFT_OUTPUT_DATA_BUFFER &buffer, DWORD streamId) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  // A stopped stream counts as served and its buffer stays as it was.
  if (theState != DeviceStreamState_Run) return S_OK;
  processOutputFpsMonitor.OnSample(user_space_frameworks::FrameClock::NowUs());
  if (sampleQueue.empty()) {
    buffer.dwStatus = MFT_OUTPUT_DATA_BUFFER_NO_SAMPLE;
    buffer.pSample = nullptr;
    if (user_space_frameworks::trace::EventsEnabled()) {
      const uint32_t stream = streamId;
      user_space_frameworks::trace::WriteEvent("No Sample", user_space_frameworks::trace::EventOpcode::Info, nullptr,
                                               {user_space_frameworks::trace::UInt32Field("Stream", stream)});
    }
    return MF_E_TRANSFORM_NEED_MORE_INPUT;
  }
  // The queue's reference passes to the caller.
  buffer.pSample = sampleQueue.front().Detach();
  sampleQueue.pop_front();
  buffer.dwStatus = 0;
  if (user_space_frameworks::trace::IsEnabled(user_space_frameworks::TraceLevel::Verbose)) {
    LONGLONG sampleTime = 0;
    buffer.pSample->GetSampleTime(&sampleTime);
    WQ_TRACE(Verbose, traceName << ": sample time " << sampleTime << ", " << sampleQueue.size() << " left");
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::Flush() {
  WQ_SCOPE_BEGIN(HRESULT);
  std::deque<Microsoft::WRL::ComPtr<IMFSample>> flushed;
  {
    user_space_frameworks::AutoLock guard(streamLock);
    flushed.swap(sampleQueue);
  }
  WQ_TRACE(Info, traceName << ": flushed " << flushed.size() << " samples");
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OutputStream::SetState(DeviceStreamState theState) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(Stream::SetState(theState));
  if (theState != DeviceStreamState_Run) return S_OK;
  {
    // Both monitors measure against the type the stream now runs with.
    user_space_frameworks::AutoLock guard(streamLock);
    UINT32 numerator = 0, denominator = 0;
    if (currentMediaType &&
        SUCCEEDED(MFGetAttributeRatio(currentMediaType.Get(), MF_MT_FRAME_RATE, &numerator, &denominator)) &&
        denominator != 0 && numerator / denominator > 0) {
      topologyFpsMonitor.Reset(numerator / denominator);
      processOutputFpsMonitor.Reset(numerator / denominator);
    }
  }
  Microsoft::WRL::ComPtr<IMFMediaEvent> event;
  RETURN_IF_FAILED(MFCreateMediaEvent(MEUnknown, MEDeviceStreamCreated, S_OK, nullptr, event.GetAddressOf()));
  RETURN_IF_FAILED(event->SetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, id));
  RETURN_HR_IF_NULL(E_UNEXPECTED, eventGenerator);
  RETURN_IF_FAILED(eventGenerator->QueueEvent(event.Get()));
  return S_OK;
  WQ_SCOPE_END;
}

size_t OutputStream::GetQueueLength() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  return sampleQueue.size();
}

std::string OutputStream::GetInfo() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  std::ostringstream text;
  text << traceName << " (" << configuration.name << "): state " << theState << ", type "
       << DescribeMediaType(currentMediaType.Get()) << ", " << sampleQueue.size() << " queued, in "
       << topologyFpsMonitor.GetCurrentFps() << " fps, out " << processOutputFpsMonitor.GetCurrentFps() << " fps";
  return text.str();
}

}  // namespace mft_core
