#include "user_space_frameworks/MediaEventNames.h"

#include "user_space_frameworks/NameMap.h"

namespace user_space_frameworks {

const char *MediaEventTypeName(MediaEventType type) {
  static const NameMap<MediaEventType> names = {
      {MEUnknown, "MEUnknown"},
      {MEError, "MEError"},
      {MEExtendedType, "MEExtendedType"},
      {MENonFatalError, "MENonFatalError"},
      {METransformUnknown, "METransformUnknown"},
      {METransformNeedInput, "METransformNeedInput"},
      {METransformHaveOutput, "METransformHaveOutput"},
      {METransformDrainComplete, "METransformDrainComplete"},
      {METransformMarker, "METransformMarker"},
      {METransformInputStreamStateChanged, "METransformInputStreamStateChanged"},
      {MEVideoCaptureDeviceRemoved, "MEVideoCaptureDeviceRemoved"},
      {MEVideoCaptureDevicePreempted, "MEVideoCaptureDevicePreempted"},
      {MEDeviceThermalStateChanged, "MEDeviceThermalStateChanged"},
  };
  return names[type];
}

}  // namespace user_space_frameworks
