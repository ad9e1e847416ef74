#include "CaptureMetadataSamples.h"

#include <stdexcept>

namespace test_samples {

using Microsoft::WRL::ComPtr;

namespace {
void Check(HRESULT hr, const char *what) {
  if (FAILED(hr)) throw std::runtime_error(what);
}
}  // namespace

ComPtr<IMFSample> MakeSample(LONGLONG sampleTime) {
  ComPtr<IMFSample> sample;
  Check(MFCreateSample(&sample), "MFCreateSample");
  Check(sample->SetSampleTime(sampleTime), "SetSampleTime");
  return sample;
}

ComPtr<IMFSample> MakeSampleWithMetadata(const std::vector<uint8_t> &rawMetadata, LONGLONG sampleTime) {
  ComPtr<IMFSample> sample = MakeSample(sampleTime);
  Check(sim::AttachCaptureMetadata(sample.Get(), rawMetadata), "AttachCaptureMetadata");
  return sample;
}

ComPtr<IMFSample> MakeSample(sim::CameraMetadataWriter &writer, LONGLONG sampleTime) {
  ComPtr<IMFSample> sample = MakeSample(sampleTime);
  Check(writer.WriteNextFrame(sample.Get()), "WriteNextFrame");
  return sample;
}

std::optional<std::vector<uint8_t>> GetBlob(IMFSample *sample, REFGUID key) {
  UINT32 size = 0;
  if (FAILED(sample->GetBlobSize(key, &size))) return std::nullopt;
  std::vector<uint8_t> blob(size);
  UINT32 written = 0;
  Check(sample->GetBlob(key, blob.data(), size, &written), "GetBlob");
  blob.resize(written);
  return blob;
}

std::optional<UINT32> GetUINT32(IMFSample *sample, REFGUID key) {
  UINT32 value = 0;
  if (FAILED(sample->GetUINT32(key, &value))) return std::nullopt;
  return value;
}

UINT32 AttributeCount(IMFSample *sample) {
  UINT32 count = 0;
  Check(sample->GetCount(&count), "GetCount");
  return count;
}

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13);
  return bytes;
}

}  // namespace test_samples
