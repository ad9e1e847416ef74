// The names the recording tools print for GUIDs, KS identifiers and media events: on Windows the
// module's translators, in a native build the reader's plain identifiers.
#pragma once

#include <memory>

#include "device_events/Timeline.h"

namespace tools {

std::unique_ptr<device_events::Names> CreateEventNames();

}  // namespace tools
