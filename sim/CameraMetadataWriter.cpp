#include "sim/CameraMetadataWriter.h"

#include <algorithm>
#include <cstring>

#include "user_space_frameworks/Check.h"

namespace sim {

using Microsoft::WRL::ComPtr;
using namespace mft_core;

namespace {

constexpr uint32_t kItemHeadSize = sizeof(KSCAMERA_METADATA_ITEMHEADER);
constexpr uint32_t kUsbVideoHeaderSize = 32;

void AppendU32(std::vector<uint8_t> &bytes, uint32_t value) {
  const size_t at = bytes.size();
  bytes.resize(at + sizeof(value));
  std::memcpy(bytes.data() + at, &value, sizeof(value));
}

template <typename T>
std::vector<uint8_t> BytesOf(const T &record) {
  const auto *begin = reinterpret_cast<const uint8_t *>(&record);
  return std::vector<uint8_t>(begin, begin + sizeof(record));
}

// Firmware bytes that change from frame to frame, so that a stale record is told from a fresh one.
void FillFirmwareBytes(uint8_t *bytes, size_t size, uint32_t metadataId, uint32_t frameCounter) {
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(metadataId * 31u + frameCounter * 7u + i);
}

template <typename T>
std::vector<uint8_t> CameraRecord(uint32_t metadataId, uint32_t frameCounter) {
  T record{};
  record.metaDataId = metadataId;
  record.size = sizeof(T);
  FillFirmwareBytes(record.firmwareData, sizeof(record.firmwareData), metadataId, frameCounter);
  return BytesOf(record);
}

}  // namespace

// ---- MetadataBufferBuilder ---------------------------------------------------------------------------

MetadataBufferBuilder &MetadataBufferBuilder::UsbVideoHeader(uint32_t hwTimestamp, uint32_t firstItemId) {
  AppendU32(bytes, firstItemId);
  AppendU32(bytes, kItemHeadSize + kUsbVideoHeaderSize);
  const size_t header = bytes.size();
  bytes.resize(header + kUsbVideoHeaderSize, 0);
  std::memcpy(bytes.data() + header, &hwTimestamp, sizeof(hwTimestamp));
  return *this;
}

MetadataBufferBuilder &MetadataBufferBuilder::Item(uint32_t metadataId, const void *payload, size_t payloadSize) {
  return ItemWithSizeField(metadataId, static_cast<uint32_t>(kItemHeadSize + payloadSize), payload, payloadSize);
}

MetadataBufferBuilder &MetadataBufferBuilder::ItemWithSizeField(uint32_t metadataId, uint32_t sizeField,
                                                                const void *payload, size_t payloadSize) {
  AppendU32(bytes, metadataId);
  AppendU32(bytes, sizeField);
  return Raw(payload, payloadSize);
}

MetadataBufferBuilder &MetadataBufferBuilder::Raw(const void *data, size_t size) {
  const auto *begin = static_cast<const uint8_t *>(data);
  if (size > 0) bytes.insert(bytes.end(), begin, begin + size);
  return *this;
}

MetadataBufferBuilder &MetadataBufferBuilder::Truncate(size_t count) {
  bytes.resize(bytes.size() - std::min(count, bytes.size()));
  return *this;
}

HRESULT AttachCaptureMetadata(IMFSample *sample, const uint8_t *bytes, size_t size) {
  RETURN_IF_NULL(sample);
  RETURN_HR_IF(E_INVALIDARG, size > 0xFFFFFFFFu);
  const DWORD length = static_cast<DWORD>(size);
  ComPtr<IMFMediaBuffer> rawStream;
  // A zero-length buffer is one the driver can deliver; the platform wants a capacity of at least one.
  RETURN_IF_FAILED(MFCreateMemoryBuffer(std::max<DWORD>(length, 1), &rawStream));
  if (length > 0) {
    BYTE *data = nullptr;
    RETURN_IF_FAILED(rawStream->Lock(&data, nullptr, nullptr));
    std::memcpy(data, bytes, length);
    RETURN_IF_FAILED(rawStream->Unlock());
  }
  RETURN_IF_FAILED(rawStream->SetCurrentLength(length));
  ComPtr<IMFAttributes> captureMetadata;
  RETURN_IF_FAILED(MFCreateAttributes(&captureMetadata, 1));
  RETURN_IF_FAILED(captureMetadata->SetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, rawStream.Get()));
  RETURN_IF_FAILED(sample->SetUnknown(MFSampleExtension_CaptureMetadata, captureMetadata.Get()));
  return S_OK;
}

