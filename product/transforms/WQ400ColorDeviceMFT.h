// The device transform of the camera's color sensor: the product base plus a metadata parser per input
// stream, calibration read from the color unit, and the color node chain (with the timestamp node).
#pragma once

#include <memory>
#include <vector>

#include "product/transforms/WQ400CalibrationTable.h"
#include "product/transforms/WQ400DeviceMft.h"

namespace mft_core {

// The color unit's property set and its calibration controls.
extern const GUID kWQ400ColorXuSetId;
enum class KSPROPERTY_XU_WQ400_COLOR : ULONG { EXTRINSICS = 1, INTRINSICS = 2 };

class WQ400ColorDeviceMFT : public WQ400DeviceMft {
 public:
  WQ400ColorDeviceMFT();

 protected:
  ~WQ400ColorDeviceMFT() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *pAttributes) override;
  // Both read a single-entry table and take its first entry whatever the sensor index; anything
  // missing or malformed leaves the stream without that calibration.
  HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &intrinsics) override;
  // The calibration id is always the "Z16 " subtype: color extrinsics are stated relative to depth.
  HRESULT CreateExtrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &extrinsics) override;
  HRESULT BuildTopology(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                        std::shared_ptr<Topology> &topology) override;

 private:
  // The table behind `selector` and the sensor index of its first entry.
  WQ400CalibrationTable ReadTable(KSPROPERTY_XU_WQ400_COLOR selector, uint8_t &firstSensor);
};

}  // namespace mft_core
