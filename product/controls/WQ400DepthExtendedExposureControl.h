// The depth camera's extended exposure-mode control. The device work goes to the depth extension
// unit (exposure mode and exposure controls); the exposure each frame reports in its depth-control
// metadata record drives the completion of manual and auto-lock requests.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "mft_core/controls/ExtendedExposureControl.h"
#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/streams/ITopologyNode.h"
#include "user_space_frameworks/Callback.h"

namespace mft_core {

extern const GUID kWQ400DepthXuSetId;

class WQ400DepthExtendedExposureControl : public ExtendedExposureControl {
 public:
  static constexpr const char *kDisplayName = "WQ4xx Depth Extended Exposure Mode";
  static const wchar_t *const kRegistryKey;  // under HKEY_LOCAL_MACHINE
  // Depth extension-unit controls.
  static constexpr ULONG kExposureModeControl = 11;  // 1 byte: kAutoMode or kManualMode
  static constexpr BYTE kAutoMode = 1;               // the device's own auto exposure
  static constexpr BYTE kManualMode = 0;
  static constexpr ULONG kExposureControl = 3;       // 4 bytes, microseconds
  static constexpr uint32_t kDeviceUnit = 10;        // 100 ns units per device unit

  explicit WQ400DepthExtendedExposureControl(const Microsoft::WRL::ComPtr<ExtensionUnitKsControl> &xuKsControl);
  ~WQ400DepthExtendedExposureControl() override;

  // Frames of `node` feed the control from now on; an earlier node is let go.
  void RegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node);
  // Frames no longer feed the control. The argument is only released: the kept node is the one left.
  void UnRegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node);
  // Called for every frame of the kept node before it is processed.
  void OnSamplePreProcess(IMFSample *sample);

 protected:
  HRESULT Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) override;
  HRESULT SetManual(uint32_t exposure) override;
  HRESULT SetAuto() override;

 private:
  struct Tuning {
    uint32_t numConvergedSamplesForLock;
    uint32_t autoLockConvergeDelta;
    uint32_t manualConvergeDelta;
  };
  static Tuning ReadTuning();
  WQ400DepthExtendedExposureControl(const Microsoft::WRL::ComPtr<ExtensionUnitKsControl> &xuKsControl,
                                    const Tuning &tuning);
  // Writes the unit's exposure mode unless it already runs `mode`.
  // Writes the unit's exposure mode when it differs from the one the unit reports.
  HRESULT SetExposureMode(BYTE exposureMode);
  // A request of the depth unit's set; the unit's control addresses it to its node.
  static KSPROPERTY DeviceProperty(ULONG id, ULONG flags);
  // Completion comes from frames only while a node feeds the control.
  void SignalIfDetached();

  using SampleCallback = user_space_frameworks::Callback<WQ400DepthExtendedExposureControl, IMFSample *, void>;

  // Changed only by the stream start and stop of the device transform (serialised there) and the
  // destructor; KS requests look at `attached` alone.
  std::shared_ptr<ITopologyNode> subject;
  std::atomic<bool> attached{false};
  std::shared_ptr<SampleCallback> callback;
  Microsoft::WRL::ComPtr<ExtensionUnitKsControl> xuKsControl;
  uint32_t missingMetadataSamples = 0;  // guarded by `lock`
};

}  // namespace mft_core
