#include "user_space_frameworks/MediaEventNames.h"

namespace user_space_frameworks {

const char *MediaEventTypeName(MediaEventType type) {
  switch (type) {
    case MEUnknown: return "MEUnknown";
    case MEError: return "MEError";
    case MEExtendedType: return "MEExtendedType";
    case MENonFatalError: return "MENonFatalError";
    case METransformUnknown: return "METransformUnknown";
    case METransformNeedInput: return "METransformNeedInput";
    case METransformHaveOutput: return "METransformHaveOutput";
    case METransformDrainComplete: return "METransformDrainComplete";
    case METransformMarker: return "METransformMarker";
    case METransformInputStreamStateChanged: return "METransformInputStreamStateChanged";
    case MEVideoCaptureDeviceRemoved: return "MEVideoCaptureDeviceRemoved";
    case MEVideoCaptureDevicePreempted: return "MEVideoCaptureDevicePreempted";
    case MEDeviceThermalStateChanged: return "MEDeviceThermalStateChanged";
    default: return "Unknown";
  }
}

}  // namespace user_space_frameworks
