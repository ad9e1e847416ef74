// Where samples leave the processing graph: queued until the frame server pulls them with ProcessOutput.
//
// Lock order: the stream lock is never held while calling the event generator.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "mft_core/streams/Stream.h"
#include "user_space_frameworks/FpsMonitor.h"

namespace mft_core {

// Depth marking of the stream and of its media types of the listed subtypes; no subtypes, no marking.
struct DepthConfiguration {
  UINT32 measurementType = 0;  // MFDepthMeasurement
  UINT32 depthValueUnit = 0;   // MF_MT_DEPTH_VALUE_UNIT
  std::vector<GUID> subtypes;
};

struct OutputStreamConfiguration {
  std::string name;    // for traces
  DWORD index = 0;     // position among the transform's output streams
  std::wstring urlString;  // MFT_ENUM_HARDWARE_URL_Attribute
  // The types to offer (copied, not shared, by the stream).
  std::shared_ptr<MediaTypeList> mtList = std::make_shared<MediaTypeList>();
  // Extra stream attributes (the input stream's), copied without overwriting the stream's own.
  Microsoft::WRL::ComPtr<IMFAttributes> attributes;
  std::vector<BYTE> intrinsics;  // MFPinholeCameraIntrinsics record; empty = none
  std::vector<BYTE> extrinsics;  // MFCameraExtrinsics record; empty = none
  DepthConfiguration depth;
};

class OutputStream : public Stream {
 public:
  OutputStream(DWORD id, MediaEventGenerator *eventGenerator, OutputStreamConfiguration configuration);
  ~OutputStream() override;

  // Copies the configured media types and builds the stream attributes.
  HRESULT Init();
  HRESULT CopyMediaTypes(const MediaTypeList &source);
  // Builds the stream's attribute store and hands out a reference to it.
  HRESULT InitAttributes(IMFAttributes **attr);
  HRESULT AddExtrinsicsToStreamAttributes(const std::vector<BYTE> &extrinsics);
  HRESULT AddIntrinsicsToStreamAttributes(const std::vector<BYTE> &intrinsics);
  HRESULT AddDepthAttributes(const DepthConfiguration &depth);

  // Queues the sample (running only) and raises METransformHaveOutput.
  HRESULT ProcessSample(IMFSample *sample) override;
  // Hands out the oldest queued sample. A stopped stream answers S_OK and leaves `buffer` untouched.
  HRESULT ProcessOutput(MFT_OUTPUT_DATA_BUFFER &buffer, DWORD streamId);
  HRESULT Flush() override;
  // Running: queues MEDeviceStreamCreated for this stream.
  HRESULT SetState(DeviceStreamState theState) override;

  size_t GetQueueLength();
  // One line about the stream for traces: id, state, current type, queue length and rates.
  std::string GetInfo();
  const OutputStreamConfiguration &GetConfiguration() const { return configuration; }

 private:
  OutputStreamConfiguration configuration;
  // Guarded by the stream lock.
  std::deque<Microsoft::WRL::ComPtr<IMFSample>> sampleQueue;
  user_space_frameworks::FpsMonitor topologyFpsMonitor;
  user_space_frameworks::FpsMonitor processOutputFpsMonitor;
};

}  // namespace mft_core