// ---- CameraMetadataWriter ----------------------------------------------------------------------------

std::vector<uint32_t> CameraMetadataWriter::DefaultItems(CameraKind kind) {
  switch (kind) {
    case CameraKind::Depth:
      return {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_CameraExtrinsics, WQ400MetadataId_CaptureTiming,
              WQ400MetadataId_Stat, WQ400MetadataId_Configuration, WQ400MetadataId_DepthControl};
    case CameraKind::Color:
      return {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_CameraExtrinsics, WQ400MetadataId_CaptureTiming,
              WQ400MetadataId_Configuration, WQ400MetadataId_ColorControl};
    case CameraKind::FishEye:
      return {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_FishEyeExtrinsics, WQ400MetadataId_CaptureTiming,
              WQ400MetadataId_FishEyeControl, WQ400MetadataId_Configuration};
  }
  return {};
}

CameraMetadataWriter::CameraMetadataWriter(CameraKind kind, uint32_t firstFrameCounter, uint32_t frameIntervalUs)
    : kind(kind), frameIntervalUs(frameIntervalUs), items(DefaultItems(kind)), nextFrameCounter(firstFrameCounter) {
  const bool fishEye = kind == CameraKind::FishEye;
  intrinsics.IntrinsicModelCount = 1;
  auto &model = intrinsics.IntrinsicModels[0];
  model.Width = fishEye ? 640 : 1280;
  model.Height = fishEye ? 480 : 720;
  model.CameraModel.FocalLength = {fishEye ? 285.f : 640.f, fishEye ? 285.f : 640.f};
  model.CameraModel.PrincipalPoint = {model.Width / 2.f, model.Height / 2.f};
  model.DistortionModel = {fishEye ? -0.01f : 0.f, 0.f, 0.f, 0.f, 0.f};
  extrinsics.TransformCount = 1;
  extrinsics.CalibratedTransforms[0].CalibrationId = {0x5a1de7c0, 0x1d1f, 0x4a53, {0x9a, 0x2e, 1, 2, 3, 4, 5, 6}};
  extrinsics.CalibratedTransforms[0].Position = {kind == CameraKind::Color ? 0.015f : 0.f, 0.f, 0.f};
  extrinsics.CalibratedTransforms[0].Orientation = {0.f, 0.f, 0.f, 1.f};
  fishEyeExtrinsics.transformCount = 1;
  fishEyeExtrinsics.calibrationId = extrinsics.CalibratedTransforms[0].CalibrationId;
  fishEyeExtrinsics.rotation[0] = fishEyeExtrinsics.rotation[4] = fishEyeExtrinsics.rotation[8] = 1.f;
  fishEyeExtrinsics.translation[0] = -0.03f;
  fishEyeControl.metaDataId = WQ400MetadataId_FishEyeControl;
  fishEyeControl.gain = 16;
  fishEyeControl.exposure = 10000;
}

HRESULT CameraMetadataWriter::WriteNextFrame(IMFSample *sample) {
  RETURN_IF_NULL(sample);
  bool attach = true;
  const std::vector<uint8_t> bytes = Build(attach);
  if (!attach) return S_OK;
  return AttachCaptureMetadata(sample, bytes);
}

