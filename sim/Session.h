// One streaming session over a simulated camera: a transform is created by a factory, driven by the
// frame-server host for a while, and summarised per stream.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "sim/FrameServerHost.h"

namespace sim {

// Chooses the transform under test: the framework's pass-through transform today, the product's
// class factory once the module exists.
class ITransformFactory {
 public:
  virtual ~ITransformFactory() = default;
  virtual HRESULT CreateTransform(const CameraConfig &camera, IMFDeviceTransform **transform) = 0;
  virtual std::string Describe() const = 0;
};

class PassThroughTransformFactory : public ITransformFactory {
 public:
  HRESULT CreateTransform(const CameraConfig &camera, IMFDeviceTransform **transform) override;
  std::string Describe() const override { return "pass-through device transform"; }
};

struct SessionOptions {
  std::string camera = "depth";
  std::vector<DWORD> streams;  // output streams to run; empty: every stream
  UINT32 width = 848;
  UINT32 height = 480;
  UINT32 fps = 30;
  double seconds = 5.0;
  bool progress = true;  // a live line, rewritten in place
  // 0 to 255: halfway through, the camera reports this firmware error code and signals its event.
  int firmwareErrorCode = -1;
};

struct SessionResult {
  std::string transform;
  std::string camera;
  std::vector<HostStreamStats> streams;
  std::map<DWORD, std::string> streamLabels;  // "Depth 848x480 30 fps", by output stream
  double seconds = 0;
  std::string ending;  // how the session ended, in words
  std::string firmwareEvent;  // the firmware error raised, in words (empty: none)
  HRESULT result = S_OK;
};

SessionResult RunSession(const SessionOptions &options, ITransformFactory &factory, std::ostream &progress);
std::string FormatSummary(const SessionResult &result);

}  // namespace sim
