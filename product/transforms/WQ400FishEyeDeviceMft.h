// The device transform of the camera's fisheye sensor: the product base plus a metadata parser per input
// stream, the software-driven exposure and the guarded gain, intrinsics read from the fisheye unit, the
// fisheye extrinsics published once on the first output stream, and the fisheye node chain (no
// timestamp node).
#pragma once

#include <memory>
#include <vector>

#include "product/controls/WQ400FishEyeExtendedExposureControl.h"
#include "product/controls/WQ400FishEyeGainControl.h"
#include "product/transforms/WQ400DeviceMft.h"

namespace mft_core {

extern const GUID kWQ400FishEyeXuSetId;
// Stream attribute with the 68-byte STMFCameraFishEyeExtrinsics record.
extern const GUID VELDARA_STREAM_WQ400_FISHEYE_EXTRINSICS;
enum class KSPROPERTY_XU_WQ400_FISHEYE : ULONG { EXPOSURE = 1, EXTRINSICS = 2, INTRINSICS = 3 };

class WQ400FishEyeDeviceMft : public WQ400DeviceMft {
 public:
  // The fixed replies of the fisheye unit: a 5-byte head, then the record.
  static constexpr ULONG kReplyHeadSize = 5;
  static constexpr ULONG kIntrinsicsReplySize = 53;
  static constexpr ULONG kExtrinsicsReplySize = 73;

  WQ400FishEyeDeviceMft();

 protected:
  ~WQ400FishEyeDeviceMft() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *pAttributes) override;
  HRESULT RegisterKsControlHandlres() override;
  HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &intrinsics) override;
  HRESULT BuildTopology(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                        std::shared_ptr<Topology> &topology) override;
  // The exposure control joins the stream before it runs and leaves it when it stops.
  HRESULT StartOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT StopOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;

  // Publishes the camera's fisheye extrinsics on the first output stream; E_FAIL when the camera holds
  // none (a zero first word).
  HRESULT RetrieveDeviceExtrinsics();

  std::shared_ptr<WQ400FishEyeExtendedExposureControl> extendedExposureControl;
  std::shared_ptr<WQ400FishEyeGainControl> gainControl;
};

}  // namespace mft_core
