// The calibration replies the camera's extension units give, byte for byte, so that tests can build
// well-formed ones and spoil them.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/WindowsSdk.h"
#include "product/metadata/WQ400MetadataRecords.h"

namespace sim {

// A calibration table: a count byte, then per entry the sensor index, a reserved byte, the body
// length (u16) and the body.
std::vector<BYTE> CalibrationTable(const std::vector<std::pair<BYTE, std::vector<BYTE>>> &entries);
// An MFPinholeCameraIntrinsics body with one model of this size and focal length.
std::vector<BYTE> IntrinsicsBody(UINT32 width, UINT32 height, float focal);
// An MFCameraExtrinsics body with one transform `baselineMetres` along x, calibrated against "Z16 ".
std::vector<BYTE> ExtrinsicsBody(float baselineMetres);

// The fisheye unit's fixed-size replies: a 5-byte head (one entry, sensor index, reserved, body
// length) and the record. Intrinsics: 53 bytes, one 640x480 model. Extrinsics: 73 bytes.
constexpr size_t kFisheyeReplyHeadSize = 5;
std::vector<BYTE> FisheyeIntrinsicsReply(UINT32 modelCount = 1);
STMFCameraFishEyeExtrinsics FisheyeExtrinsicsRecord();
std::vector<BYTE> FisheyeExtrinsicsReply(const STMFCameraFishEyeExtrinsics &record = FisheyeExtrinsicsRecord());

}  // namespace sim
