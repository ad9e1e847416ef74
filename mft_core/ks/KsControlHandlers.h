// Handlers of KS properties, events and methods, matched by (set, id) and run by the dispatcher.
#pragma once

#include <memory>
#include <string>

#include "mft_core/ks/KsText.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class KsControlHandler : public virtual user_space_frameworks::Object {
 public:
  KsControlHandler(REFGUID set, ULONG id, const std::string &description, KsIdentifierKind kind,
                   IKsControl *ksControl);
  const char *GetTraceName() const override { return name.c_str(); }

  // Same (set, id): refused as a duplicate at registration.
  virtual bool IsSameControl(const KsControlHandler &other) const;
  // Same set and id as the request; flags are ignored so GET, SET and basic support reach one handler.
  virtual bool IsMatch(const KSIDENTIFIER *identifier) const;
  virtual HRESULT Run(PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data, ULONG dataLength,
                      ULONG *bytesReturned) = 0;

  const GUID &GetSet() const { return set; }
  ULONG GetId() const { return id; }

 protected:
  std::string name;
  GUID set;
  ULONG id;
  Microsoft::WRL::ComPtr<IKsControl> ksControl;
};

// The plain handlers answer ERROR_SET_NOT_FOUND: registering one blocks that control.
class KsPropHandler : public KsControlHandler {
 public:
  KsPropHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl);
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
};

class KsMethodHandler : public KsControlHandler {
 public:
  KsMethodHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl);
  HRESULT Run(PKSIDENTIFIER pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
};

class KsEventHandler : public KsControlHandler {
 public:
  KsEventHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl);
  HRESULT Run(PKSIDENTIFIER pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
  // Disable-event path: S_OK when this handler armed `eventData` and has now let go of it.
  virtual HRESULT AttemptToResetRegularEvent(LPVOID eventData);

  // Keeps a duplicate of the application's event; one armed event at a time.
  HRESULT DuplicateEventHandle(HANDLE handle);
  bool IsArmed();

 protected:
  // Arming runs on an application's request thread, setting on whichever thread completes the
  // request (a streaming thread for an asynchronous control): both take eventLock, so the duplicate
  // is closed exactly once and never set after it was replaced. eventLock is the innermost lock of
  // the transform: only handle calls and traces run while it is held.
  user_space_frameworks::CriticalSection eventLock;
  user_space_frameworks::UniqueHandle eventHandle;
};

// Armed by a KSEVENT_TYPE_ONESHOT request; Set() signals and disarms.
class OneShotKsEventHandler : public KsEventHandler {
 public:
  OneShotKsEventHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl);
  HRESULT Run(PKSIDENTIFIER pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
  HRESULT Set();
};

// Armed by a KSEVENT_TYPE_ENABLE request.
class RegularKsEventHandler : public KsEventHandler {
 public:
  RegularKsEventHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl);
  HRESULT Run(PKSIDENTIFIER pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
  HRESULT AttemptToResetRegularEvent(LPVOID eventData) override;
  HRESULT Reset(LPVOID eventData);
  HRESULT Set();

 private:
  LPVOID enabledEventData = nullptr;
};

// Defaults of the device transform: everything nobody else claims goes to the driver unchanged.
class PassthroughKsPropsHandler : public KsPropHandler {
 public:
  explicit PassthroughKsPropsHandler(IKsControl *ksControl)
      : KsPropHandler(GUID_NULL, 0, "Pass Through KS Properties Handler", ksControl) {}
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pvPropertyData, ULONG ulDataLength,
              ULONG *pulBytesReturned) override;
};

class PassthroughKsEventsHandler : public KsEventHandler {
 public:
  explicit PassthroughKsEventsHandler(IKsControl *ksControl)
      : KsEventHandler(GUID_NULL, 0, "Pass Through KS Events Handler", ksControl) {}
  HRESULT Run(PKSIDENTIFIER pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
};

class PassthroughKsMethodsHandler : public KsMethodHandler {
 public:
  explicit PassthroughKsMethodsHandler(IKsControl *ksControl)
      : KsMethodHandler(GUID_NULL, 0, "Pass Through KS Methods Handler", ksControl) {}
  HRESULT Run(PKSIDENTIFIER pMethod, ULONG ulPropertyLength, LPVOID pvPropertyData, ULONG ulDataLength,
              ULONG *pulBytesReturned) override;
};

// Answers the extended warm-start control: warm start is not supported, so it reads as off and
// enabling it is refused.
class WarmStartKsPropsHandler : public KsPropHandler {
 public:
  WarmStartKsPropsHandler();
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;

  static constexpr ULONG kPayloadSize = sizeof(KSCAMERA_EXTENDEDPROP_HEADER) + sizeof(KSCAMERA_EXTENDEDPROP_VALUE);
};

// Hands every id of one property set to another IKsControl (an extension unit's).
class CompleteSetPropsHandler : public KsPropHandler {
 public:
  CompleteSetPropsHandler(IKsControl *ksControl, REFGUID set,
                          const std::string &description = "Complete Set KS Properties Handler");
  template <typename Control>
  CompleteSetPropsHandler(const Microsoft::WRL::ComPtr<Control> &ksControl, REFGUID set)
      : CompleteSetPropsHandler(ksControl.Get(), set) {}
  bool IsMatch(const KSIDENTIFIER *identifier) const override;
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
  virtual bool IsSameSet(const KsControlHandler &other) const;
};

}  // namespace mft_core
