#include "mft_core/streams/Stream.h"

#include <sstream>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/MediaTypeTranslator.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

void SplitPair(UINT64 value, UINT32 &high, UINT32 &low) {
  high = static_cast<UINT32>(value >> 32);
  low = static_cast<UINT32>(value & 0xFFFFFFFFu);
}

}  // namespace

std::string DescribeMediaType(IMFMediaType *mediaType) {
  if (mediaType == nullptr) return "(none)";
  std::ostringstream text;
  GUID subtype = GUID_NULL;
  if (SUCCEEDED(mediaType->GetGUID(MF_MT_SUBTYPE, &subtype))) text << user_space_frameworks::MediaTypeTranslator::SubtypeName(subtype);
  else text << "(no subtype)";
  UINT64 pair = 0;
  UINT32 a = 0, b = 0;
  if (SUCCEEDED(mediaType->GetUINT64(MF_MT_FRAME_SIZE, &pair))) {
    SplitPair(pair, a, b);
    text << " " << a << "x" << b;
  }
  if (SUCCEEDED(mediaType->GetUINT64(MF_MT_FRAME_RATE, &pair))) {
    SplitPair(pair, a, b);
    text << " @ " << a << "/" << b << " fps";
  }
  return text.str();
}

Stream::Stream(DWORD id, MediaEventGenerator *eventGenerator)
    : id(id),
      eventGenerator(eventGenerator),
      traceName("Stream " + std::to_string(id)),
      fpsCallback(std::make_shared<FpsCallback>(this, &Stream::OnFpsChange)) {}

DeviceStreamState Stream::GetState() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  return theState;
}

