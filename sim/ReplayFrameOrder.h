// Which recorded frames a replayed ProcessOutput needs in before it is made: a pull can hand out a
// frame before the ProcessInput that brought it has returned, so the replay makes that input first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "device_events/EventsReader.h"

namespace sim {

struct FrameOrder {
  // Accepted ProcessInput calls (their entries) of each input stream, in entry order.
  std::map<uint32_t, std::vector<const device_events::Record *>> framesOf;
  // For each ProcessOutput (its entry): how many of each stream's accepted frames must be in first.
  std::map<const device_events::Record *, std::map<uint32_t, size_t>> framesNeeded;
};

// `exitOf` pairs each call's entry with its return.
FrameOrder OrderFrames(const std::vector<device_events::Record> &records,
                       const std::map<const device_events::Record *, const device_events::Record *> &exitOf);

}  // namespace sim