std::vector<uint8_t> CameraMetadataWriter::BuildNextFrame() {
  bool attach = true;
  return Build(attach);
}

std::vector<uint8_t> CameraMetadataWriter::Build(bool &attach) {
  std::lock_guard<std::mutex> hold(mutex);
  uint32_t frameCounter;
  if (pendingRepeat && hasWrittenFrame) {
    frameCounter = lastFrameCounter;
  } else {
    frameCounter = nextFrameCounter + pendingSkip;
    nextFrameCounter = frameCounter + 1;
  }
  pendingRepeat = false;
  pendingSkip = 0;
  lastFrameCounter = frameCounter;
  hasWrittenFrame = true;
  lastHwTimestamp = hwTimestamp;
  hwTimestamp += frameIntervalUs;

  const MetadataFault fault = pendingFault;
  pendingFault = MetadataFault::None;
  MetadataBufferBuilder builder;
  attach = fault != MetadataFault::NoMetadata;
  switch (fault) {
    case MetadataFault::NoMetadata:
    case MetadataFault::EmptyBuffer:
      return {};
    case MetadataFault::WrongFirstItemId:
      builder.UsbVideoHeader(lastHwTimestamp, MetadataId_PhotoConfirmation);
      break;
    default:
      builder.UsbVideoHeader(lastHwTimestamp);
      break;
  }
  if (fault == MetadataFault::ZeroSizeItem) builder.ItemWithSizeField(WQ400MetadataId_Configuration, 0, nullptr, 0);
  for (const uint32_t id : items) AppendItem(builder, id, frameCounter);
  if (fault == MetadataFault::OverrunningItem) {
    const std::vector<uint8_t> record = RecordBytes(WQ400MetadataId_Configuration, frameCounter);
    builder.ItemWithSizeField(WQ400MetadataId_Configuration, static_cast<uint32_t>(kItemHeadSize + record.size() + 64),
                              record.data(), record.size());
  }
  if (fault == MetadataFault::TruncatedBuffer) builder.Truncate(5);
  return builder.Bytes();
}

void CameraMetadataWriter::AppendItem(MetadataBufferBuilder &builder, uint32_t metadataId, uint32_t frameCounter) const {
  std::vector<uint8_t> record = RecordBytes(metadataId, frameCounter);
  const auto delta = sizeDeltas.find(metadataId);
  const int32_t sizeDelta = delta == sizeDeltas.end() ? 0 : delta->second;
  const auto twice = duplicated.find(metadataId);
  if (twice != duplicated.end() && twice->second) {
    // The first copy is one the parsers must pass over.
    std::vector<uint8_t> wrong = record;
    wrong.resize(record.size() + (sizeDelta != 0 ? sizeDelta : 4), 0xEE);
    builder.Item(metadataId, wrong.data(), wrong.size());
    builder.Item(metadataId, record.data(), record.size());
    return;
  }
  if (sizeDelta != 0) {
    const int64_t size = std::max<int64_t>(0, static_cast<int64_t>(record.size()) + sizeDelta);
    record.resize(static_cast<size_t>(size), 0xEE);
  }
  builder.Item(metadataId, record.data(), record.size());
}

