// How a replay pairs what the transform does now with what the recording holds: the frames a pull
// hands out, and the media events the transform queues.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "device_events/EventsReader.h"
#include "platform/WindowsSdk.h"

namespace sim {

// A record's value at `index` when it is a U32, else 0.
uint32_t U32At(const device_events::Record &record, size_t index);

// Each call's entry paired with its return: a thread's calls nest, so a return closes the latest
// call its thread entered and has not left.
constexpr size_t kNoExit = ~size_t{0};
struct CallPairs {
  std::vector<size_t> exitOf;    // by record: an entry's return, or kNoExit
  std::vector<bool> orphanExit;  // by record: a return whose entry is not among the records
};
CallPairs PairCalls(const std::vector<device_events::Record> &records);

// Which recorded frames a replayed ProcessOutput needs in before it is made: a pull can hand out a
// frame before the ProcessInput that brought it has returned, so the replay makes that input first.
struct FrameOrder {
  // Accepted ProcessInput calls (their entries) of each input stream, in entry order.
  std::map<uint32_t, std::vector<const device_events::Record *>> framesOf;
  // For each ProcessOutput (its entry): how many of each stream's accepted frames must be in first.
  std::map<const device_events::Record *, std::map<uint32_t, size_t>> framesNeeded;
};

// `exitOf` pairs each call's entry with its return.
FrameOrder OrderFrames(const std::vector<device_events::Record> &records,
                       const std::map<const device_events::Record *, const device_events::Record *> &exitOf);

// A media event as the frame server takes it.
struct QueuedEvent {
  uint32_t type = 0;
  GUID extendedType = GUID_NULL;
  uint32_t status = 0;
  bool hasStream = false;
  uint32_t stream = 0;
};

// Events of different threads may be queued in another order than recorded: a recorded event is
// matched with any of the next few queued ones. Have-output events are matched as their frames come,
// so any number of them may wait ahead of another event and are passed over when looking for it.
constexpr size_t kEventWindow = 8;
// Where `wanted` is among `queued`, or -1.
std::ptrdiff_t FindQueuedEvent(const std::deque<QueuedEvent> &queued, const QueuedEvent &wanted);

}  // namespace sim
