// The device transform of the camera's stereo depth module: the depth stream and the two infrared
// streams. On top of the product base it talks to the camera firmware (device information, firmware
// check, raw hardware commands, firmware error events), publishes per-stream calibration, serves the
// extended exposure control fed by the running streams' frames, and keeps all its streams at one
// frame size and rate.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mft_core/ks/FirmwareCommandPipe.h"
#include "product/controls/WQ400DepthExtendedExposureControl.h"
#include "product/controls/WQ400FwErrorHandler.h"
#include "product/transforms/WQ400DeviceMft.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class WQ400DepthDeviceMft : public WQ400DeviceMft {
 public:
  static constexpr const char *kDisplayName = "WQ400 Depth Device MFT";
  // Controls of the depth extension unit.
  static constexpr ULONG kFirmwareCommandSelector = 1;
  static constexpr ULONG kFirmwareErrorSelector = 7;
  static constexpr ULONG kExtrinsicsSelector = 12;
  static constexpr ULONG kIntrinsicsSelector = 13;
  // Calibration entries: the depth sensor, and the sensor every color or infrared stream comes from.
  static constexpr BYTE kDepthSensorIndex = 1;
  static constexpr BYTE kImagerSensorIndex = 2;
  static constexpr DWORD kNoStream = 0xFFFFFFFF;

  WQ400DepthDeviceMft();

  // The size and rate of a stream's media type: every stream of the sensor runs at one.
  struct FrameFormat {
    UINT32 width = 0, height = 0, rateNumerator = 0, rateDenominator = 0;
    bool operator!=(const FrameFormat &other) const;
  };

 protected:
  ~WQ400DepthDeviceMft() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *pAttributes) override;
  HRESULT StartOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT StopOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT InitializeMembers() override;
  HRESULT UninitializeMembers() override;
  HRESULT RegisterKsControlHandlres() override;
  HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &intrinsics) override;
  HRESULT CreateExtrinsics(const std::shared_ptr<InputStream> &inputStream, std::vector<BYTE> &extrinsics) override;
  HRESULT InitOutputStreamConfiguration(OutputStreamConfiguration &configuration,
                                        const std::shared_ptr<InputStream> &inputStream) override;
  HRESULT BuildTopology(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                        std::shared_ptr<Topology> &topology) override;

 private:
  // The calibration entry's sensor for a stream; 0 for a stream that has none (custom data).
  static BYTE SensorIndexOf(const std::shared_ptr<InputStream> &inputStream);
  // One calibration control of the unit read whole; empty when the camera has none.
  std::vector<BYTE> ReadCalibrationTable(ULONG selector);

  std::shared_ptr<FirmwareCommandPipe> firmwareCommandPipe;
  std::shared_ptr<WQ400FwErrorHandler> fwErrorHandler;
  std::shared_ptr<WQ400DepthExtendedExposureControl> extendedExposureControl;
  struct PendingStart {
    DWORD streamId;
    FrameFormat format;
  };
  // Checks `next` against the running streams and the starts still waiting for the frame server, and
  // books this start; E_INVALIDARG when another size or rate runs or is being started.
  HRESULT BookStart(const std::shared_ptr<OutputStream> &outputStream, const FrameFormat &next);

  // Guards the frame-size rule (the starts under way) and the exposure feed. Never held across the
  // frame server's answer to a state change: a start waits up to 10 s for it.
  user_space_frameworks::CriticalSection streamControlLock;
  std::vector<PendingStart> pendingStarts;
  // The output stream whose frames feed the exposure control; kNoStream when none runs.
  DWORD exposureFeedStreamId = kNoStream;
};

}  // namespace mft_core
