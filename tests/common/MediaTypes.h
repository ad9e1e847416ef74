// Real Media Foundation media types and samples for tests.
#pragma once

#include "platform/WindowsSdk.h"

namespace test_support {

// A video type with major type, subtype, frame size and frame rate (fps/1) set; throws on failure.
Microsoft::WRL::ComPtr<IMFMediaType> MakeVideoType(REFGUID subtype, UINT32 width, UINT32 height, UINT32 fps);
// Same with an explicit frame-rate ratio.
Microsoft::WRL::ComPtr<IMFMediaType> MakeVideoType(REFGUID subtype, UINT32 width, UINT32 height,
                                                   UINT32 rateNumerator, UINT32 rateDenominator);
// A sample with one memory buffer of `bufferBytes` (length set) and the given sample time; throws on failure.
Microsoft::WRL::ComPtr<IMFSample> MakeSample(LONGLONG sampleTime = 0, DWORD bufferBytes = 64);

}  // namespace test_support
