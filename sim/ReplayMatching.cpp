#include "sim/ReplayMatching.h"

#include "device_events/Timeline.h"

namespace sim {

using device_events::Record;
using device_events::RecordKind;
using device_events::Value;
using device_events::ValueTag;

namespace {

bool TimeOf(const Value &value, int64_t &time) {
  if (value.tag != ValueTag::Sample || !value.sample || !(value.sample->present & device_events::kSampleHasTime)) {
    return false;
  }
  time = value.sample->time;
  return true;
}

}  // namespace

uint32_t U32At(const Record &record, size_t index) {
  return index < record.values.size() && record.values[index].tag == ValueTag::U32
             ? static_cast<uint32_t>(record.values[index].number)
             : 0;
}

CallPairs PairCalls(const std::vector<Record> &records) {
  CallPairs pairs;
  pairs.exitOf.assign(records.size(), kNoExit);
  pairs.orphanExit.assign(records.size(), false);
  std::map<uint32_t, std::vector<size_t>> open;
  for (size_t i = 0; i < records.size(); ++i) {
    const Record &r = records[i];
    if (r.Kind() == RecordKind::CallEntry) open[r.threadId].push_back(i);
    if (r.Kind() != RecordKind::CallExit) continue;
    auto &entered = open[r.threadId];
    if (entered.empty()) {
      pairs.orphanExit[i] = true;
    } else {
      pairs.exitOf[entered.back()] = i;
      entered.pop_back();
    }
  }
  return pairs;
}

// Output stream N hands out input stream N's frames in the order they came in, but not every frame its
// input took: the transform takes a frame and then drops it (a stream not connected yet, a queue
// flushed by a stop), and the frame server only learns that the frame was taken. So a sample handed out
// is the next frame taken with its time, or the next frame taken when it carries none.
FrameOrder OrderFrames(const std::vector<Record> &records, const std::map<const Record *, const Record *> &exitOf) {
  FrameOrder order;
  std::map<const Record *, const Record *> entryOf;
  for (const auto &call : exitOf) entryOf[call.second] = call.first;
  for (const Record &r : records) {
    if (r.Kind() != RecordKind::CallEntry || device_events::CallName(r) != "ProcessInput") continue;
    const auto exit = exitOf.find(&r);
    if (exit != exitOf.end() && exit->second->result == 0) order.framesOf[U32At(r, 1)].push_back(&r);
  }
  std::map<uint32_t, size_t> accounted;  // frames of each stream handed out or passed over
  for (const Record &r : records) {
    if (r.Kind() != RecordKind::CallExit || device_events::CallName(r) != "ProcessOutput") continue;
    const auto entry = entryOf.find(&r);
    if (entry == entryOf.end()) continue;
    // Return: name, then each buffer's stream, status and sample, then the call's status.
    for (size_t b = 1; b + 2 < r.values.size(); b += 3) {
      if (r.values[b + 2].tag != ValueTag::Sample) continue;
      const uint32_t stream = U32At(r, b);
      const auto &frames = order.framesOf[stream];
      size_t &next = accounted[stream];
      int64_t time = 0;
      if (TimeOf(r.values[b + 2], time)) {
        for (size_t k = next; k < frames.size(); ++k) {
          int64_t taken = 0;
          if (frames[k]->values.size() > 2 && TimeOf(frames[k]->values[2], taken) && taken == time) {
            next = k;
            break;
          }
        }
      }
      order.framesNeeded[entry->second][stream] = ++next;
    }
  }
  return order;
}

std::ptrdiff_t FindQueuedEvent(const std::deque<QueuedEvent> &queued, const QueuedEvent &wanted) {
  size_t considered = 0;
  for (size_t i = 0; i < queued.size() && considered < kEventWindow; ++i) {
    const QueuedEvent &e = queued[i];
    if (wanted.type != METransformHaveOutput && e.type == METransformHaveOutput) continue;
    ++considered;
    if (e.type == wanted.type && e.extendedType == wanted.extendedType && e.status == wanted.status &&
        e.hasStream == wanted.hasStream && (!e.hasStream || e.stream == wanted.stream)) {
      return static_cast<std::ptrdiff_t>(i);
    }
  }
  return -1;
}

}  // namespace sim
