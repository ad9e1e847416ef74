#include "product/metadata/WQ400MetadataParsers.h"

#include "product/metadata/WQ400TimingToAttribute.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

using Microsoft::WRL::ComPtr;

// Calibration records change only when the camera is recalibrated: a frame without them keeps the
// last ones seen.
std::shared_ptr<IMetadataToAttribute> MakeIntrinsics() {
  return std::make_shared<MetadataToAttribute<MFPinholeCameraIntrinsics>>(
      "WQ400 Intrinsics ", MFSampleExtension_PinholeCameraIntrinsics, WQ400MetadataId_CameraIntrinsics, true);
}

std::shared_ptr<IMetadataToAttribute> MakeExtrinsics() {
  return std::make_shared<MetadataToAttribute<MFCameraExtrinsics>>(
      "WQ400 Extrinsics ", MFStreamExtension_CameraExtrinsics, WQ400MetadataId_CameraExtrinsics, true);
}

std::shared_ptr<IMetadataToAttribute> MakeConfiguration() {
  return std::make_shared<MetadataToAttribute<VeldaraWQ400MetaDataTavixConfiguration>>(
      "WQ400 Tavix Configuration Metadata ", VELDARA_SAMPLE_WQ400_CONFIGURATION, WQ400MetadataId_Configuration,
      false);
}

}  // namespace

WQ400MetadataParser::WQ400MetadataParser(const std::string &transformName)
    : IMetadataParser(transformName + " Metadata Parser") {}

HRESULT WQ400MetadataParser::Parse(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (sample != nullptr) {
    // One reference and one opened metadata buffer for the whole frame, shared by every converter.
    const ComPtr<IMFSample> frame(sample);
    UvcMetaDataWrapper metadata;
    (void)metadata.Init(frame);
    for (const auto &converter : converters) {
      converter->ProcessFrame(sample, metadata);
    }
  }
  return S_OK;
  WQ_SCOPE_END;
}

WQ400DepthMetadataParser::WQ400DepthMetadataParser(const std::string &transformName)
    : WQ400MetadataParser(transformName) {
  converters = {
      MakeIntrinsics(),
      MakeExtrinsics(),
      std::make_shared<WQ400MetaDataCaptureTimingToAttribute>("WQ400 Depth Capture Timing Metadata ", false),
      std::make_shared<MetadataToAttribute<VeldaraWQ400MetaDataTavixStat>>(
          "WQ400 Statistics Metadata ", VELDARA_SAMPLE_WQ400_STATISTICS, WQ400MetadataId_Stat, false),
      MakeConfiguration(),
      std::make_shared<MetadataToAttribute<VeldaraWQ400MetaDataTavixDepthControl>>(
          "WQ400 Tavix Depth Control Metadata ", VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, WQ400MetadataId_DepthControl,
          false),
      std::make_shared<WQ400HwTimestampToAttribute>("WQ400 Depth"),
  };
}

WQ400FisheyeMetadataParser::WQ400FisheyeMetadataParser(const std::string &transformName)
    : WQ400MetadataParser(transformName) {
  converters = {
      MakeIntrinsics(),
      std::make_shared<MetadataToAttribute<STMFCameraFishEyeExtrinsics>>(
          "WQ400 Fisheye Extrinsics ", VELDARA_SAMPLE_WQ400_FISHEYE_EXTRINSICS, WQ400MetadataId_FishEyeExtrinsics,
          true),
      std::make_shared<WQ400MetaDataCaptureTimingToAttribute>("WQ400 fisheye Capture Timing Metadata ", false),
      std::make_shared<MetadataToAttribute<VeldaraWQ400MetaDataTavixFishEyeControl>>(
          "WQ400 Fisheye Control ", VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL, WQ400MetadataId_FishEyeControl, false),
      MakeConfiguration(),
      std::make_shared<WQ400HwTimestampToAttribute>("WQ400 Fish Eye"),
  };
}

WQ400ColorMetadataParser::WQ400ColorMetadataParser(const std::string &transformName)
    : WQ400MetadataParser(transformName) {
  converters = {
      MakeIntrinsics(),
      MakeExtrinsics(),
      std::make_shared<WQ400MetaDataCaptureTimingToAttribute>("WQ400 Color Capture Timing Metadata ", false),
      MakeConfiguration(),
      std::make_shared<MetadataToAttribute<VeldaraWQ400MetaDataTavixColorControl>>(
          "WQ400 Tavix Color Control Metadata ", VELDARA_SAMPLE_WQ400_COLOR_CONTROL, WQ400MetadataId_ColorControl,
          false),
      std::make_shared<WQ400HwTimestampToAttribute>("WQ400 Color"),
  };
}

}  // namespace mft_core
