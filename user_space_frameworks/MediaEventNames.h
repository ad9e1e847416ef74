// Names of the media event types this system raises or receives, for traces.
#pragma once

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

// The platform's name of `type` ("METransformHaveOutput"), or "Unknown".
const char *MediaEventTypeName(MediaEventType type);

}  // namespace user_space_frameworks
