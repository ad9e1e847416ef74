// Replays a device events recording against a transform: the driver is played from the recording
// (RecordedCameraFilter), the recorded calls and application KS requests are made again in their
// order, each on a thread of its own standing for the recorded thread, and every result, everything
// a call handed out (media types, attributes, output samples), every application request's answer and
// every queued media event is compared with the recording. The first difference stops the replay.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "device_events/EventsReader.h"
#include "platform/WindowsSdk.h"

namespace sim {

// Makes the transform the recording was made with.
using ReplayTransformFactory =
    std::function<HRESULT(const device_events::FileHeader &header, IMFDeviceTransform **transform)>;

struct ReplayOptions {
  DWORD waitMs = 10000;  // for a call to return or a media event to be queued
  // Each thread standing for a recorded thread waits up to this long (pseudo-randomly) before each call,
  // as a loaded machine delays threads: the order the replay keeps must not depend on it.
  DWORD laneJitterMs = 0;
};

struct ReplayReport {
  bool matched = false;
  uint64_t records = 0;  // recorded records replayed or checked
  uint64_t calls = 0;
  uint64_t applicationRequests = 0;
  uint64_t driverRequests = 0;
  uint64_t driverEvents = 0;
  uint64_t mediaEvents = 0;
  std::string divergence;            // the first difference, empty when the run matched
  // The recorded record the first difference was found at: its position among the records, its kind,
  // and its call's name for call and return records.
  uint64_t divergenceRecord = 0;
  uint16_t divergenceKind = 0;
  std::string divergenceCall;
  std::vector<std::string> context;  // the recorded records before it, as timeline lines
  // A recording that was not closed (its writer died, or a flight-recorder dump): how it ends and where
  // its replay stopped.
  std::string ending;
  // A flight recorder's dump: where in it the replay started.
  std::string start;
  std::string Summary() const;
};

ReplayReport ReplayRecording(const std::vector<uint8_t> &bytes, const ReplayTransformFactory &factory,
                             const ReplayOptions &options = {});

// The factory of the framework's pass-through transform as the session program makes it, for
// recordings of "Simulated <camera> MFT".
HRESULT CreateSimulatedSessionTransform(const device_events::FileHeader &header, IMFDeviceTransform **transform);

}  // namespace sim
