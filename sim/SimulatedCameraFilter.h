// A software camera driver filter: the object the frame server would find under the transform. It
// answers IMFTransform (streams, media types, stream attributes), IKsControl (extension-unit and
// standard controls, the firmware command property, the firmware-condition event) and IKsTopologyInfo
// (its node list). Tests and the session program configure it, inject faults and inspect what the
// transform asked of it.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "user_space_frameworks/ComObject.h"

namespace sim {

enum class KsRequestKind { Event = 0, Property = 1, Method = 2 };

constexpr ULONG kAnyId = 0xFFFFFFFF;
constexpr ULONG kFilterScope = 0xFFFFFFFF;  // node of a request that addresses no node
constexpr HRESULT kNotReady = HRESULT_FROM_WIN32(ERROR_NOT_READY);

struct KsRequestRecord {
  KsRequestKind kind;
  GUID set;
  ULONG id;
  ULONG flags;  // as sent, KSPROPERTY_TYPE_TOPOLOGY included
  ULONG node;   // kFilterScope unless a node request
  ULONG dataLength;
  HRESULT result;
};

// Makes matching requests fail with `result`, `count` times (negative: always). GUID_NULL and kAnyId
// match every set and id.
struct KsFault {
  KsRequestKind kind = KsRequestKind::Property;
  GUID set = GUID_NULL;
  ULONG id = kAnyId;
  ULONG flagsMask = 0;  // matches requests whose flags hold all of these bits
  HRESULT result = E_FAIL;
  int count = -1;
};

// A firmware command as the camera received it.
struct FirmwareCommand {
  uint16_t length;
  uint16_t magic;
  uint32_t opcode;
  uint32_t params[4];
  std::vector<BYTE> data;      // the `length - 20` data bytes the header announces
  size_t bytesWritten;         // size of the property write
};

// The camera's reply: `bytes` are what a later read of the property returns (opcode echo first).
using FirmwareResponder = std::function<std::vector<BYTE>(const FirmwareCommand &)>;

// A firmware that misbehaves: echoes another opcode, answers fewer bytes than the opcode echo, or fails
// the read of its reply with kFirmwareFailure.
enum class FirmwareFault { None, WrongOpcode, ShortReply, FailReply };
constexpr HRESULT kFirmwareFailure = HRESULT_FROM_WIN32(ERROR_GEN_FAILURE);

class SimulatedCameraFilter
    : public user_space_frameworks::ComObject<IMFTransform, IKsControl, IKsTopologyInfo> {
 public:
  static Microsoft::WRL::ComPtr<SimulatedCameraFilter> Create(const CameraConfig &config);
  explicit SimulatedCameraFilter(const CameraConfig &config);

  const CameraConfig &Config() const { return config; }
  // The attribute store the frame server hands to InitializeTransform: the filter's IMFTransform under
  // MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL.
  HRESULT CreateFilterAttributes(IMFAttributes **filterAttributes);
  // A media type of one of this camera's formats.
  static HRESULT CreateMediaType(const VideoFormat &format, IMFMediaType **mediaType);
  const StreamConfig *FindStream(DWORD streamId) const;

  // Controls.
  std::vector<BYTE> GetControlValue(const GUID &set, ULONG id) const;
  void SetControlValue(const GUID &set, ULONG id, std::vector<BYTE> value);
  LONG GetStandardControlValue(const GUID &set, ULONG id) const;
  // Exposure in microseconds and gain as the sensor currently runs (frame brightness follows them).
  LONG SensorExposureUs() const;
  LONG SensorGain() const;
  // The exposure the sensor reports for a frame captured now (see SensorControls).
  LONG ReportedExposureUs();

  // Firmware command property. The default responder echoes the opcode and the command's data,
  // zero-padded to a full 1024-byte reply.
  void SetFirmwareResponder(FirmwareResponder responder);
  // Applies to every later command until set back to None.
  void SetFirmwareFault(FirmwareFault fault);
  // The table the default responder returns for the device-information command (0x10).
  void SetDeviceInfo(const DeviceInfoConfig &deviceInfo);
  // Delay inside each firmware write, to let concurrent command exchanges overlap if unserialised.
  void SetFirmwareLatencyMs(DWORD milliseconds);
  std::vector<FirmwareCommand> FirmwareCommands() const;
  // The firmware property's writes and reads in arrival order: 'S' per write, 'G' per read.
  std::string FirmwareAccessOrder() const;

  // Failures.
  void InjectFault(const KsFault &fault);
  void InjectNotReady(int count, const GUID &set = GUID_NULL);
  void ClearFaults();

  // Driver events. Signals every subscription to the event; one-shot ones are dropped. Returns how
  // many were signalled.
  size_t SignalEvent(const GUID &set, ULONG id);
  size_t SignalAutoUpdate() { return SignalEvent(kAutoUpdateEventSet, kAutoUpdateEventId); }
  size_t ActiveEventSubscriptions(const GUID &set, ULONG id) const;

  // Every KS request so far, in arrival order.
  std::vector<KsRequestRecord> Requests() const;
  size_t CountRequests(KsRequestKind kind, const GUID &set, ULONG id, ULONG flagsMask = 0) const;
  void ClearRequests();

  // Output type the frame server set on a stream (empty when none).
  Microsoft::WRL::ComPtr<IMFMediaType> CurrentType(DWORD streamId) const;

  // Leak counting: from now on the filter keeps the media types it hands out, so that it can tell
  // how many references to them, to its attribute stores and to its current types are held outside.
  void TrackHandedOutObjects();
  // References held by others to what the filter handed out (its own references not counted).
  ULONG ReferencesHeldOutside() const;

  // IUnknown: refuses the interfaces the configured driver lacks.
  STDMETHODIMP QueryInterface(REFIID riid, void **ppv) override;

  // IMFTransform.
  STDMETHODIMP GetStreamLimits(DWORD *pdwInputMinimum, DWORD *pdwInputMaximum, DWORD *pdwOutputMinimum,
                               DWORD *pdwOutputMaximum) override;
  STDMETHODIMP GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) override;
  STDMETHODIMP GetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputIDs, DWORD dwOutputIDArraySize,
                            DWORD *pdwOutputIDs) override;
  STDMETHODIMP GetInputStreamInfo(DWORD dwInputStreamID, MFT_INPUT_STREAM_INFO *pStreamInfo) override;
  STDMETHODIMP GetOutputStreamInfo(DWORD dwOutputStreamID, MFT_OUTPUT_STREAM_INFO *pStreamInfo) override;
  STDMETHODIMP GetAttributes(IMFAttributes **pAttributes) override;
  STDMETHODIMP GetInputStreamAttributes(DWORD dwInputStreamID, IMFAttributes **pAttributes) override;
  STDMETHODIMP GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **pAttributes) override;
  STDMETHODIMP DeleteInputStream(DWORD dwStreamID) override;
  STDMETHODIMP AddInputStreams(DWORD cStreams, DWORD *adwStreamIDs) override;
  STDMETHODIMP GetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex, IMFMediaType **ppType) override;
  STDMETHODIMP GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex, IMFMediaType **ppType) override;
  STDMETHODIMP SetInputType(DWORD dwInputStreamID, IMFMediaType *pType, DWORD dwFlags) override;
  STDMETHODIMP SetOutputType(DWORD dwOutputStreamID, IMFMediaType *pType, DWORD dwFlags) override;
  STDMETHODIMP GetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **ppType) override;
  STDMETHODIMP GetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **ppType) override;
  STDMETHODIMP GetInputStatus(DWORD dwInputStreamID, DWORD *pdwFlags) override;
  STDMETHODIMP GetOutputStatus(DWORD *pdwFlags) override;
  STDMETHODIMP SetOutputBounds(LONGLONG hnsLowerBound, LONGLONG hnsUpperBound) override;
  STDMETHODIMP ProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *pEvent) override;
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) override;
  STDMETHODIMP ProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) override;
  STDMETHODIMP ProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount, MFT_OUTPUT_DATA_BUFFER *pOutputSamples,
                             DWORD *pdwStatus) override;

  // IKsControl.
  STDMETHODIMP KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                          ULONG ulDataLength, ULONG *pBytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                        ULONG *pBytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                       ULONG *pBytesReturned) override;

  // IKsTopologyInfo.
  STDMETHODIMP get_NumCategories(DWORD *pdwNumCategories) override;
  STDMETHODIMP get_Category(DWORD dwIndex, GUID *pCategory) override;
  STDMETHODIMP get_NumConnections(DWORD *pdwNumConnections) override;
  STDMETHODIMP get_ConnectionInfo(DWORD dwIndex, KSTOPOLOGY_CONNECTION *pConnectionInfo) override;
  STDMETHODIMP get_NodeName(DWORD dwNodeId, WCHAR *pwchNodeName, DWORD dwBufSize, DWORD *pdwNameLen) override;
  STDMETHODIMP get_NumNodes(DWORD *pdwNumNodes) override;
  STDMETHODIMP get_NodeType(DWORD dwNodeId, GUID *pNodeType) override;
  STDMETHODIMP CreateNodeInstance(DWORD dwNodeId, REFIID iid, void **ppvObject) override;

 private:
  struct Control {
    GUID set;
    ULONG id;
    ULONG node;  // kFilterScope for standard controls
    bool standard;
    std::vector<BYTE> value;  // raw bytes; for standard controls one LONG
    bool hasRange;
    ControlRange range;
    size_t fixedSize;
    ULONG standardFlags;
  };
  struct Subscription {
    GUID set;
    ULONG id;
    const void *eventData;  // the KSEVENTDATA that enabled it, which also disables it
    HANDLE event;           // our duplicate of the caller's handle
    bool oneShot;
  };
  struct StreamState {
    Microsoft::WRL::ComPtr<IMFAttributes> attributes;
    std::vector<Microsoft::WRL::ComPtr<IMFMediaType>> types;
    Microsoft::WRL::ComPtr<IMFMediaType> current;
  };

  HRESULT BuildStreams();
  HRESULT Record(KsRequestKind kind, const KSIDENTIFIER &identifier, ULONG node, ULONG dataLength, HRESULT result);
  bool TakeFault(KsRequestKind kind, const KSIDENTIFIER &identifier, HRESULT &result);
  Control *FindControl(const GUID &set, ULONG id);
  const Control *FindControl(const GUID &set, ULONG id) const;
  bool NodeExists(ULONG node) const;
  bool SetKnownAtNode(const GUID &set, ULONG node) const;
  HRESULT PropertyUnlocked(const KSIDENTIFIER &identifier, ULONG node, void *data, ULONG dataLength,
                           ULONG *bytesReturned);
  HRESULT FirmwareWrite(const void *data, ULONG dataLength);
  HRESULT FirmwareRead(void *data, ULONG dataLength, ULONG *bytesReturned);
  StreamState *Stream(DWORD streamId);

  CameraConfig config;
  Microsoft::WRL::ComPtr<IMFAttributes> filterAttributes;
  std::map<DWORD, StreamState> streams;

  mutable std::mutex mutex;  // controls, faults, subscriptions, records, stream types
  std::vector<Control> controls;
  std::vector<KsFault> faults;
  std::vector<Subscription> subscriptions;
  std::vector<KsRequestRecord> requests;
  bool trackHandedOut = false;
  std::vector<Microsoft::WRL::ComPtr<IMFMediaType>> handedOutTypes;
  // The reported exposure's ramp: from `rampFrom` at `rampStart` to `rampTo`.
  bool rampStarted = false;
  LONG rampFrom = 0;
  LONG rampTo = 0;
  std::chrono::steady_clock::time_point rampStart;

  mutable std::mutex firmwareMutex;  // firmware reply, responder and command log
  FirmwareResponder responder;
  DWORD firmwareLatencyMs = 0;
  std::vector<BYTE> firmwareReply;
  FirmwareFault firmwareFault = FirmwareFault::None;
  DeviceInfoConfig deviceInfo;
  std::vector<FirmwareCommand> firmwareCommands;
  std::string firmwareAccessOrder;

 protected:
  ~SimulatedCameraFilter() override;
};

}  // namespace sim
