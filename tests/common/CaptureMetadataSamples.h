// Real Media Foundation samples carrying camera metadata the way the driver attaches it, and readers
// for the attributes the transform writes onto them.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/CameraMetadataWriter.h"

namespace test_samples {

// A sample with a sample time and no metadata.
Microsoft::WRL::ComPtr<IMFSample> MakeSample(LONGLONG sampleTime = 0);
// A sample whose capture metadata holds exactly `rawMetadata` as its raw buffer.
Microsoft::WRL::ComPtr<IMFSample> MakeSampleWithMetadata(const std::vector<uint8_t> &rawMetadata,
                                                         LONGLONG sampleTime = 0);
// A sample carrying the writer's next frame.
Microsoft::WRL::ComPtr<IMFSample> MakeSample(sim::CameraMetadataWriter &writer, LONGLONG sampleTime = 0);

// The blob under `key`, or nothing when the sample has none.
std::optional<std::vector<uint8_t>> GetBlob(IMFSample *sample, REFGUID key);
std::optional<UINT32> GetUINT32(IMFSample *sample, REFGUID key);
UINT32 AttributeCount(IMFSample *sample);

template <typename T>
std::vector<uint8_t> BytesOf(const T &record) {
  const auto *begin = reinterpret_cast<const uint8_t *>(&record);
  return std::vector<uint8_t>(begin, begin + sizeof(T));
}

// `size` bytes that differ with `seed`.
std::vector<uint8_t> Pattern(size_t size, uint8_t seed);

}  // namespace test_samples
