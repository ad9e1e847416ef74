// Handlers of the platform's extended camera controls: a 64-byte request (the extended-property
// header, then a video-processing setting) validated here and routed to Set or Get, and, for the
// asynchronous controls, the one-shot completion event that the application arms and the control sets.
#pragma once

#include <memory>
#include <string>

#include "mft_core/ks/KsControlHandlers.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Check.h"

namespace mft_core {

class ExtendedCameraControl : public KsPropHandler {
 public:
  static constexpr ULONG kHeaderSize = sizeof(KSCAMERA_EXTENDEDPROP_HEADER);
  static constexpr ULONG kRequestSize = kHeaderSize + sizeof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING);

  ExtendedCameraControl(ULONG propertyId, const std::string &displayName, IKsControl *ksControl);

  // Reports the 64 bytes the control needs before anything else, refuses a shorter buffer, then
  // hands a SET (also when GET is flagged with it) to Set and a GET to Get.
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;

  // `header` is the start of the caller's buffer, `payload` the 32 bytes after it.
  virtual HRESULT Set(PKSPROPERTY property, KSCAMERA_EXTENDEDPROP_HEADER *header,
                      KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *payload) = 0;
  virtual HRESULT Get(PKSPROPERTY property, KSCAMERA_EXTENDEDPROP_HEADER *header,
                      KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *payload) = 0;
};

// An extended control that completes asynchronously: the application arms `ksEvent` (one-shot) on the
// dispatcher and waits on its own event handle; Signal sets it once the request has taken effect.
template <typename EventHandler>
class AsyncExtendedCameraControl : public ExtendedCameraControl {
 public:
  AsyncExtendedCameraControl(ULONG propertyId, const std::string &displayName, IKsControl *ksControl)
      : ExtendedCameraControl(propertyId, displayName, ksControl),
        ksEvent(std::make_shared<EventHandler>(KSEVENTSETID_ExtendedCameraControl, propertyId, displayName,
                                               ksControl)) {}

  // The device transform calls this right after registering the control as a property handler.
  HRESULT RegisterEvent(KsControlsDispatcher &dispatcher) {
    RETURN_IF_FAILED(dispatcher.RegisterKsEventHandler(ksEvent));
    return S_OK;
  }

  // Sets the armed completion event; fails with ERROR_INVALID_STATE when the application armed none.
  HRESULT Signal() {
    RETURN_IF_FAILED(ksEvent->Set());
    return S_OK;
  }

 protected:
  std::shared_ptr<EventHandler> ksEvent;
};

}  // namespace mft_core
