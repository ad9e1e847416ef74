// The fisheye camera's extended exposure-mode control. The camera has no auto exposure of its own: in
// auto mode the software engine looks at the fisheye frames and writes exposure (the fisheye unit's
// 2-byte microsecond control) and gain (the filter's standard video-proc-amp gain). A manual request
// stops the engine and writes the exposure itself; frames report what the sensor used through the
// fisheye control metadata, which completes manual and auto-lock requests.
//
// Locks: the node's observer lock (held while OnSamplePreProcess runs), then `lock` of the base, which
// also serialises the engine and its callbacks and is held across device calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "autoexposure/AutoExposureAPI.h"
#include "mft_core/controls/ExtendedExposureControl.h"
#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/streams/ITopologyNode.h"
#include "user_space_frameworks/Callback.h"

namespace mft_core {

// The fisheye unit's exposure control: 2 bytes, microseconds.
constexpr ULONG XU_EXPOSURE_ID = 1;

// Tuning under HKEY_LOCAL_MACHINE "Software\Tavix\Veldara\WQ4XX\FEExposure" (REG_DWORD values).
struct FishEyeExposureSettings {
  uint32_t numConvergedSamplesForLock = 3;
  uint32_t autoLockConvergeDelta = 50000;  // 100 ns units
  uint32_t manualConvergeDelta = 50000;    // 100 ns units
  bool aeStateLog = false;                 // "AEStateLog" non-zero: write "c:\Tavix\Logs\AEState.txt"

  static FishEyeExposureSettings FromRegistry();
};

class WQ400FishEyeExtendedExposureControl : public ExtendedExposureControl {
 public:
  // The geometry of the frames the engine analyses.
  static constexpr int32_t kEngineColumns = 640;
  static constexpr int32_t kEngineRows = 480;
  static constexpr const char *kAeStateLogPath = "c:\\Tavix\\Logs\\AEState.txt";

  // Reads the tuning from the registry, then the device's exposure and gain ranges; writes the default
  // exposure. Device failures are traced and leave the built-in limits.
  WQ400FishEyeExtendedExposureControl(Microsoft::WRL::ComPtr<ExtensionUnitKsControl> extensionUnitKsControl,
                                      Microsoft::WRL::ComPtr<IKsControl> filterKsControl);
  WQ400FishEyeExtendedExposureControl(Microsoft::WRL::ComPtr<ExtensionUnitKsControl> extensionUnitKsControl,
                                      Microsoft::WRL::ComPtr<IKsControl> filterKsControl,
                                      const FishEyeExposureSettings &settings);
  ~WQ400FishEyeExtendedExposureControl() override;

  // Joins `node`'s pre-process observers (leaving any earlier node); the stream's frames then drive the
  // control. Never called with `lock` held.
  void RegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node);
  void UnRegisterToOnSampleSubject(const std::shared_ptr<ITopologyNode> &node);
  // Every frame, before the node processes it.
  void OnSamplePreProcess(IMFSample *sample);

  // The engine's requests, with this control as context. Exposure in milliseconds, gain in device units;
  // flags bit 0: exposure given, bit 1: gain given.
  static HRESULT OnSetExposure(void *context, float exposureMs, float gain, uint32_t flags);
  // The engine is done with a frame: its buffer is unlocked and let go.
  static HRESULT OnImageDone(void *context, const uint8_t *pixelBuffer);

  // The standard gain as the filter reports it.
  HRESULT GetDeviceGain(LONG &gain);

 protected:
  HRESULT Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *videoProcSetting) override;
  HRESULT SetManual(uint32_t exposure) override;
  HRESULT SetAuto() override;

 private:
  void ReadDeviceLimits();
  HRESULT QueryGainRange(LONG &minimum, LONG &maximum, LONG &step, LONG &defaultValue);
  HRESULT SetDeviceGain(LONG gain);
  // The standard gain property to the filter: `request` as set up by the caller, addressed here.
  HRESULT SendGainProperty(ULONG flags, KSPROPERTY_VIDEOPROCAMP_S &request);
  HRESULT ApplyEngineRequest(float exposureMs, float gain, uint32_t flags);
  void ConfigureEngine();
  // Hands one frame to the engine when it is due and of the engine's geometry. Called with `lock` held.
  void AnalyseFrame(IMFSample *sample);
  void ReleaseFrameBuffer();

  std::shared_ptr<ITopologyNode> subject;
  std::shared_ptr<user_space_frameworks::Callback<WQ400FishEyeExtendedExposureControl, IMFSample *, void>> callback;
  Microsoft::WRL::ComPtr<ExtensionUnitKsControl> extensionUnitKsControl;
  Microsoft::WRL::ComPtr<IKsControl> filterKsControl;
  std::unique_ptr<autoexposure::CAutoExposure> engine;
  // The state log is written line by line and flushed once per analysed frame.
  const bool aeStateLog;

  // 1 while a manual exposure is in force: the engine neither sees frames nor drives the camera.
  std::atomic<int32_t> softwareAeOff{0};
  std::atomic<uint64_t> frameCounter{0};
  // False while no node feeds the control: requests then complete at once, as no frame will show them.
  std::atomic<bool> attached{false};

  // Guarded by `lock`.
  LONG currentGain = 0;
  float currentExposureMs = 0.0f;
  LONG minGain = 0;
  LONG maxGain = 255;
  LONG gainStep = 1;      // the device's gain grid; engine gains are set on it
  LONG gainDefault = 10;  // the engine's starting gain when the device does not report one
  float minExposureMs = 0.2f;
  float maxExposureMs = 32.0f;
  float exposureStepMs = 0.1f;
  float defaultExposureMs = 0.4f;
  float engineMinGain = 1.0f;
  float engineMaxGain = 255.0f;
  // The buffer of the frame the engine is looking at, locked until OnImageDone.
  Microsoft::WRL::ComPtr<IMFMediaBuffer> frameBuffer;
  const BYTE *framePixels = nullptr;
  bool geometryRefusalTraced = false;
};

}  // namespace mft_core
