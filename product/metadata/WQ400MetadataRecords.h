// The camera's per-frame metadata records, their item ids and the sample attributes that carry them.
// The camera firmware owns the inner layout of its own records; this system copies them byte for byte.
// Only the fields that the transform reads are named, the rest is kept as opaque bytes.
#pragma once

#include <cstdint>

#include "platform/WindowsSdk.h"

#pragma pack(push, 1)

struct STMFCameraFishEyeExtrinsics {
  UINT32 transformCount;  // non-zero when the camera holds a calibration
  GUID calibrationId;
  FLOAT rotation[9];
  FLOAT translation[3];
};

struct VeldaraWQ400MetaDataTavixDepthControl {
  UINT32 metaDataId;
  UINT32 size;
  UINT32 flags;
  UINT32 exposure;  // units of 10 x 100 ns
  UINT8 firmwareData[36];
};

struct VeldaraWQ400MetaDataTavixCaptureTiming {
  UINT32 metaDataId;
  UINT32 size;
  UINT32 frameCounter;
  UINT8 firmwareData[20];
};

struct VeldaraWQ400MetaDataTavixConfiguration {
  UINT32 metaDataId;
  UINT32 size;
  UINT8 firmwareData[24];
};

struct VeldaraWQ400MetaDataTavixStat {
  UINT32 metaDataId;
  UINT32 size;
  UINT8 firmwareData[64];
};

struct VeldaraWQ400MetaDataTavixFishEyeControl {
  UINT32 metaDataId;
  UINT32 flags;
  UINT32 gain;
  UINT32 exposure;  // microseconds, low 16 bits
};

struct VeldaraWQ400MetaDataTavixColorControl {
  UINT32 metaDataId;
  UINT32 size;
  UINT8 firmwareData[56];
};

#pragma pack(pop)

static_assert(sizeof(STMFCameraFishEyeExtrinsics) == 68, "STMFCameraFishEyeExtrinsics");
static_assert(sizeof(VeldaraWQ400MetaDataTavixDepthControl) == 52, "VeldaraWQ400MetaDataTavixDepthControl");
static_assert(offsetof(VeldaraWQ400MetaDataTavixDepthControl, exposure) == 12, "depth control exposure");
static_assert(sizeof(VeldaraWQ400MetaDataTavixCaptureTiming) == 32, "VeldaraWQ400MetaDataTavixCaptureTiming");
static_assert(offsetof(VeldaraWQ400MetaDataTavixCaptureTiming, frameCounter) == 8, "capture timing counter");
static_assert(sizeof(VeldaraWQ400MetaDataTavixConfiguration) == 32, "VeldaraWQ400MetaDataTavixConfiguration");
static_assert(sizeof(VeldaraWQ400MetaDataTavixStat) == 72, "VeldaraWQ400MetaDataTavixStat");
static_assert(sizeof(VeldaraWQ400MetaDataTavixFishEyeControl) == 16, "VeldaraWQ400MetaDataTavixFishEyeControl");
static_assert(offsetof(VeldaraWQ400MetaDataTavixFishEyeControl, flags) == 4 &&
                  offsetof(VeldaraWQ400MetaDataTavixFishEyeControl, gain) == 8 &&
                  offsetof(VeldaraWQ400MetaDataTavixFishEyeControl, exposure) == 12,
              "fisheye control fields");
static_assert(sizeof(VeldaraWQ400MetaDataTavixColorControl) == 64, "VeldaraWQ400MetaDataTavixColorControl");
static_assert(sizeof(MFPinholeCameraIntrinsics) == 48, "one intrinsic model");
static_assert(sizeof(MFCameraExtrinsics) == 48, "one extrinsic transform");

namespace mft_core {

// Metadata item ids: the platform's standard ones, then the camera's custom range.
enum WQ400MetadataId : uint32_t {
  WQ400MetadataId_CameraExtrinsics = MetadataId_CameraExtrinsics,
  WQ400MetadataId_CameraIntrinsics = MetadataId_CameraIntrinsics,
  WQ400MetadataId_DepthControl = 0x80000000,
  WQ400MetadataId_CaptureTiming = 0x80000001,
  WQ400MetadataId_Configuration = 0x80000002,
  WQ400MetadataId_Stat = 0x80000003,
  WQ400MetadataId_FishEyeControl = 0x80000004,
  WQ400MetadataId_ColorControl = 0x80000005,
  WQ400MetadataId_FishEyeExtrinsics = 0x80000007,
};

// Per-sample attributes. Intrinsics and extrinsics use the platform's GUIDs (see the table in the
// metadata parsers); the rest are the camera's own.
constexpr GUID VELDARA_SAMPLE_WQ400_FISHEYE_EXTRINSICS = {
    0xfc3b0b6c, 0xfa7e, 0x44a4, {0xba, 0x7d, 0x0c, 0xa8, 0x73, 0x33, 0x74, 0x88}};
constexpr GUID VELDARA_SAMPLE_WQ400_DEPTH_CONTROL = {
    0x482f9b07, 0x3668, 0x43fe, {0xad, 0x28, 0xe3, 0xdb, 0x34, 0x63, 0xbc, 0xb9}};
constexpr GUID VELDARA_SAMPLE_WQ400_CAPTURE_TIMING = {
    0x2bf10c23, 0xbf48, 0x4c54, {0xb1, 0xf9, 0x9b, 0xb1, 0x9e, 0x70, 0xdb, 0x05}};
constexpr GUID VELDARA_SAMPLE_WQ400_CONFIGURATION = {
    0xf93af74f, 0x3525, 0x4172, {0xbf, 0x69, 0x32, 0xad, 0x6e, 0xf8, 0x1d, 0x7a}};
constexpr GUID VELDARA_SAMPLE_WQ400_STATISTICS = {
    0xb28d4754, 0xb0bf, 0x4f7b, {0x8b, 0x9d, 0x35, 0xa1, 0x8d, 0xbf, 0x83, 0xb8}};
constexpr GUID VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL = {
    0x787b705a, 0x5ce2, 0x4030, {0xb5, 0x2b, 0xc2, 0x94, 0x29, 0x52, 0x23, 0xc7}};
constexpr GUID VELDARA_SAMPLE_WQ400_COLOR_CONTROL = {
    0x8dcfd1f9, 0x859c, 0x4548, {0x8b, 0xbe, 0x40, 0x62, 0x9d, 0x36, 0xd5, 0xb3}};
// UINT32: first word of the frame's USB video payload header.
constexpr GUID VELDARA_SAMPLE_WQ400_HW_TIMESTAMP = {
    0xd3c6abac, 0x291a, 0x4c75, {0x9f, 0x47, 0xd7, 0xb2, 0x84, 0xa5, 0x26, 0x19}};
// The frame counter read back from the capture-timing record goes under WQ400_MF_FRAME_COUNTER, which
// the frame-drop monitor reads.

}  // namespace mft_core
