#include "product/transforms/WQ400CalibrationTable.h"

#include <cstring>

#include "product/transforms/WQ400CalibrationReplies.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

uint32_t WQ400CalibrationTable::ReadU32(size_t offset) const {
  uint32_t value = 0;
  std::memcpy(&value, reply.data() + offset, sizeof(value));
  return value;
}

bool WQ400CalibrationTable::FindBody(uint8_t sensorIndex, size_t &bodyOffset) const {
  WQ_SCOPE();
  if (reply.empty()) {
    WQ_TRACE(Info, "empty calibration table");
    return false;
  }
  const size_t entries = reply[0];
  size_t offset = 1;
  for (size_t entry = 0; entry < entries; ++entry) {
    if (reply.size() - offset < kEntryHeadSize) {
      WQ_TRACE(Warning, "table announces " << entries << " entries but ends after " << entry << " ("
                                           << reply.size() << " bytes)");
      return false;
    }
    const uint8_t index = reply[offset];
    const uint8_t reserved = reply[offset + 1];
    const size_t length = static_cast<size_t>(reply[offset + 2]) | static_cast<size_t>(reply[offset + 3]) << 8;
    const size_t body = offset + kEntryHeadSize;
    WQ_TRACE(Verbose, "entry " << entry << ": sensor " << static_cast<int>(index) << " reserved "
                               << static_cast<int>(reserved) << " length " << length);
    // The matching entry's record has its own size; its length only leads to the next entry.
    if (index == sensorIndex) {
      bodyOffset = body;
      return true;
    }
    if (length > reply.size() - body) {
      WQ_TRACE(Warning, "entry " << entry << " of sensor " << static_cast<int>(index) << " claims " << length
                                 << " bytes, " << reply.size() - body << " remain");
      return false;
    }
    offset = body + length;
  }
  WQ_TRACE(Info, "no entry for sensor " << static_cast<int>(sensorIndex) << " among " << entries);
  return false;
}

std::vector<uint8_t> WQ400CalibrationTable::Intrinsics(uint8_t sensorIndex) const {
  WQ_SCOPE();
  size_t body = 0;
  if (!FindBody(sensorIndex, body)) return {};
  // The record's size follows its model count, not the entry's length; it must lie within the reply.
  std::vector<BYTE> intrinsics;
  CopyIntrinsicsRecord(reply.data() + body, reply.size() - body, intrinsics);
  return intrinsics;
}

std::vector<uint8_t> WQ400CalibrationTable::Extrinsics(uint8_t sensorIndex) const {
  WQ_SCOPE();
  size_t body = 0;
  if (!FindBody(sensorIndex, body)) return {};
  if (reply.size() - body < kExtrinsicsSize) {
    WQ_TRACE(Warning, "extrinsics of sensor " << static_cast<int>(sensorIndex) << " need " << kExtrinsicsSize
                                              << " bytes, " << reply.size() - body << " returned");
    return {};
  }
  if (ReadU32(body) == 0) {
    WQ_TRACE(Info, "sensor " << static_cast<int>(sensorIndex) << " has no extrinsic transform");
    return {};
  }
  // The count as the camera wrote it and exactly one transform, whatever the count says.
  return std::vector<uint8_t>(reply.begin() + body, reply.begin() + body + kExtrinsicsSize);
}

}  // namespace mft_core
