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

std::vector<BYTE> CalibrationTable(const std::vector<std::pair<BYTE, std::vector<BYTE>>> &entries) {
  std::vector<BYTE> table{static_cast<BYTE>(entries.size())};
  for (const auto &entry : entries) {
    table.push_back(entry.first);
    table.push_back(0);
    Append(table, static_cast<uint16_t>(entry.second.size()));
    table.insert(table.end(), entry.second.begin(), entry.second.end());
  }
  return table;
}

std::vector<BYTE> IntrinsicsBody(UINT32 width, UINT32 height, float focal) {
  std::vector<BYTE> body;
  Append(body, UINT32{1});
  MFPinholeCameraIntrinsic_IntrinsicModel model = {};
  model.Width = width;
  model.Height = height;
  model.CameraModel.FocalLength = {focal, focal};
  model.CameraModel.PrincipalPoint = {width / 2.0f, height / 2.0f};
  model.DistortionModel = {0.01f, -0.02f, 0.0f, 0.001f, 0.0005f};
  Append(body, model);
  return body;
}

std::vector<BYTE> ExtrinsicsBody(float baselineMetres) {
  std::vector<BYTE> body;
  Append(body, UINT32{1});
  MFCameraExtrinsic_CalibratedTransform transform = {};
  transform.CalibrationId = kSubtypeZ16;
  transform.Position = {baselineMetres, 0.0f, 0.0f};
  transform.Orientation = {0.0f, 0.0f, 0.0f, 1.0f};
  Append(body, transform);
  return body;
}

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
