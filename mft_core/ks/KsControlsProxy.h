// The driver filter's IKsControl as the transform uses it: every request is observed, and a driver that
// is not ready yet is asked again a few times.
#pragma once

#include "mft_core/ks/KsControlsObserver.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"

namespace mft_core {

class KsControlsProxy : public user_space_frameworks::ComObject<IKsControl>, public KsControlsSubject {
 public:
  static constexpr int kNotReadyAttempts = 10;
  static constexpr DWORD kNotReadySleepMs = 10;

  explicit KsControlsProxy(IKsControl *ksControl);
  const char *GetTraceName() const override { return "Ks Control Proxy"; }

  STDMETHODIMP KsProperty(PKSPROPERTY Property, ULONG PropertyLength, LPVOID PropertyData, ULONG DataLength,
                          ULONG *BytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD Method, ULONG MethodLength, LPVOID MethodData, ULONG DataLength,
                        ULONG *BytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT Event, ULONG EventLength, LPVOID EventData, ULONG DataLength,
                       ULONG *BytesReturned) override;

  // Range, step and default of one video processing-amplifier property.
  HRESULT QueryKsPropertyVideoProCampInfo(ULONG propertyId, LONG *minimum, LONG *maximum, LONG *step,
                                          LONG *defaultValue);

 protected:
  ~KsControlsProxy() override = default;

 private:
  template <typename Call>
  HRESULT CallWithRetry(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                        ULONG dataLength, ULONG *bytesReturned, Call &&call);

  Microsoft::WRL::ComPtr<IKsControl> ksControl;
};

}  // namespace mft_core
