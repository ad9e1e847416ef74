#include "product/transforms/WQ400DepthDeviceMft.h"

#include "mft_core/ks/KsControlHandlers.h"
#include "product/controls/WQ400HwCommandKsPropertyHandler.h"
#include "product/device/WQ400DeviceInfo.h"
#include "product/metadata/WQ400MetadataParsers.h"
#include "product/topology/WQ400Topologies.h"
#include "product/transforms/WQ400CalibrationReplies.h"
#include "product/transforms/WQ400CalibrationTable.h"
#include "product/transforms/WQ400FirmwareCheck.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;
using std::make_shared;

namespace mft_core {

namespace {

const char *FrameSourceTypeName(UINT32 type) {
  switch (type) {
    case MFFrameSourceTypes_Color: return "Color";
    case MFFrameSourceTypes_Infrared: return "Infrared";
    case MFFrameSourceTypes_Depth: return "Depth";
    case MFFrameSourceTypes_Custom: return "Custom";
    default: return "Unknown MFFrameSourceType";
  }
}

using FrameFormat = WQ400DepthDeviceMft::FrameFormat;

FrameFormat FrameFormatOf(IMFMediaType *mediaType) {
  FrameFormat format;
  MFGetAttributeSize(mediaType, MF_MT_FRAME_SIZE, &format.width, &format.height);
  MFGetAttributeRatio(mediaType, MF_MT_FRAME_RATE, &format.rateNumerator, &format.rateDenominator);
  return format;
}

std::ostream &operator<<(std::ostream &out, const FrameFormat &format) {
  return out << format.width << "x" << format.height << " at " << format.rateNumerator << "/"
             << format.rateDenominator << " fps";
}

}  // namespace

bool WQ400DepthDeviceMft::FrameFormat::operator!=(const FrameFormat &other) const {
  return width != other.width || height != other.height || rateNumerator != other.rateNumerator ||
         rateDenominator != other.rateDenominator;
}

WQ400DepthDeviceMft::WQ400DepthDeviceMft() : WQ400DeviceMft(kDisplayName, CLSID_WQ400DepthDeviceMft, kWQ400DepthXuSetId, 1, 7) {}

HRESULT WQ400DepthDeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::OnInitializeTransform(pAttributes));
  // Each stream keeps its own parser: the sticky calibration records are per stream.
  for (const auto &inputStream : inputStreams) {
    inputStream->AttachMetadataParser(std::make_shared<WQ400DepthMetadataParser>(name));
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::InitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::InitializeMembers());
  firmwareCommandPipe = std::make_shared<FirmwareCommandPipe>(deviceXuKsControl, extensionUnits.deviceXuSetId,
                                                              kFirmwareCommandSelector, name);
  auto devInfo = std::make_shared<WQ400DeviceInfo>(firmwareCommandPipe, name);
  RETURN_IF_FAILED(devInfo->Init());
  deviceInfo = devInfo;

  fwErrorHandler = std::make_shared<WQ400FwErrorHandler>(name, deviceXuKsControl, kFirmwareErrorSelector, this);
  autoUpdateEventListener->RegisterObserver(fwErrorHandler);

  // Never fails initialisation: a camera with old firmware still streams until it is updated.
  WQ400FirmwareCheck::Run(*firmwareCommandPipe, devInfo->GetFunctionalPayloadVersion());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::UninitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  // The listener may outlive this call on its work-queue thread: the handler stops being notified first.
  if (autoUpdateEventListener && fwErrorHandler) autoUpdateEventListener->UnregisterObserver(fwErrorHandler);
  RETURN_IF_FAILED(WQ400DeviceMft::UninitializeMembers());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::RegisterKsControlHandlres() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::RegisterKsControlHandlres());
  RETURN_IF_FAILED(RegisterKsPropertyHandler(make_shared<WQ400HwCommandKsPropertyHandler>(firmwareCommandPipe)));
  extendedExposureControl = std::make_shared<WQ400DepthExtendedExposureControl>(deviceXuKsControl);
  RETURN_IF_FAILED(RegisterKsPropertyHandler(extendedExposureControl));
  RETURN_IF_FAILED(extendedExposureControl->RegisterEvent(*this));
  // Depth exposure is set only through the extended exposure control: the standard ones never reach
  // the driver.
  RETURN_IF_FAILED(RegisterKsPropertyHandler(std::make_shared<KsPropHandler>(
      PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_EXPOSURE, "Standard Exposure Blocker", nullptr)));
  RETURN_IF_FAILED(RegisterKsPropertyHandler(
      std::make_shared<KsPropHandler>(PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_AUTO_EXPOSURE_PRIORITY,
                                      "Standard Auto Exposure Blocker", nullptr)));
  return S_OK;
  WQ_SCOPE_END;
}

std::vector<BYTE> WQ400DepthDeviceMft::ReadCalibrationTable(ULONG selector) {
  WQ_SCOPE();
  std::vector<BYTE> table;
  // A table the driver cannot read is one the camera does not have: the streams go without it.
  if (FAILED(ReadCalibrationControl(*deviceXuKsControl.Get(), selector, table))) table.clear();
  return table;
}

