// Where samples from one driver stream enter the processing graph. Also negotiates the stream's
// preferred state with the frame server.
//
// Lock order: the stream lock is never held while calling the event generator, the metadata parser,
// observers or the next node; SetPreferredState waits with no lock held.
#pragma once

#include <memory>
#include <vector>

#include "mft_core/streams/FrameDropMonitor.h"
#include "mft_core/streams/IMetadataParser.h"
#include "mft_core/streams/Stream.h"
#include "user_space_frameworks/FpsMonitor.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class InputStream : public Stream {
 public:
  static constexpr DWORD kStateChangeTimeoutMs = 10000;

  // `id` is the driver filter's output stream identifier.
  InputStream(DWORD id, MediaEventGenerator *eventGenerator, DWORD stateChangeTimeoutMs = kStateChangeTimeoutMs);
  ~InputStream() override = default;

  // Reads the driver stream's media types (less `excludedSubtypes`) and copies its attributes.
  HRESULT Init(IMFTransform *sourceTransform, const std::vector<GUID> &excludedSubtypes);
  HRESULT InitMediaTypesList(IMFTransform *sourceTransform, const std::vector<GUID> &excludedSubtypes);
  HRESULT InitStreamAttributes(IMFTransform *sourceTransform);

  HRESULT GetPreferredState(DeviceStreamState *theState, IMFMediaType **preferredMt);
  // Asks the frame server, through METransformInputStreamStateChanged, to move the stream to `state`
  // with `mediaType` and waits for its SetState. Blocking: never call it holding a stream lock.
  HRESULT SetPreferredState(DeviceStreamState state, IMFMediaType *mediaType);
  // The transform is shutting down and no answer will come: a pending SetPreferredState, and every later
  // one, returns MF_E_SHUTDOWN at once.
  void AbortStateChangeWait();

  HRESULT SetState(DeviceStreamState theState) override;
  // Flushes every node downstream, output streams included.
  HRESULT Flush() override;
  // Frame rate count, metadata parser, frame-drop count, then the first node.
  HRESULT ProcessSample(IMFSample *sample) override;

  HRESULT Connect(std::shared_ptr<ITopologyNode> firstNode);
  HRESULT Disconnect();
  bool IsConnected();

  void AttachMetadataParser(std::shared_ptr<IMetadataParser> parser);
  bool WasStarted();
  double GetCurrentFps();
  std::string GetFrameDropStatistics() const { return frameDropMonitor.GetStatisics(); }
  const FrameDropMonitor &GetFrameDropMonitor() const { return frameDropMonitor; }

 private:
  const DWORD stateChangeTimeoutMs;
  // Guarded by the stream lock.
  Microsoft::WRL::ComPtr<IMFMediaType> preferredMediaType;
  DeviceStreamState preferredState = DeviceStreamState_Stop;
  std::shared_ptr<ITopologyNode> firstNode;  // the node this stream feeds, while connected
  std::shared_ptr<IMetadataParser> metadataParser;
  user_space_frameworks::FpsMonitor fpsMonitor;
  bool isStarted = false;
  bool stateChangeAborted = false;

  user_space_frameworks::Event stateChangedEvent;  // auto-reset; signalled by SetState
  FrameDropMonitor frameDropMonitor;               // atomic counters, touched only by the input thread and SetState
};

}  // namespace mft_core