std::vector<uint8_t> CameraMetadataWriter::RecordBytes(uint32_t metadataId, uint32_t frameCounter) const {
  switch (metadataId) {
    case WQ400MetadataId_CameraIntrinsics:
      return BytesOf(intrinsics);
    case WQ400MetadataId_CameraExtrinsics:
      return BytesOf(extrinsics);
    case WQ400MetadataId_FishEyeExtrinsics:
      return BytesOf(fishEyeExtrinsics);
    case WQ400MetadataId_CaptureTiming: {
      VeldaraWQ400MetaDataTavixCaptureTiming timing{};
      timing.metaDataId = metadataId;
      timing.size = sizeof(timing);
      timing.frameCounter = frameCounter;
      FillFirmwareBytes(timing.firmwareData, sizeof(timing.firmwareData), metadataId, frameCounter);
      std::memcpy(timing.firmwareData, &lastHwTimestamp, sizeof(lastHwTimestamp));
      return BytesOf(timing);
    }
    case WQ400MetadataId_DepthControl: {
      VeldaraWQ400MetaDataTavixDepthControl control{};
      control.metaDataId = metadataId;
      control.size = sizeof(control);
      control.exposure = depthExposure;
      FillFirmwareBytes(control.firmwareData, sizeof(control.firmwareData), metadataId, frameCounter);
      return BytesOf(control);
    }
    case WQ400MetadataId_FishEyeControl:
      return BytesOf(fishEyeControl);
    case WQ400MetadataId_Configuration:
      return CameraRecord<VeldaraWQ400MetaDataTavixConfiguration>(metadataId, frameCounter);
    case WQ400MetadataId_Stat:
      return CameraRecord<VeldaraWQ400MetaDataTavixStat>(metadataId, frameCounter);
    case WQ400MetadataId_ColorControl:
      return CameraRecord<VeldaraWQ400MetaDataTavixColorControl>(metadataId, frameCounter);
    default: {
      std::vector<uint8_t> bytes(16);
      FillFirmwareBytes(bytes.data(), bytes.size(), metadataId, frameCounter);
      return bytes;
    }
  }
}

void CameraMetadataWriter::SetItemEnabled(uint32_t metadataId, bool enabled) {
  std::lock_guard<std::mutex> hold(mutex);
  const auto at = std::find(items.begin(), items.end(), metadataId);
  if (enabled && at == items.end()) items.push_back(metadataId);
  if (!enabled && at != items.end()) items.erase(at);
}

void CameraMetadataWriter::SetItemSizeDelta(uint32_t metadataId, int32_t delta) {
  std::lock_guard<std::mutex> hold(mutex);
  sizeDeltas[metadataId] = delta;
}

void CameraMetadataWriter::SetItemDuplicated(uint32_t metadataId, bool isDuplicated) {
  std::lock_guard<std::mutex> hold(mutex);
  duplicated[metadataId] = isDuplicated;
}

void CameraMetadataWriter::SkipFrameCounters(uint32_t count) {
  std::lock_guard<std::mutex> hold(mutex);
  pendingSkip += count;
}

void CameraMetadataWriter::RepeatFrameCounter() {
  std::lock_guard<std::mutex> hold(mutex);
  pendingRepeat = true;
}

void CameraMetadataWriter::InjectFault(MetadataFault fault) {
  std::lock_guard<std::mutex> hold(mutex);
  pendingFault = fault;
}

void CameraMetadataWriter::SetIntrinsics(const MFPinholeCameraIntrinsics &value) {
  std::lock_guard<std::mutex> hold(mutex);
  intrinsics = value;
}

void CameraMetadataWriter::SetExtrinsics(const MFCameraExtrinsics &value) {
  std::lock_guard<std::mutex> hold(mutex);
  extrinsics = value;
}

void CameraMetadataWriter::SetDepthExposure(uint32_t exposureIn10x100ns) {
  std::lock_guard<std::mutex> hold(mutex);
  depthExposure = exposureIn10x100ns;
}

void CameraMetadataWriter::SetFishEyeControl(uint32_t flags, uint32_t gain, uint32_t exposureUs) {
  std::lock_guard<std::mutex> hold(mutex);
  fishEyeControl.flags = flags;
  fishEyeControl.gain = gain;
  fishEyeControl.exposure = exposureUs;
}

uint32_t CameraMetadataWriter::GetLastFrameCounter() const {
  std::lock_guard<std::mutex> hold(mutex);
  return lastFrameCounter;
}

uint32_t CameraMetadataWriter::GetLastHwTimestamp() const {
  std::lock_guard<std::mutex> hold(mutex);
  return lastHwTimestamp;
}

}  // namespace sim
