// The simulated camera's per-frame metadata, attached to samples the way the camera driver does: a raw
// buffer (MF_CAPTURE_METADATA_FRAME_RAWSTREAM) in the sample's capture-metadata attribute store
// (MFSampleExtension_CaptureMetadata), holding the USB video header item and then the camera's items.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "platform/WindowsSdk.h"
#include "product/metadata/WQ400MetadataRecords.h"

namespace sim {

// Builds a raw metadata buffer item by item; any item may lie about its size.
class MetadataBufferBuilder {
 public:
  // The USB video header item (id 2, size 40): `hwTimestamp` is the first word of its 32-byte header.
  MetadataBufferBuilder &UsbVideoHeader(uint32_t hwTimestamp, uint32_t firstItemId = MetadataId_UsbVideoHeader);
  // An item whose size field tells the truth.
  MetadataBufferBuilder &Item(uint32_t metadataId, const void *payload, size_t payloadSize);
  template <typename T>
  MetadataBufferBuilder &Item(uint32_t metadataId, const T &record) {
    return Item(metadataId, &record, sizeof(record));
  }
  // An item head with any size field (0, past the end, ...) followed by `payloadSize` bytes.
  MetadataBufferBuilder &ItemWithSizeField(uint32_t metadataId, uint32_t sizeField, const void *payload,
                                           size_t payloadSize);
  MetadataBufferBuilder &Raw(const void *bytes, size_t size);
  // Drops the last `count` bytes (a buffer cut short).
  MetadataBufferBuilder &Truncate(size_t count);

  const std::vector<uint8_t> &Bytes() const { return bytes; }

 private:
  std::vector<uint8_t> bytes;
};

// Attaches `size` bytes as the sample's raw capture metadata, in a new attribute store and buffer.
HRESULT AttachCaptureMetadata(IMFSample *sample, const uint8_t *bytes, size_t size);
inline HRESULT AttachCaptureMetadata(IMFSample *sample, const std::vector<uint8_t> &bytes) {
  return AttachCaptureMetadata(sample, bytes.data(), bytes.size());
}

enum class CameraKind { Depth, Color, FishEye };

// Faults that spoil the next frame's metadata only.
enum class MetadataFault {
  None,
  NoMetadata,        // the sample gets no capture metadata at all
  EmptyBuffer,       // a raw buffer of length 0
  WrongFirstItemId,  // the buffer does not open with the USB video header item
  ZeroSizeItem,      // an item of size 0 in front of the camera's items
  OverrunningItem,   // the last item claims more bytes than the buffer holds
  TruncatedBuffer,   // the buffer ends in the middle of the last item
};

// Writes one product's metadata into successive frames: frame counters count up from the first one,
// hardware timestamps step by the frame interval. Thread-safe: a test may request faults while a
// frame source writes frames.
class CameraMetadataWriter {
 public:
  explicit CameraMetadataWriter(CameraKind kind, uint32_t firstFrameCounter = 1, uint32_t frameIntervalUs = 33333);

  // Attaches the next frame's metadata to `sample`. Usable as a frame source's per-sample hook.
  HRESULT WriteNextFrame(IMFSample *sample);
  // The raw buffer of the next frame, advancing the counters as WriteNextFrame does (an empty vector
  // for MetadataFault::NoMetadata).
  std::vector<uint8_t> BuildNextFrame();

  // Items written in every frame. By default the product's own; any known item may be switched on
  // (a color camera with a depth-control item, ...) or off.
  void SetItemEnabled(uint32_t metadataId, bool enabled);
  // Writes the item with its payload `delta` bytes longer (or shorter) than its record, size field
  // telling the truth, until set back to 0.
  void SetItemSizeDelta(uint32_t metadataId, int32_t delta);
  // Writes the item twice per frame, the first copy `delta` bytes too long and the second right.
  void SetItemDuplicated(uint32_t metadataId, bool duplicated);

  // Frame counters: the next frame skips `count` counters (lost frames) or repeats the last counter.
  void SkipFrameCounters(uint32_t count);
  void RepeatFrameCounter();
  void InjectFault(MetadataFault fault);

  // Record contents.
  void SetIntrinsics(const MFPinholeCameraIntrinsics &intrinsics);
  void SetExtrinsics(const MFCameraExtrinsics &extrinsics);
  void SetDepthExposure(uint32_t exposureIn10x100ns);
  void SetFishEyeControl(uint32_t flags, uint32_t gain, uint32_t exposureUs);

  CameraKind GetKind() const { return kind; }
  uint32_t GetLastFrameCounter() const;
  uint32_t GetLastHwTimestamp() const;
  // The items this writer writes by default for `kind`, in the camera's order.
  static std::vector<uint32_t> DefaultItems(CameraKind kind);

 private:
  std::vector<uint8_t> Build(bool &attach);
  void AppendItem(MetadataBufferBuilder &builder, uint32_t metadataId, uint32_t frameCounter) const;
  std::vector<uint8_t> RecordBytes(uint32_t metadataId, uint32_t frameCounter) const;

  mutable std::mutex mutex;
  const CameraKind kind;
  const uint32_t frameIntervalUs;
  std::vector<uint32_t> items;  // in writing order
  std::map<uint32_t, int32_t> sizeDeltas;
  std::map<uint32_t, bool> duplicated;
  uint32_t nextFrameCounter;
  uint32_t lastFrameCounter = 0;
  uint32_t hwTimestamp = 1000;
  uint32_t lastHwTimestamp = 0;
  uint32_t pendingSkip = 0;
  bool pendingRepeat = false;
  bool hasWrittenFrame = false;
  MetadataFault pendingFault = MetadataFault::None;
  MFPinholeCameraIntrinsics intrinsics{};
  MFCameraExtrinsics extrinsics{};
  STMFCameraFishEyeExtrinsics fishEyeExtrinsics{};
  uint32_t depthExposure = 3300;  // 33 ms
  VeldaraWQ400MetaDataTavixFishEyeControl fishEyeControl{};
};

}  // namespace sim
