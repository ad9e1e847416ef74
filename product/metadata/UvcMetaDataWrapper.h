// Read-only access to the camera metadata that the driver attaches to one captured sample.
#pragma once

#include <cstdint>

#include "platform/WindowsSdk.h"
#include "product/metadata/MetadataItemWalk.h"

namespace mft_core {

// The raw metadata buffer opens with the USB video payload-header item (id 2) whose 32-byte header
// starts at offset 8; the camera's own items always start at offset 40, whatever the first item's size
// says: that is how the camera driver lays the buffer out.
class UvcMetaDataWrapper {
 public:
  static constexpr uint32_t kUsbVideoHeaderOffset = 8;
  static constexpr uint32_t kUsbVideoHeaderSize = 32;
  static constexpr uint32_t kFirstItemOffset = kUsbVideoHeaderOffset + kUsbVideoHeaderSize;

  UvcMetaDataWrapper() = default;
  ~UvcMetaDataWrapper();
  UvcMetaDataWrapper(const UvcMetaDataWrapper &) = delete;
  UvcMetaDataWrapper &operator=(const UvcMetaDataWrapper &) = delete;

  // Finds the sample's raw metadata buffer and locks it. Fails when the sample carries no metadata or
  // the buffer does not open with the USB video header item. Call once.
  HRESULT Init(const Microsoft::WRL::ComPtr<IMFSample> &sample);

  // The first item with `metadataId` whose payload size lies within minSize..maxSize; empty when there
  // is none, when Init has not succeeded, or when a malformed item ends the walk. The view is valid
  // while this wrapper lives. Throws std::invalid_argument when minSize > maxSize.
  MetadataItemView GetMetadataItem(uint32_t metadataId, uint32_t minSize, uint32_t maxSize) const;

  // The 32-byte USB video payload header; null unless Init succeeded on a buffer that holds all of it.
  const uint8_t *GetUsbVideoHeader() const { return usbVideoHeader; }

 private:
  Microsoft::WRL::ComPtr<IMFAttributes> sampleAttributes;
  Microsoft::WRL::ComPtr<IMFAttributes> metaDataAttributes;
  Microsoft::WRL::ComPtr<IMFMediaBuffer> metaDataMediaBuffer;
  BYTE *buffer = nullptr;
  DWORD bufferLength = 0;
  bool locked = false;
  const uint8_t *usbVideoHeader = nullptr;
  const uint8_t *firstItem = nullptr;
};

}  // namespace mft_core
