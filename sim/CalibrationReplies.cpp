#include "sim/CalibrationReplies.h"

#include <cstring>

#include "sim/CameraConfig.h"

namespace sim {

namespace {

template <typename T>
void Append(std::vector<BYTE> &bytes, const T &value) {
  const size_t offset = bytes.size();
  bytes.resize(offset + sizeof(T));
  std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

std::vector<BYTE> FisheyeReply(const void *record, size_t size) {
  std::vector<BYTE> reply{1, 0, 0};
  Append(reply, static_cast<uint16_t>(size));
  const auto *bytes = static_cast<const BYTE *>(record);
  reply.insert(reply.end(), bytes, bytes + size);
  return reply;
}

}  // namespace

std::vector<BYTE> FisheyeIntrinsicsReply(UINT32 modelCount) {
  std::vector<BYTE> body = IntrinsicsBody(640, 480, 285.0f);
  std::memcpy(body.data(), &modelCount, sizeof(modelCount));
  return FisheyeReply(body.data(), body.size());
}

STMFCameraFishEyeExtrinsics FisheyeExtrinsicsRecord() {
  STMFCameraFishEyeExtrinsics record = {};
  record.transformCount = 1;
  record.calibrationId = kSubtypeY8;
  record.rotation[0] = record.rotation[4] = record.rotation[8] = 1.0f;
  record.translation[0] = -0.032f;
  record.translation[1] = 0.004f;
  return record;
}

std::vector<BYTE> FisheyeExtrinsicsReply(const STMFCameraFishEyeExtrinsics &record) {
  return FisheyeReply(&record, sizeof(record));
}

}  // namespace sim
