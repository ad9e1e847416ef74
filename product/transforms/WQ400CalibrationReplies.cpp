#include "product/transforms/WQ400CalibrationReplies.h"

#include <cstring>

#include "user_space_frameworks/Check.h"

namespace mft_core {

HRESULT ReadCalibrationControl(ExtensionUnitKsControl &unit, ULONG selector, std::vector<BYTE> &reply) {
  reply.clear();
  // A GET without a buffer reports the size of the control (with "more data").
  ULONG size = 0;
  const HRESULT sizeResult = unit.SendKsProperty(selector, nullptr, 0, KSPROPERTY_TYPE_GET, size);
  if (size == 0) {
    WQ_TRACE(Info, "control " << selector << " reports no data (0x" << std::hex << sizeResult << ")");
    return S_OK;
  }
  if (size > kLargestCalibrationReply) {
    WQ_TRACE(Error, "control " << selector << " reports " << size << " bytes, more than a calibration holds");
    return S_OK;
  }
  std::vector<BYTE> buffer(size);
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(unit.SendKsProperty(selector, buffer.data(), size, KSPROPERTY_TYPE_GET, bytesReturned));
  buffer.resize(bytesReturned < size ? bytesReturned : size);
  reply.swap(buffer);
  return S_OK;
}

bool FirstCalibrationEntry(const std::vector<BYTE> &reply, size_t &bodyOffset, size_t &bodySize) {
  if (reply.empty() || reply[0] == 0) {
    WQ_TRACE(Info, "calibration table holds no entry");
    return false;
  }
  if (reply.size() < 1 + kCalibrationEntryHeadSize) {
    WQ_TRACE(Error, "calibration reply of " << reply.size() << " bytes ends before its first entry");
    return false;
  }
  uint16_t length = 0;
  std::memcpy(&length, reply.data() + 3, sizeof(length));
  if (reply[0] != 1) {
    WQ_TRACE(Warning, "calibration table holds " << static_cast<int>(reply[0]) << " entries, using the first");
  } else {
    WQ_TRACE(Info, "calibration entry: sensor " << static_cast<int>(reply[1]) << ", reserved "
                                                << static_cast<int>(reply[2]) << ", length " << length);
  }
  bodyOffset = 1 + kCalibrationEntryHeadSize;
  bodySize = reply.size() - bodyOffset;
  return true;
}

bool CopyIntrinsicsRecord(const BYTE *body, size_t bodySize, std::vector<BYTE> &intrinsics) {
  intrinsics.clear();
  UINT32 count = 0;
  if (body == nullptr || bodySize < sizeof(count)) {
    WQ_TRACE(Error, "intrinsics record of " << bodySize << " bytes has no model count");
    return false;
  }
  std::memcpy(&count, body, sizeof(count));
  if (count == 0) {
    WQ_TRACE(Info, "intrinsics record holds no model");
    return false;
  }
  const uint64_t recordSize = kIntrinsicsHeadSize + uint64_t{kIntrinsicModelSize} * count;
  if (recordSize > bodySize) {
    WQ_TRACE(Error, "intrinsics record claims " << count << " models (" << recordSize << " bytes) but holds "
                                                << bodySize << " bytes");
    return false;
  }
  intrinsics.assign(body, body + recordSize);
  return true;
}

bool CopyExtrinsicsRecord(const BYTE *body, size_t bodySize, std::vector<BYTE> &extrinsics) {
  extrinsics.clear();
  if (body == nullptr || bodySize < kOneTransformExtrinsicsSize) {
    WQ_TRACE(Error, "extrinsics record of " << bodySize << " bytes is shorter than one transform");
    return false;
  }
  UINT32 count = 0;
  std::memcpy(&count, body, sizeof(count));
  if (count == 0) {
    WQ_TRACE(Info, "extrinsics record holds no transform");
    return false;
  }
  extrinsics.assign(body, body + kOneTransformExtrinsicsSize);
  return true;
}

}  // namespace mft_core
