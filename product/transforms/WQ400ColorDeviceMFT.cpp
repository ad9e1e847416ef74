#include "product/transforms/WQ400ColorDeviceMFT.h"

#include <cstring>

#include "product/metadata/WQ400MetadataParsers.h"
#include "product/topology/WQ400Topologies.h"
#include "product/transforms/WQ400CalibrationReplies.h"
#include "product/transforms/WQ400CalibrationTable.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

const GUID kWQ400ColorXuSetId = {0xB8EC416E, 0xA3AC, 0x4580, {0x8D, 0x5C, 0x0B, 0xEE, 0x15, 0x97, 0xE4, 0x3D}};

WQ400ColorDeviceMFT::WQ400ColorDeviceMFT() : WQ400DeviceMft("WQ400 Color Device MFT", CLSID_WQ400ColorDeviceMFT, kWQ400ColorXuSetId, 2, 0) {}

HRESULT WQ400ColorDeviceMFT::OnInitializeTransform(IMFAttributes *pAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(WQ400DeviceMft::OnInitializeTransform(pAttributes));
  for (const auto &inputStream : inputStreams) {
    inputStream->AttachMetadataParser(std::make_shared<WQ400ColorMetadataParser>(name));
  }
  return S_OK;
  WQ_SCOPE_END;
}

WQ400CalibrationTable WQ400ColorDeviceMFT::ReadTable(KSPROPERTY_XU_WQ400_COLOR selector, uint8_t &firstSensor) {
  WQ_SCOPE();
  std::vector<BYTE> reply;
  if (deviceXuKsControl) {
    // A failing read is traced where it happens; the stream then goes without this calibration.
    (void)ReadCalibrationControl(*deviceXuKsControl.Get(), static_cast<ULONG>(selector), reply);
  }
  // The color unit holds one entry; whatever its sensor index, the first entry is the color sensor's.
  firstSensor = reply.size() > 1 ? reply[1] : 0;
  if (!reply.empty() && reply[0] > 1) {
    WQ_TRACE(Warning, "calibration control " << static_cast<ULONG>(selector) << " holds "
                                             << static_cast<int>(reply[0]) << " entries, using the first");
  }
  return WQ400CalibrationTable(std::move(reply));
}

HRESULT WQ400ColorDeviceMFT::CreateIntrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &intrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  uint8_t sensor = 0;
  const WQ400CalibrationTable table = ReadTable(KSPROPERTY_XU_WQ400_COLOR::INTRINSICS, sensor);
  intrinsics = table.Intrinsics(sensor);
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400ColorDeviceMFT::CreateExtrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &extrinsics) {
  WQ_SCOPE_BEGIN(HRESULT);
  uint8_t sensor = 0;
  const WQ400CalibrationTable table = ReadTable(KSPROPERTY_XU_WQ400_COLOR::EXTRINSICS, sensor);
  extrinsics = table.Extrinsics(sensor);
  if (!extrinsics.empty()) {
    std::memcpy(extrinsics.data() + offsetof(MFCameraExtrinsics, CalibratedTransforms) +
                    offsetof(MFCameraExtrinsic_CalibratedTransform, CalibrationId),
                &kWQ400SubtypeZ16, sizeof(GUID));
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT WQ400ColorDeviceMFT::BuildTopology(const std::shared_ptr<OutputStream> &outputStream,
                                           IMFMediaType *nextMediaType, std::shared_ptr<Topology> &topology) {
  WQ_SCOPE_BEGIN(HRESULT);
  return BuildTopologyOf<WQ400ColorTopology>(outputStream, nextMediaType, topology);
  WQ_SCOPE_END;
}

}  // namespace mft_core
