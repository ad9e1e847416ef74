// What the sensor looks at. A flat field shows one grey level; a graded scene is rows of rising
// reflectance (a quarter to one and three quarters of the mean), so that an exposure loop sees a
// spread histogram that clips at both ends when badly exposed.
#pragma once

#include <cstdint>

#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"

namespace sim {

// Paints one frame of `height` rows of `rowBytes` bytes at the sensor's exposure and gain and
// returns its mean level (0..255).
BYTE PaintScene(const SceneConfig &scene, BYTE *data, UINT32 rowBytes, UINT32 height, LONG exposureUs, LONG gain);

// The level a pixel of relative reflectance `reflectance` shows in a graded scene.
BYTE GradedLevel(const SceneConfig &scene, double reflectance, LONG exposureUs, LONG gain);

}  // namespace sim
