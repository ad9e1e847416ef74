// Reading the camera's calibration from its extension unit. The replies come from the driver, so every
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
// MFCameraExtrinsics with exactly one transform.
constexpr size_t kOneTransformExtrinsicsSize = sizeof(MFCameraExtrinsics);
// Entry head of a calibration table: sensor index, reserved, body length (u16).
constexpr size_t kCalibrationEntryHeadSize = 4;
// Replies larger than this are taken as a driver fault rather than calibration.
constexpr ULONG kLargestCalibrationReply = 64 * 1024;

// Asks the unit for the size of control `selector` and reads it whole. Empty `reply` (S_OK) when the
// control reports no bytes; a failing read is returned.
HRESULT ReadCalibrationControl(ExtensionUnitKsControl &unit, ULONG selector, std::vector<BYTE> &reply);

// The body of the first entry of a calibration table (count byte, then entries). False, traced, when
// the table has no entry or the reply ends before the entry head. The body may be shorter than its
// length field claims: `bodySize` is what the reply really holds.
bool FirstCalibrationEntry(const std::vector<BYTE> &reply, size_t &bodyOffset, size_t &bodySize);

// Copies an MFPinholeCameraIntrinsics record of 4 + 44 x count bytes from `body`. False, traced, for
// a count of 0 or a record that would run past `bodySize`.
bool CopyIntrinsicsRecord(const BYTE *body, size_t bodySize, std::vector<BYTE> &intrinsics);

// Copies the count and the first transform of an MFCameraExtrinsics record (48 bytes, whatever the
// count says). False, traced, for a count of 0 or a body shorter than that.
bool CopyExtrinsicsRecord(const BYTE *body, size_t bodySize, std::vector<BYTE> &extrinsics);

}  // namespace mft_core
