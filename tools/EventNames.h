// The names the recording tools print for GUIDs, KS identifiers and media events.
#pragma once

#include <memory>

#include "device_events/Timeline.h"

namespace tools {

std::unique_ptr<device_events::Names> CreateEventNames();

}  // namespace tools
