// A device transform bound to one driver filter: takes the filter's KS control on InitializeTransform,
// creates its members, attributes, default pass-through KS handlers and one input stream per driver
// stream; answers flush messages; and starts the driver-event listener while output streams run.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/KsEventListener.h"
#include "mft_core/transform/DeviceInfo.h"
#include "mft_core/transform/MFDeviceTransform.h"

namespace mft_core {

// The camera's firmware-condition event (video capture "auto update").
extern const GUID kAutoUpdateEventSet;
constexpr ULONG kAutoUpdateEventId = 1;
// The platform-defined camera extension unit.
extern const GUID kMsXuSetId;

struct DeviceExtensionUnits {
  GUID deviceXuSetId = GUID_NULL;  // the product's own unit
  ULONG deviceXuKnownId = 0;       // a control every such unit supports, to find its node
  ULONG msXuKnownId = 0;           // 0: the camera has no platform unit
};

class DeviceMft : public MFDeviceTransform {
 public:
  const char *GetTraceName() const override { return name.c_str(); }
  // The camera's device information, when the product read it during initialisation (else empty).
  std::shared_ptr<DeviceInfo> GetDeviceInfo() const { return deviceInfo; }

 protected:
  // `transformClass` names the transform in its device events recording.
  DeviceMft(std::string name, const DeviceExtensionUnits &units, const GUID &transformClass = GUID_NULL);
  ~DeviceMft() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *filterAttributes) override;
  HRESULT OnProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) override;
  HRESULT OnShutdown() override;
  HRESULT StartStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT StopStreaming(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;

  HRESULT UninitializeMembers() override;
  HRESULT CreateAttributes() override;
  HRESULT CreateInputStreams() override;
  // A plain device has no calibration of its own; products read theirs from the camera.
  HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &intrinsics) override;
  HRESULT CreateExtrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &extrinsics) override;
  HRESULT CreateOutputStream(const std::shared_ptr<InputStream> &inputStream) override;
  HRESULT InitOutputStreamConfiguration(OutputStreamConfiguration &configuration,
                                        const std::shared_ptr<InputStream> &inputStream) override;
  HRESULT InitializeMembers() override;
  HRESULT CreateFilterKsControl() override;
  HRESULT RegisterKsControlHandlres() override;
  // One start of the listener per running output stream, counted once per stream.
  HRESULT StartListenerFor(DWORD outputStreamId);
  void StopListenerFor(DWORD outputStreamId);
  // Driver subtypes that input streams leave out; none for a plain device.
  virtual std::vector<GUID> GetExcludedInputMediaTypes();

  const std::string name;
  const DeviceExtensionUnits extensionUnits;
  Microsoft::WRL::ComPtr<IKsControl> filterKsControl;  // the driver's control, behind the retrying proxy
  Microsoft::WRL::ComPtr<ExtensionUnitKsControl> deviceXuKsControl;
  Microsoft::WRL::ComPtr<ExtensionUnitKsControl> msXuKsControl;
  std::shared_ptr<KsEventListener> autoUpdateEventListener;
  // Filled by the product during InitializeMembers, before any request can arrive; never reset while
  // the transform lives, so concurrent readers need no lock.
  std::shared_ptr<DeviceInfo> deviceInfo;
  std::wstring urlString;

 private:
  user_space_frameworks::CriticalSection listenerStartsLock;
  std::set<DWORD> listenerStarts;  // output streams that hold a start of the listener
};

}  // namespace mft_core
