#include "sim/CameraConfig.h"

#include "sim/CalibrationReplies.h"

#include <cstring>

namespace sim {

namespace {

constexpr GUID FourCcSubtype(char a, char b, char c, char d) {
  return {static_cast<unsigned long>(static_cast<BYTE>(a) | (static_cast<BYTE>(b) << 8) |
                                     (static_cast<BYTE>(c) << 16) | (static_cast<unsigned long>(static_cast<BYTE>(d)) << 24)),
          0x0000,
          0x0010,
          {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
}

std::vector<BYTE> LongBytes(uint32_t value, size_t size) {
  std::vector<BYTE> bytes(size);
  std::memcpy(bytes.data(), &value, size < sizeof(value) ? size : sizeof(value));
  return bytes;
}

template <typename T>
void Append(std::vector<BYTE> &bytes, const T &value) {
  const size_t offset = bytes.size();
  bytes.resize(offset + sizeof(T));
  std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

ControlConfig RangedControl(ULONG id, size_t size, LONG value, ControlRange range) {
  ControlConfig control{id, LongBytes(static_cast<uint32_t>(value), size)};
  control.hasRange = true;
  control.range = range;
  control.fixedSize = size;
  return control;
}

ControlConfig FixedControl(ULONG id, std::vector<BYTE> value) {
  ControlConfig control{id, std::move(value)};
  control.fixedSize = control.value.size();
  return control;
}

const std::vector<std::pair<UINT32, UINT32>> kStereoSizes = {{1280, 720}, {848, 480}, {640, 480}, {640, 360}, {424, 240}};
const std::vector<UINT32> kStereoRates = {6, 15, 30, 60, 90};

StandardControlConfig GainControl() { return {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, 16, {16, 248, 1, 16}}; }
StandardControlConfig ExposureControl() {
  return {PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_EXPOSURE, -6, {-13, -1, 1, -6}};
}

}  // namespace

const GUID kSubtypeZ16 = FourCcSubtype('Z', '1', '6', ' ');
const GUID kSubtypeY8 = FourCcSubtype('Y', '8', ' ', ' ');
const GUID kDepthXuSet = {0xC9606CCB, 0x594C, 0x4D25, {0xAF, 0x47, 0xCC, 0xC4, 0x96, 0x43, 0x59, 0x95}};
const GUID kColorXuSet = {0xB8EC416E, 0xA3AC, 0x4580, {0x8D, 0x5C, 0x0B, 0xEE, 0x15, 0x97, 0xE4, 0x3D}};
const GUID kFisheyeXuSet = {0xF6C3C3D1, 0x5CDE, 0x4477, {0xAD, 0xF0, 0x41, 0x33, 0xF5, 0x8D, 0xA6, 0xF4}};
const GUID kMsXuSet = {0x0F3F95DC, 0x2632, 0x4C4E, {0x92, 0xC9, 0xA0, 0x47, 0x82, 0xF4, 0x3B, 0xC8}};
const GUID kNodeStreaming = {0xDFF229E1, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kNodeProcessing = {0xDFF229E5, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kNodeCameraTerminal = {0xDFF229E6, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kAutoUpdateEventSet = {0xDB47DE20, 0xF628, 0x11D1, {0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05}};

std::vector<BYTE> CalibrationTable(const std::vector<std::pair<BYTE, std::vector<BYTE>>> &entries) {
  std::vector<BYTE> table{static_cast<BYTE>(entries.size())};
  for (const auto &entry : entries) {
    table.push_back(entry.first);
    table.push_back(0);
    const uint16_t length = static_cast<uint16_t>(entry.second.size());
    Append(table, length);
    table.insert(table.end(), entry.second.begin(), entry.second.end());
  }
  return table;
}

std::vector<BYTE> IntrinsicsBody(UINT32 width, UINT32 height, float focal, UINT32 models) {
  std::vector<BYTE> body;
  Append(body, models);
  MFPinholeCameraIntrinsic_IntrinsicModel model = {};
  model.Width = width;
  model.Height = height;
  model.CameraModel.FocalLength = {focal, focal};
  model.CameraModel.PrincipalPoint = {width / 2.0f, height / 2.0f};
  model.DistortionModel = {0.01f, -0.02f, 0.0f, 0.001f, 0.0005f};
  for (UINT32 i = 0; i < models; ++i) {
    Append(body, model);
    model.Width /= 2;  // each further model at half the size, as a camera lists its resolutions
    model.Height /= 2;
  }
  return body;
}

std::vector<BYTE> ExtrinsicsBody(float baselineMetres, UINT32 count) {
  std::vector<BYTE> body;
  Append(body, count);
  MFCameraExtrinsic_CalibratedTransform transform = {};
  transform.CalibrationId = kSubtypeZ16;
  transform.Position = {baselineMetres, 0.0f, 0.0f};
  transform.Orientation = {0.0f, 0.0f, 0.0f, 1.0f};
  Append(body, transform);
  return body;
}

std::vector<VideoFormat> FormatGrid(const std::vector<std::pair<GUID, UINT32>> &subtypesWithBytesPerPixel,
                                    const std::vector<std::pair<UINT32, UINT32>> &sizes,
                                    const std::vector<UINT32> &rates) {
  std::vector<VideoFormat> formats;
  for (const auto &subtype : subtypesWithBytesPerPixel) {
    for (const auto &size : sizes) {
      for (UINT32 fps : rates) formats.push_back({subtype.first, size.first, size.second, fps, subtype.second});
    }
  }
  return formats;
}

CameraConfig DepthCamera() {
  CameraConfig camera;
  camera.name = "depth";
  camera.streams = {
      {0, "Depth", MFFrameSourceTypes_Depth, FormatGrid({{kSubtypeZ16, 2}, {MFVideoFormat_D16, 2}}, kStereoSizes, kStereoRates)},
      {1, "Infrared 1", MFFrameSourceTypes_Infrared, FormatGrid({{kSubtypeY8, 1}, {MFVideoFormat_L8, 1}}, kStereoSizes, kStereoRates)},
      {2, "Infrared 2", MFFrameSourceTypes_Infrared, FormatGrid({{kSubtypeY8, 1}, {MFVideoFormat_L8, 1}}, kStereoSizes, kStereoRates)},
  };
  camera.nodeTypes = {kNodeCameraTerminal, kNodeProcessing, KSNODETYPE_DEV_SPECIFIC,
                      KSNODETYPE_DEV_SPECIFIC, kNodeStreaming};
  camera.extensionUnits = {
      {kDepthXuSet,
       2,
       "Depth XU",
       {
           ControlConfig{1, {}},                                        // firmware command
           RangedControl(3, 4, 8500, {1, 165000, 1, 8500}),             // exposure, microseconds
           RangedControl(11, 1, 1, {0, 1, 1, 1}),                       // exposure mode, 1 = auto
           FixedControl(kDepthErrorCodeId, {0}),                        // firmware error code
           // Calibration: depth (sensor 1), the infrared pair (sensor 2) and the color module (3).
           FixedControl(12, CalibrationTable({{1, ExtrinsicsBody(0.0f)}, {2, ExtrinsicsBody(-0.05f)},
                                              {3, ExtrinsicsBody(0.015f)}})),
           FixedControl(13, CalibrationTable({{1, IntrinsicsBody(848, 480, 420.0f)},
                                              {2, IntrinsicsBody(848, 480, 425.0f, 2)},
                                              {3, IntrinsicsBody(1280, 720, 640.0f)}})),
       }},
      {kMsXuSet, 3, "MSXU", {FixedControl(7, std::vector<BYTE>(8, 0))}},
  };
  camera.standardControls = {ExposureControl(), GainControl()};
  camera.sensor.exposureSet = kDepthXuSet;
  camera.sensor.exposureId = 3;
  camera.sensor.defaultExposureUs = 8500;
  camera.sensor.exposureModeId = 11;
  camera.sensor.autoExposureUs = 12000;
  camera.sensor.exposureSettleMs = 100;
  camera.sensor.gainSet = PROPSETID_VIDCAP_VIDEOPROCAMP;
  camera.sensor.gainId = KSPROPERTY_VIDEOPROCAMP_GAIN;
  camera.firmwareCommandSet = kDepthXuSet;
  camera.firmwareCommandId = 1;
  return camera;
}

CameraConfig ColorCamera() {
  CameraConfig camera;
  camera.name = "color";
  camera.metadataKind = CameraKind::Color;
  camera.streams = {
      {0, "Color", MFFrameSourceTypes_Color,
       FormatGrid({{MFVideoFormat_YUY2, 2}}, {{1920, 1080}, {1280, 720}, {848, 480}, {640, 480}, {424, 240}}, {6, 15, 30, 60})},
  };
  // The sensor reaches 90 fps only at the smaller sizes.
  for (const auto &fast : FormatGrid({{MFVideoFormat_YUY2, 2}}, {{848, 480}, {640, 480}, {424, 240}}, {90})) {
    camera.streams[0].formats.push_back(fast);
  }
  camera.nodeTypes = {kNodeCameraTerminal, kNodeProcessing, KSNODETYPE_DEV_SPECIFIC,
                      kNodeStreaming};
  camera.extensionUnits = {
      {kColorXuSet,
       2,
       "Color XU",
       {FixedControl(1, CalibrationTable({{2, ExtrinsicsBody(0.015f)}})),
        FixedControl(2, CalibrationTable({{2, IntrinsicsBody(1280, 720, 640.0f)}})),
        ControlConfig{3, std::vector<BYTE>(53, 0)}}},
  };
  camera.standardControls = {ExposureControl(), GainControl()};
  camera.sensor.gainSet = PROPSETID_VIDCAP_VIDEOPROCAMP;
  camera.sensor.gainId = KSPROPERTY_VIDEOPROCAMP_GAIN;
  return camera;
}

CameraConfig FisheyeCamera() {
  CameraConfig camera;
  camera.name = "fisheye";
  camera.metadataKind = CameraKind::FishEye;
  camera.streams = {
      {0, "Fisheye", MFFrameSourceTypes_Infrared,
       FormatGrid({{kSubtypeY8, 1}, {MFVideoFormat_L8, 1}}, {{848, 800}, {640, 480}}, {30, 60})},
  };
  for (const auto &fast : FormatGrid({{kSubtypeY8, 1}, {MFVideoFormat_L8, 1}}, {{640, 480}}, {90})) {
    camera.streams[0].formats.push_back(fast);
  }
  camera.nodeTypes = {kNodeCameraTerminal, KSNODETYPE_DEV_SPECIFIC, kNodeStreaming};
  // Exposure in microseconds (2 bytes); the camera starts at a short exposure that leaves its scene dark.
  camera.extensionUnits = {
      {kFisheyeXuSet,
       1,
       "Fisheye XU",
       {RangedControl(1, 2, 400, {200, 32000, 100, 400}), FixedControl(2, FisheyeExtrinsicsReply()),
        FixedControl(3, FisheyeIntrinsicsReply())}},
  };
  camera.standardControls = {GainControl()};
  camera.sensor.exposureSet = kFisheyeXuSet;
  camera.sensor.exposureId = 1;
  camera.sensor.defaultExposureUs = 400;
  camera.sensor.gainSet = PROPSETID_VIDCAP_VIDEOPROCAMP;
  camera.sensor.gainId = KSPROPERTY_VIDEOPROCAMP_GAIN;
  // Mid-grey at 6 ms and unity gain (16): at the default 0.4 ms the scene is a few grey levels.
  camera.scene.graded = true;
  camera.scene.midGreyExposureGain = 6000.0 * 16;
  return camera;
}

bool CameraByName(const std::string &name, CameraConfig &camera) {
  if (name == "depth") {
    camera = DepthCamera();
  } else if (name == "color") {
    camera = ColorCamera();
  } else if (name == "fisheye") {
    camera = FisheyeCamera();
  } else {
    return false;
  }
  return true;
}

}  // namespace sim
