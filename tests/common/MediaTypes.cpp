#include "MediaTypes.h"

#include <stdexcept>
#include <string>

namespace test_support {

namespace {

void Check(HRESULT hr, const char *what) {
  if (FAILED(hr)) throw std::runtime_error(std::string(what) + " failed");
}

}  // namespace

Microsoft::WRL::ComPtr<IMFMediaType> MakeVideoType(REFGUID subtype, UINT32 width, UINT32 height, UINT32 fps) {
  return MakeVideoType(subtype, width, height, fps, 1);
}

Microsoft::WRL::ComPtr<IMFMediaType> MakeVideoType(REFGUID subtype, UINT32 width, UINT32 height,
                                                   UINT32 rateNumerator, UINT32 rateDenominator) {
  Microsoft::WRL::ComPtr<IMFMediaType> type;
  Check(MFCreateMediaType(type.GetAddressOf()), "MFCreateMediaType");
  Check(type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video), "MF_MT_MAJOR_TYPE");
  Check(type->SetGUID(MF_MT_SUBTYPE, subtype), "MF_MT_SUBTYPE");
  Check(MFSetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, width, height), "MF_MT_FRAME_SIZE");
  Check(MFSetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, rateNumerator, rateDenominator), "MF_MT_FRAME_RATE");
  return type;
}

Microsoft::WRL::ComPtr<IMFSample> MakeSample(LONGLONG sampleTime, DWORD bufferBytes) {
  Microsoft::WRL::ComPtr<IMFSample> sample;
  Check(MFCreateSample(sample.GetAddressOf()), "MFCreateSample");
  Microsoft::WRL::ComPtr<IMFMediaBuffer> buffer;
  Check(MFCreateMemoryBuffer(bufferBytes, buffer.GetAddressOf()), "MFCreateMemoryBuffer");
  Check(buffer->SetCurrentLength(bufferBytes), "SetCurrentLength");
  Check(sample->AddBuffer(buffer.Get()), "AddBuffer");
  Check(sample->SetSampleTime(sampleTime), "SetSampleTime");
  return sample;
}

}  // namespace test_support