HRESULT Stream::SetState(DeviceStreamState theState) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  this->theState = theState;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::GetMediaTypeAt(DWORD dwTypeIndex, IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(ppMediaType);
  user_space_frameworks::AutoLock guard(streamLock);
  // An empty list is told apart from an index past the end.
  if (mediaTypes.empty()) return E_NOTIMPL;
  if (dwTypeIndex >= mediaTypes.size()) return MF_E_NO_MORE_TYPES;
  RETURN_IF_FAILED(mediaTypes[dwTypeIndex].CopyTo(ppMediaType));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::GetCurrentMediaType(IMFMediaType **ppMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(ppMediaType);
  user_space_frameworks::AutoLock guard(streamLock);
  if (!currentMediaType) return MF_E_TRANSFORM_TYPE_NOT_SET;
  RETURN_IF_FAILED(currentMediaType.CopyTo(ppMediaType));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::SetCurrentMediaType(IMFMediaType *pMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Info, traceName << ": current media type " << DescribeMediaType(pMediaType));
  user_space_frameworks::AutoLock guard(streamLock);
  currentMediaType = pMediaType;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::GetAttributes(IMFAttributes **ppAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  IMFAttributes **theAttr = ppAttributes;
  RETURN_IF_NULL(theAttr);
  user_space_frameworks::AutoLock guard(streamLock);
  RETURN_HR_IF_NULL(E_UNEXPECTED, attributes);
  RETURN_IF_FAILED(attributes.CopyTo(theAttr));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::GetSupportedMediaTypes(MediaTypeList &mediaTypes) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  mediaTypes = this->mediaTypes;
  return S_OK;
  WQ_SCOPE_END;
}

bool Stream::IsSupported(IMFMediaType *mediaType, DWORD equalFlagsMask) {
  WQ_SCOPE();
  if (mediaType == nullptr) return false;
  user_space_frameworks::AutoLock guard(streamLock);
  for (const auto &candidate : mediaTypes) {
    DWORD flags = 0;
    const HRESULT hr = candidate->IsEqual(mediaType, &flags);
    if (hr == S_OK) return true;
    if (hr == S_FALSE && equalFlagsMask != 0 && (flags & equalFlagsMask) == equalFlagsMask) return true;
  }
  return false;
}

HRESULT Stream::FindMatchingMediaType(Microsoft::WRL::ComPtr<IMFMediaType> &result, IMFMediaType *mediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(mediaType);
  static const GUID *const kKeys[] = {&MF_MT_SUBTYPE, &MF_MT_FRAME_SIZE, &MF_MT_FRAME_RATE};
  PROPVARIANT values[3];
  bool complete = true;
  for (size_t k = 0; k < 3; ++k) {
    PropVariantInit(&values[k]);
    if (FAILED(mediaType->GetItem(*kKeys[k], &values[k]))) complete = false;
  }
  {
    user_space_frameworks::AutoLock guard(streamLock);
    for (const auto &candidate : mediaTypes) {
      if (!complete) break;
      bool matches = true;
      for (size_t k = 0; k < 3 && matches; ++k) {
        BOOL equal = FALSE;
        matches = SUCCEEDED(candidate->CompareItem(*kKeys[k], values[k], &equal)) && equal;
      }
      if (matches) {
        result = candidate;
        break;
      }
    }
  }
  for (auto &value : values) PropVariantClear(&value);
  if (complete && result) {
    WQ_TRACE(Info, "Found matching media type: " << DescribeMediaType(result.Get()));
    return S_OK;
  }
  WQ_TRACE(Warning, "Failed to find matching media type: " << DescribeMediaType(mediaType));
  TraceSupportedMediaTypes();
  return E_FAIL;
  WQ_SCOPE_END;
}

HRESULT Stream::FindClosestMediaType(Microsoft::WRL::ComPtr<IMFMediaType> &result, REFGUID subtype, UINT32 minFps,
                                     UINT32 minWidth, UINT32 minHeight) {
  WQ_SCOPE_BEGIN(HRESULT);
  Microsoft::WRL::ComPtr<IMFMediaType> best;
  UINT32 bestWidth = 0, bestHeight = 0, bestRate = 0, bestDenominator = 0;
  {
    user_space_frameworks::AutoLock guard(streamLock);
    for (const auto &candidate : mediaTypes) {
      GUID candidateSubtype = GUID_NULL;
      if (FAILED(candidate->GetGUID(MF_MT_SUBTYPE, &candidateSubtype)) || candidateSubtype != subtype) continue;
      UINT64 pair = 0;
      UINT32 width = 0, height = 0, numerator = 0, denominator = 0;
      if (SUCCEEDED(candidate->GetUINT64(MF_MT_FRAME_SIZE, &pair))) SplitPair(pair, width, height);
      if (SUCCEEDED(candidate->GetUINT64(MF_MT_FRAME_RATE, &pair))) SplitPair(pair, numerator, denominator);
      const UINT32 rate = denominator == 0 ? 0 : numerator / denominator;
      if (rate < minFps || width < minWidth || height < minHeight) continue;
      // Smallest frame first, then the lowest rate; the walk order decides ties, as the list is ordered.
      bool replace = !best;
      if (!replace) {
        if (width < bestWidth) replace = true;
        else if (height < bestHeight) replace = true;
        else if (width == bestWidth && height == bestHeight && bestDenominator != 0 && rate < bestRate) replace = true;
      }
      if (replace) {
        best = candidate;
        bestWidth = width;
        bestHeight = height;
        bestRate = rate;
        bestDenominator = denominator;
      }
    }
  }
  if (!best) {
    TraceSupportedMediaTypes();
    return E_FAIL;
  }
  result = best;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Stream::InitFrameSourceTypes() {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(streamLock);
  UINT32 types = 0;
  if (attributes && SUCCEEDED(attributes->GetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, &types))) {
    supportedFrameSourceTypes = types;
  } else {
    supportedFrameSourceTypes = 0;
    WQ_TRACE(Info, traceName << ": no frame source type");
  }
  return S_OK;
  WQ_SCOPE_END;
}

void Stream::OnFpsChange(const user_space_frameworks::FpsMonitor &monitor) {
  WQ_SCOPE();
  WQ_TRACE(Info, traceName << " " << monitor.GetName() << ": " << monitor.GetCurrentFps() << " fps, measured "
                           << monitor.GetMeasuredFps() << " fps");
}

void Stream::AddMediaType(Microsoft::WRL::ComPtr<IMFMediaType> mediaType) {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(streamLock);
  mediaTypes.push_back(std::move(mediaType));
}

void Stream::TraceSupportedMediaTypes() {
  WQ_SCOPE();
  if (!user_space_frameworks::trace::IsEnabled(user_space_frameworks::TraceLevel::Info)) return;
  user_space_frameworks::AutoLock guard(streamLock);
  std::ostringstream text;
  text << "Supported media types";
  for (size_t i = 0; i < mediaTypes.size(); ++i) text << "\n  [" << i << "] " << DescribeMediaType(mediaTypes[i].Get());
  WQ_TRACE(Info, text.str());
}

}  // namespace mft_core
