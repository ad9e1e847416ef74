#include "sim/Scene.h"

#include <algorithm>
#include <cstring>

#include "sim/FrameSource.h"

namespace sim {

BYTE GradedLevel(const SceneConfig &scene, double reflectance, LONG exposureUs, LONG gain) {
  const double level = 128.0 * reflectance * static_cast<double>(exposureUs) * gain / scene.midGreyExposureGain;
  return static_cast<BYTE>(std::clamp(level + 0.5, 0.0, 255.0));
}

BYTE PaintScene(const SceneConfig &scene, BYTE *data, UINT32 rowBytes, UINT32 height, LONG exposureUs, LONG gain) {
  if (!scene.graded || height == 0) {
    const BYTE level = FrameSource::Brightness(exposureUs, gain);
    std::memset(data, level, static_cast<size_t>(rowBytes) * height);
    return level;
  }
  uint64_t sum = 0;
  for (UINT32 row = 0; row < height; ++row) {
    const double reflectance = 0.25 + 1.5 * (row + 0.5) / height;
    const BYTE level = GradedLevel(scene, reflectance, exposureUs, gain);
    std::memset(data + static_cast<size_t>(row) * rowBytes, level, rowBytes);
    sum += level;
  }
  return static_cast<BYTE>(sum / height);
}

}  // namespace sim
