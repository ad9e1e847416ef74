#pragma once

#include "sim/CameraMetadataWriter.h"
#include "sim/FrameSource.h"

namespace sim {

// The frame source's per-sample hook that attaches the camera's metadata as the driver does: one
// writer per stream, following the frame source's counters (a counter it leaves out is a lost frame).
MetadataHook MakeCameraMetadataHook(CameraKind kind);

}  // namespace sim
