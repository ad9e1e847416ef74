// What a simulated camera looks like to the transform: its streams and their formats, its topology
// nodes and extension units, and the controls the driver answers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/CameraMetadataWriter.h"
#include "sim/DeviceInfoTable.h"

namespace sim {

// Camera formats that applications never see (the transform hides them) and their published peers.
extern const GUID kSubtypeZ16;  // "Z16 "
extern const GUID kSubtypeY8;   // "Y8  "

// The camera's extension units and its firmware-condition event.
extern const GUID kDepthXuSet;
extern const GUID kColorXuSet;
extern const GUID kFisheyeXuSet;
extern const GUID kMsXuSet;
extern const GUID kAutoUpdateEventSet;
constexpr ULONG kAutoUpdateEventId = 1;
// The depth unit's firmware error code: one byte, 0 when all is well.
constexpr ULONG kDepthErrorCodeId = 7;
// Topology node types of a USB video camera (the device-specific type is the SDK's own).
extern const GUID kNodeCameraTerminal;
extern const GUID kNodeProcessing;
extern const GUID kNodeStreaming;

struct VideoFormat {
  GUID subtype;
  UINT32 width;
  UINT32 height;
  UINT32 fps;
  UINT32 bytesPerPixel;
};

struct StreamConfig {
  DWORD id;
  std::string name;
  UINT32 frameSourceType;  // MFFrameSourceTypes
  std::vector<VideoFormat> formats;
};

// The range the driver reports for a 32-bit control (basic support and default values).
struct ControlRange {
  LONG minimum;
  LONG maximum;
  LONG step;
  LONG defaultValue;
};

// One control of an extension unit: a raw byte value of fixed size (0 = any size, kept as written).
struct ControlConfig {
  ULONG id;
  std::vector<BYTE> value;
  bool hasRange = false;
  ControlRange range = {};
  size_t fixedSize = 0;
};

struct ExtensionUnitConfig {
  GUID set;
  DWORD nodeId;
  std::string name;
  std::vector<ControlConfig> controls;
};

// A standard (filter-scope) control answered with the KSPROPERTY_*_S layouts.
struct StandardControlConfig {
  GUID set;
  ULONG id;
  LONG value;
  ControlRange range;
};

// Where the sensor's exposure (microseconds) and gain live, so frame brightness follows them.
struct SensorControls {
  GUID exposureSet = GUID_NULL;  // extension-unit control holding the exposure in microseconds
  ULONG exposureId = 0;
  LONG defaultExposureUs = 8000;
  GUID gainSet = GUID_NULL;  // standard control holding the gain
  ULONG gainId = 0;
  LONG defaultGain = 16;
  // What the sensor reports per frame (the depth-control record): the manual exposure, or its own
  // auto exposure while the mode control (same set as the exposure, 0: none) reads 1. A new value is
  // reached in a linear ramp over `exposureSettleMs`, as a real sensor takes a few frames.
  ULONG exposureModeId = 0;
  LONG autoExposureUs = 10000;
  DWORD exposureSettleMs = 0;
};

// The picture in front of the sensor (see sim/Scene.h). Flat: every pixel at FrameSource::Brightness.
// Graded: rows of rising reflectance whose mean is mid-grey when exposure (microseconds) x gain equals
// `midGreyExposureGain`.
struct SceneConfig {
  bool graded = false;
  double midGreyExposureGain = 8500.0 * 16;
};

struct CameraConfig {
  std::string name;
  std::vector<StreamConfig> streams;
  std::vector<GUID> nodeTypes;  // IKsTopologyInfo nodes, by index
  std::vector<ExtensionUnitConfig> extensionUnits;
  std::vector<StandardControlConfig> standardControls;
  SensorControls sensor;
  SceneConfig scene;
  // The extension-unit property that carries firmware commands (set GUID_NULL: none).
  GUID firmwareCommandSet = GUID_NULL;
  ULONG firmwareCommandId = 1;
  // What the firmware answers to the device-information command.
  DeviceInfoConfig deviceInfo;
  // Driver personality.
  bool reportsStreamIds = true;      // false: GetStreamIDs answers E_NOTIMPL
  bool exposesKsControl = true;      // false: no IKsControl on the filter
  bool exposesTopologyInfo = true;   // false: no IKsTopologyInfo on the filter
  // The per-frame metadata the camera attaches (writesMetadata false: samples carry none).
  CameraKind metadataKind = CameraKind::Depth;
  bool writesMetadata = true;
};

// Calibration tables as the camera reports them: a count byte, then per entry the sensor index, a
// reserved byte, the body length (u16, little-endian) and the body.
std::vector<BYTE> CalibrationTable(const std::vector<std::pair<BYTE, std::vector<BYTE>>> &entries);
// An MFPinholeCameraIntrinsics body with `models` models of the given size.
std::vector<BYTE> IntrinsicsBody(UINT32 width, UINT32 height, float focal, UINT32 models = 1);
// An MFCameraExtrinsics body whose count field reads `count` (one transform follows, whatever it says).
std::vector<BYTE> ExtrinsicsBody(float baselineMetres, UINT32 count = 1);

// Formats of one stream: every listed subtype at every listed size and rate.
std::vector<VideoFormat> FormatGrid(const std::vector<std::pair<GUID, UINT32>> &subtypesWithBytesPerPixel,
                                    const std::vector<std::pair<UINT32, UINT32>> &sizes,
                                    const std::vector<UINT32> &rates);

// The stereo depth camera: depth (stream 0) and two infrared streams (1, 2).
CameraConfig DepthCamera();
CameraConfig ColorCamera();
CameraConfig FisheyeCamera();
// Picks a camera by name ("depth", "color", "fisheye"); false for an unknown name.
bool CameraByName(const std::string &name, CameraConfig &camera);

}  // namespace sim
