#include "product/transforms/WQ400FishEyeDeviceMft.h"

#include <array>
#include <cstring>

#include "product/metadata/WQ400MetadataParsers.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "product/topology/WQ400Topologies.h"
#include "product/transforms/WQ400CalibrationReplies.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

const GUID kWQ400FishEyeXuSetId = {0xF6C3C3D1, 0x5CDE, 0x4477, {0xAD, 0xF0, 0x41, 0x33, 0xF5, 0x8D, 0xA6, 0xF4}};
const GUID VELDARA_STREAM_WQ400_FISHEYE_EXTRINSICS = {
    0xF19B3A16, 0xCE1D, 0x4B98, {0x80, 0x0E, 0x1C, 0xA5, 0xB4, 0x96, 0xF6, 0x5F}};

static_assert(WQ400FishEyeDeviceMft::kExtrinsicsReplySize ==
                  WQ400FishEyeDeviceMft::kReplyHeadSize + sizeof(STMFCameraFishEyeExtrinsics),
              "fisheye extrinsics reply");
static_assert(WQ400FishEyeDeviceMft::kIntrinsicsReplySize ==
                  WQ400FishEyeDeviceMft::kReplyHeadSize + sizeof(MFPinholeCameraIntrinsics),
              "fisheye intrinsics reply");

WQ400FishEyeDeviceMft::WQ400FishEyeDeviceMft()
    : WQ400DeviceMft("WQ400 FishEye Device MFT", CLSID_WQ400FishEyeDeviceMft, kWQ400FishEyeXuSetId,
                     1, 0) {}

HRESULT WQ400FishEyeDeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::OnInitializeTransform(pAttributes));
  for (const auto &inputStream : inputStreams) {
    inputStream->AttachMetadataParser(std::make_shared<WQ400FisheyeMetadataParser>(name));
  }
  // A camera without fisheye extrinsics still streams.
  (void)RetrieveDeviceExtrinsics();
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::RegisterKsControlHandlres() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::RegisterKsControlHandlres());
  RETURN_HR_IF_NULL(E_UNEXPECTED, deviceXuKsControl);
  extendedExposureControl = std::make_shared<WQ400FishEyeExtendedExposureControl>(deviceXuKsControl, filterKsControl);
  RETURN_IF_FAILED(RegisterKsPropertyHandler(extendedExposureControl));
  RETURN_IF_FAILED(extendedExposureControl->RegisterEvent(*this));
  gainControl = std::make_shared<WQ400FishEyeGainControl>(extendedExposureControl, filterKsControl.Get());
  RETURN_IF_FAILED(RegisterKsPropertyHandler(gainControl));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::CreateIntrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &intrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  intrinsics.clear();
  if (!deviceXuKsControl) return S_OK;
  std::array<BYTE, kIntrinsicsReplySize> buff = {};
  ULONG size = kIntrinsicsReplySize;
  ULONG bytesReturned = 0;
  if (FAILED(LOG_IF_FAILED(deviceXuKsControl->SendKsProperty(static_cast<ULONG>(KSPROPERTY_XU_WQ400_FISHEYE::INTRINSICS),
                                                             buff.data(), size, 0x00000001, bytesReturned)))) {
    return S_OK;
  }
  const size_t received = bytesReturned < size ? bytesReturned : size;
  if (received <= kReplyHeadSize) {
    WQ_TRACE(Error, "fisheye intrinsics reply of " << received << " bytes holds no record");
    return S_OK;
  }
  CopyIntrinsicsRecord(buff.data() + kReplyHeadSize, received - kReplyHeadSize, intrinsics);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::RetrieveDeviceExtrinsics() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_UNEXPECTED, deviceXuKsControl);
  std::array<BYTE, kExtrinsicsReplySize> buff = {};
  ULONG size = kExtrinsicsReplySize;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(deviceXuKsControl->SendKsProperty(static_cast<ULONG>(KSPROPERTY_XU_WQ400_FISHEYE::EXTRINSICS),
                                                     buff.data(), size, 0x00000001, bytesReturned));
  RETURN_HR_IF(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), bytesReturned < size);
  STMFCameraFishEyeExtrinsics extrinsics = {};
  std::memcpy(&extrinsics, buff.data() + kReplyHeadSize, sizeof(extrinsics));
  const STMFCameraFishEyeExtrinsics *extrinsicsData = &extrinsics;
  if (extrinsics.transformCount == 0) {
    WQ_TRACE(Info, "the camera holds no fisheye extrinsics");
    return E_FAIL;
  }
  WQ_TRACE(Info, "fisheye extrinsics: count " << extrinsics.transformCount << ", rotation [" << extrinsics.rotation[0]
                                              << " " << extrinsics.rotation[1] << " " << extrinsics.rotation[2] << "; "
                                              << extrinsics.rotation[3] << " " << extrinsics.rotation[4] << " "
                                              << extrinsics.rotation[5] << "; " << extrinsics.rotation[6] << " "
                                              << extrinsics.rotation[7] << " " << extrinsics.rotation[8]
                                              << "], translation [" << extrinsics.translation[0] << " "
                                              << extrinsics.translation[1] << " " << extrinsics.translation[2] << "]");
  if (outputStreams.empty()) return S_OK;
  const std::shared_ptr<OutputStream> &outputStream = outputStreams.front();
  RETURN_HR_IF_NULL(E_FAIL, outputStream);
  ComPtr<IMFAttributes> outputStreamAttributes;
  RETURN_IF_FAILED(outputStream->GetAttributes(outputStreamAttributes.GetAddressOf()));
  RETURN_IF_FAILED(outputStreamAttributes->SetBlob(VELDARA_STREAM_WQ400_FISHEYE_EXTRINSICS,
                                                   reinterpret_cast<const UINT8 *>(extrinsicsData),
                                                   sizeof(STMFCameraFishEyeExtrinsics)));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::BuildTopology(const std::shared_ptr<OutputStream> &outputStream,
                                             IMFMediaType *nextMediaType, std::shared_ptr<Topology> &topology) {
  WQ_SCOPE_BEGIN(HRESULT);
  return BuildTopologyOf<WQ400FishEyeTopology>(outputStream, nextMediaType, topology);
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::StartOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                                 IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (extendedExposureControl) extendedExposureControl->RegisterToOnSampleSubject(outputStream);
  const HRESULT hr = WQ400DeviceMft::StartOutputStream(outputStream, nextMediaType);
  if (FAILED(hr)) {
    user_space_frameworks::ReportFailure(WQ_HERE, "WQ400DeviceMft::StartOutputStream(outputStream, nextMediaType)", hr);
    // No frame will come: requests must not wait for one.
    if (extendedExposureControl) extendedExposureControl->UnRegisterToOnSampleSubject(outputStream);
    return hr;
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400FishEyeDeviceMft::StopOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                                IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  const HRESULT hr = LOG_IF_FAILED(WQ400DeviceMft::StopOutputStream(outputStream, nextMediaType));
  if (extendedExposureControl) extendedExposureControl->UnRegisterToOnSampleSubject(outputStream);
  return hr;
  WQ_SCOPE_END;
}

}  // namespace mft_core
