// The calibration replies the camera's extension units give, byte for byte, so that tests can build
// well-formed ones and spoil them.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/WindowsSdk.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "sim/CameraConfig.h"

namespace sim {

// The fisheye unit's fixed-size replies: a 5-byte head (one entry, sensor index, reserved, body
// length) and the record. Intrinsics: 53 bytes, one 640x480 model. Extrinsics: 73 bytes.
constexpr size_t kFisheyeReplyHeadSize = 5;
std::vector<BYTE> FisheyeIntrinsicsReply(UINT32 modelCount = 1);
STMFCameraFishEyeExtrinsics FisheyeExtrinsicsRecord();
std::vector<BYTE> FisheyeExtrinsicsReply(const STMFCameraFishEyeExtrinsics &record = FisheyeExtrinsicsRecord());

}  // namespace sim