BYTE WQ400DepthDeviceMft::SensorIndexOf(const std::shared_ptr<InputStream> &inputStream) {
  WQ_SCOPE();
  const UINT32 type = inputStream->GetFrameSourceType();
  if (type == MFFrameSourceTypes_Depth) return kDepthSensorIndex;
  if (type & (MFFrameSourceTypes_Color | MFFrameSourceTypes_Infrared)) return kImagerSensorIndex;
  return 0;
}

HRESULT WQ400DepthDeviceMft::CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream,
                                              std::vector<BYTE> &intrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  intrinsics.clear();
  const BYTE sensor = SensorIndexOf(inputStream);
  if (sensor != 0) intrinsics = WQ400CalibrationTable(ReadCalibrationTable(kIntrinsicsSelector)).Intrinsics(sensor);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::CreateExtrinsics(const std::shared_ptr<InputStream> &inputStream,
                                              std::vector<BYTE> &extrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  extrinsics.clear();
  const BYTE sensor = SensorIndexOf(inputStream);
  if (sensor != 0) extrinsics = WQ400CalibrationTable(ReadCalibrationTable(kExtrinsicsSelector)).Extrinsics(sensor);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::InitOutputStreamConfiguration(OutputStreamConfiguration &configuration,
                                                           const std::shared_ptr<InputStream> &inputStream) {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Info, "input stream " << inputStream->GetID() << ": "
                                 << FrameSourceTypeName(inputStream->GetFrameSourceType()));
  // Types, then intrinsics before extrinsics, then the input stream's attributes.
  RETURN_IF_FAILED(WQ400DeviceMft::InitOutputStreamConfiguration(configuration, inputStream));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::BuildTopology(const std::shared_ptr<OutputStream> &outputStream,
                                           IMFMediaType *nextMediaType, std::shared_ptr<Topology> &topology) {
  WQ_SCOPE_BEGIN(HRESULT);
  return BuildTopologyOf<WQ400DepthTopology>(outputStream, nextMediaType, topology);
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::BookStart(const std::shared_ptr<OutputStream> &outputStream, const FrameFormat &next) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock hold(streamControlLock);
  // One stereo sensor: every stream runs at the size and rate of those already running or starting.
  for (const PendingStart &pending : pendingStarts) {
    if (pending.format != next) {
      WQ_TRACE(Error, "stream " << outputStream->GetID() << " asked for " << next << " while stream "
                                << pending.streamId << " starts at " << pending.format);
      return E_INVALIDARG;
    }
  }
  for (const auto &otherStream : outputStreams) {
    if (otherStream->GetID() == outputStream->GetID() || otherStream->GetState() != DeviceStreamState_Run) continue;
    ComPtr<IMFMediaType> otherMt;
    RETURN_IF_FAILED(otherStream->GetCurrentMediaType(&otherMt));
    const FrameFormat running = FrameFormatOf(otherMt.Get());
    if (running != next) {
      WQ_TRACE(Error, "stream " << outputStream->GetID() << " asked for " << next << " while stream "
                                << otherStream->GetID() << " runs at " << running);
      return E_INVALIDARG;
    }
  }
  pendingStarts.push_back({outputStream->GetID(), next});
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::StartOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                               IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(BookStart(outputStream, FrameFormatOf(nextMediaType)));
  // The pass-through start waits for the frame server without any lock of ours; the booking keeps a
  // start at another size out meanwhile.
  const HRESULT started = WQ400DeviceMft::StartOutputStream(outputStream, nextMediaType);
  user_space_frameworks::AutoLock hold(streamControlLock);
  for (auto pending = pendingStarts.begin(); pending != pendingStarts.end(); ++pending) {
    if (pending->streamId == outputStream->GetID()) {
      pendingStarts.erase(pending);
      break;
    }
  }
  RETURN_IF_FAILED(started);
  // The first stream started drives exposure.
  if (exposureFeedStreamId == kNoStream) {
    exposureFeedStreamId = outputStream->GetID();
    extendedExposureControl->RegisterToOnSampleSubject(outputStream);
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400DepthDeviceMft::StopOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                              IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  // Stopped either way.
  LOG_IF_FAILED(WQ400DeviceMft::StopOutputStream(outputStream, nextMediaType));
  user_space_frameworks::AutoLock hold(streamControlLock);
  if (outputStream->GetID() == exposureFeedStreamId) {
    extendedExposureControl->UnRegisterToOnSampleSubject(outputStream);
    exposureFeedStreamId = kNoStream;
    // Every stream still running feeds the control from now on; the last one is remembered.
    for (const auto &stream : outputStreams) {
      if (stream->GetState() != DeviceStreamState_Run) continue;
      extendedExposureControl->RegisterToOnSampleSubject(stream);
      exposureFeedStreamId = stream->GetID();
    }
  }
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
