// Common part of input and output streams: identifier, supported and current media types, state,
// attributes and the stream's own lock. A stream is a node of the processing graph.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mft_core/streams/ITopologyNode.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/FpsMonitor.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class MediaEventGenerator;

using MediaTypeList = std::vector<Microsoft::WRL::ComPtr<IMFMediaType>>;

// "subtype WxH @ N/D fps" for traces.
std::string DescribeMediaType(IMFMediaType *mediaType);

class Stream : public ITopologyNode {
 public:
  // `eventGenerator` is the owning transform's event queue; it outlives its streams.
  Stream(DWORD id, MediaEventGenerator *eventGenerator);
  ~Stream() override = default;

  DWORD GetID() const { return id; }
  DeviceStreamState GetState();
  virtual HRESULT SetState(DeviceStreamState theState);

  // E_NOTIMPL for an empty list, MF_E_NO_MORE_TYPES past its end.
  HRESULT GetMediaTypeAt(DWORD dwTypeIndex, IMFMediaType **ppMediaType);
  // MF_E_TRANSFORM_TYPE_NOT_SET when no type is set.
  HRESULT GetCurrentMediaType(IMFMediaType **ppMediaType);
  // Not checked against the supported list; callers that must, ask IsSupported first.
  HRESULT SetCurrentMediaType(IMFMediaType *pMediaType);
  HRESULT GetAttributes(IMFAttributes **ppAttributes);
  // Copies the supported list (references, not types) into `mediaTypes`.
  HRESULT GetSupportedMediaTypes(MediaTypeList &mediaTypes);

  // With a mask of 0 only an exact match counts; otherwise a partial match whose equal-flags cover the mask.
  bool IsSupported(IMFMediaType *mediaType, DWORD equalFlagsMask);
  // First supported type equal in subtype, frame size and frame rate; E_FAIL if none.
  HRESULT FindMatchingMediaType(Microsoft::WRL::ComPtr<IMFMediaType> &result, IMFMediaType *mediaType);
  // Smallest supported frame of `subtype` with at least the given rate and size, then the lowest rate.
  HRESULT FindClosestMediaType(Microsoft::WRL::ComPtr<IMFMediaType> &result, REFGUID subtype, UINT32 minFps,
                               UINT32 minWidth, UINT32 minHeight);

  // The MFFrameSourceTypes bits read from the attributes by InitFrameSourceTypes (0 when absent).
  UINT32 GetFrameSourceType() const { return supportedFrameSourceTypes; }
  HRESULT InitFrameSourceTypes();
  // Target of the stream's FPS monitors.
  void OnFpsChange(const user_space_frameworks::FpsMonitor &monitor);

  const char *GetTraceName() const override { return traceName.c_str(); }

 protected:
  using FpsCallback = user_space_frameworks::Callback<Stream, const user_space_frameworks::FpsMonitor &, void>;

  // Appends to the supported list (initialisation only).
  void AddMediaType(Microsoft::WRL::ComPtr<IMFMediaType> mediaType);
  void TraceSupportedMediaTypes();
  // Microseconds of the platform clock, for the FPS monitors.
  static uint64_t NowUs();

  const DWORD id;
  MediaEventGenerator *const eventGenerator;
  std::string traceName;

  // Guards everything below and the members of derived classes that say so.
  user_space_frameworks::CriticalSection streamLock;
  MediaTypeList mediaTypes;
  Microsoft::WRL::ComPtr<IMFMediaType> currentMediaType;
  DeviceStreamState theState = DeviceStreamState_Stop;
  Microsoft::WRL::ComPtr<IMFAttributes> attributes;
  UINT32 supportedFrameSourceTypes = 0;
  std::shared_ptr<FpsCallback> fpsCallback;
};

}  // namespace mft_core
