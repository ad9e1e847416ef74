// Reading the camera's calibration controls from its extension unit (tables are read by
// WQ400CalibrationTable). The replies come from the driver, so every
// count and length in them is checked against the bytes actually returned before anything is copied.
#pragma once

#include <cstddef>
#include <vector>

#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "platform/WindowsSdk.h"

namespace mft_core {

// One model of MFPinholeCameraIntrinsics, and the fixed part before the models.
constexpr size_t kIntrinsicModelSize = sizeof(MFPinholeCameraIntrinsic_IntrinsicModel);
constexpr size_t kIntrinsicsHeadSize = sizeof(UINT32);
// Replies larger than this are taken as a driver fault rather than calibration.
constexpr ULONG kLargestCalibrationReply = 64 * 1024;

// Asks the unit for the size of control `selector` and reads it whole. Empty `reply` (S_OK) when the
// control reports no bytes; a failing read is returned.
HRESULT ReadCalibrationControl(ExtensionUnitKsControl &unit, ULONG selector, std::vector<BYTE> &reply);

// Copies an MFPinholeCameraIntrinsics record of 4 + 44 x count bytes from `body`. False, traced, for
// a count of 0 or a record that would run past `bodySize`.
bool CopyIntrinsicsRecord(const BYTE *body, size_t bodySize, std::vector<BYTE> &intrinsics);

}  // namespace mft_core
