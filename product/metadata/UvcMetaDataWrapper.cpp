#include "product/metadata/UvcMetaDataWrapper.h"

#include <stdexcept>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

using Microsoft::WRL::ComPtr;

UvcMetaDataWrapper::~UvcMetaDataWrapper() {
  if (locked) metaDataMediaBuffer->Unlock();
}

HRESULT UvcMetaDataWrapper::Init(const ComPtr<IMFSample> &sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sample);
  RETURN_HR_IF(E_UNEXPECTED, locked);
  RETURN_IF_FAILED(sample.As(&sampleAttributes));
  ComPtr<IUnknown> captureMetadataUnk;
  RETURN_IF_FAILED(sampleAttributes->GetUnknown(MFSampleExtension_CaptureMetadata,
                                                __uuidof(**(&captureMetadataUnk)),
                                                IID_PPV_ARGS_Helper(&captureMetadataUnk)));
  RETURN_IF_FAILED(captureMetadataUnk.As(&metaDataAttributes));
  RETURN_IF_FAILED(metaDataAttributes->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM,
                                                  __uuidof(**(&metaDataMediaBuffer)),
                                                  IID_PPV_ARGS_Helper(&metaDataMediaBuffer)));
  RETURN_IF_FAILED(metaDataMediaBuffer->Lock(&buffer, nullptr, &bufferLength));
  locked = true;

  if (bufferLength == 0 || buffer == nullptr) {
    WQ_TRACE(Warning, "Empty metadata buffer");
    return E_FAIL;
  }
  if (bufferLength < sizeof(uint32_t)) {
    WQ_TRACE(Warning, "Metadata buffer of " << bufferLength << " bytes holds no item head");
    return E_FAIL;
  }
  const uint32_t firstId = ReadLittleU32(buffer);
  if (firstId != MetadataId_UsbVideoHeader) {
    WQ_TRACE(Warning, "Metadata buffer opens with item id " << firstId << ", expected the USB video header");
    return E_FAIL;
  }
  // A buffer too short for the whole header keeps the header out of reach; the item walk finds
  // nothing in it either.
  if (bufferLength >= kFirstItemOffset) usbVideoHeader = buffer + kUsbVideoHeaderOffset;
  firstItem = buffer + kFirstItemOffset;
  return S_OK;
  WQ_SCOPE_END;
}

MetadataItemView UvcMetaDataWrapper::GetMetadataItem(uint32_t metadataId, uint32_t minSize,
                                                     uint32_t maxSize) const {
  WQ_SCOPE();
  if (minSize > maxSize) throw std::invalid_argument("min size > max size");
  if (firstItem == nullptr) return {};

  const int64_t bytesLeft = static_cast<int64_t>(bufferLength) - kFirstItemOffset;
  const int32_t remaining = bytesLeft > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bytesLeft);
  const MetadataWalkResult result = FindMetadataItem(firstItem, remaining, metadataId, minSize, maxSize);
  switch (result.end) {
    case MetadataWalkEnd::Found:
      return result.item;
    case MetadataWalkEnd::ZeroSize:
      WQ_TRACE(Warning, "Metadata item of size 0 ends the search for id 0x" << std::hex << metadataId);
      break;
    case MetadataWalkEnd::Overrun:
      WQ_TRACE(Warning, "Metadata item id 0x" << std::hex << result.itemId << " of size " << std::dec
                                              << result.itemSize << " runs past the buffer end");
      break;
    case MetadataWalkEnd::Truncated:
      WQ_TRACE(Warning, "Metadata buffer ends inside an item head while looking for id 0x" << std::hex
                                                                                           << metadataId);
      break;
    case MetadataWalkEnd::NotFound:
      WQ_TRACE(Verbose, "Metadata id 0x" << std::hex << metadataId << " not found");
      break;
  }
  return {};
}

}  // namespace mft_core
