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

}  // namespace mft_core
