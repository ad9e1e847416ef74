// The camera's calibration tables (intrinsics and extrinsics controls of the depth unit): a count byte
// N, then N entries of a 4-byte head (sensor index, reserved, u16 body length) and a body. The camera
// is not trusted: nothing outside the reply is ever read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mft_core {

class WQ400CalibrationTable {
 public:
  static constexpr size_t kEntryHeadSize = 4;
  static constexpr size_t kExtrinsicsSize = 48;  // MFCameraExtrinsics with one transform

  explicit WQ400CalibrationTable(std::vector<uint8_t> reply) : reply(std::move(reply)) {}

  // The MFPinholeCameraIntrinsics record of the first entry for `sensorIndex`: the count M and M
  // models (4 + 44 M bytes, whatever the entry's length says). Empty when there is no such entry, M
  // is 0, or the reply is too short for it.
  std::vector<uint8_t> Intrinsics(uint8_t sensorIndex) const;
  // The MFCameraExtrinsics record (count and one transform) of the first entry for `sensorIndex`.
  // Empty when there is no such entry, its count is 0, or the reply is too short for it.
  std::vector<uint8_t> Extrinsics(uint8_t sensorIndex) const;

 private:
  // Offset of the body of the first entry for `sensorIndex`; false when none can be trusted.
  bool FindBody(uint8_t sensorIndex, size_t &bodyOffset) const;
  uint32_t ReadU32(size_t offset) const;

  std::vector<uint8_t> reply;
};

}  // namespace mft_core
