// The one header through which product code reaches Win32, COM, Media Foundation and kernel streaming.
// MinGW-w64 lacks some newer SDK declarations; they are supplied here with the SDK's own names, values
// and layouts, and only when the build is not against the real Windows SDK.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
// MinGW declares the methods of its hand-written COM interfaces (IKsControl among them) with
// __declspec(nothrow), which clang reads as an exception specification that every override would have
// to repeat; the Windows SDK's own switch leaves it out, as the SDK's compiler effectively does.
#if defined(__clang__) && defined(__MINGW32__) && !defined(COM_STDMETHOD_CAN_THROW)
#define COM_STDMETHOD_CAN_THROW
#endif
#include <windows.h>
#include <unknwn.h>
// Media Foundation first: MinGW's ks headers redefine types that mfobjects.h pulls in otherwise.
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mfobjects.h>
#include <mftransform.h>
#include <ks.h>
#include <ksmedia.h>
#include <ksproxy.h>
#include <wrl/client.h>
#include <comdef.h>
#include <evntprov.h>
#include <evntrace.h>

#include <cstddef>

#if defined(__MINGW32__) && !defined(WQ_USE_WINDOWS_SDK)
#define WQ_SDK_SUPPLEMENT 1
#endif

#if WQ_SDK_SUPPLEMENT

// ---- GUIDs (defined in platform/SdkGuids.cpp) -------------------------------------------------------
extern "C" {
extern const GUID MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL;
extern const GUID MF_DEVICEMFT_CONNECTED_PIN_KSCONTROL;
extern const GUID MF_DEVICEMFT_EXTENSION_PLUGIN_CLSID;
extern const GUID MF_DEVICESTREAM_STREAM_CATEGORY;
extern const GUID MF_DEVICESTREAM_STREAM_ID;
extern const GUID MF_DEVICESTREAM_FRAMESERVER_SHARED;
extern const GUID MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES;
extern const GUID MF_DEVICESTREAM_EXTENSION_PLUGIN_CLSID;
extern const GUID MF_DEVICESTREAM_TRANSFORM_STREAM_ID;
extern const GUID MFStreamExtension_PinholeCameraIntrinsics;
extern const GUID MFStreamExtension_CameraExtrinsics;
extern const GUID MFSampleExtension_PinholeCameraIntrinsics;
extern const GUID MFSampleExtension_CameraExtrinsics;
extern const GUID MF_MT_DEPTH_MEASUREMENT;
extern const GUID MF_MT_DEPTH_VALUE_UNIT;
extern const GUID MEDeviceStreamCreated;
extern const GUID MFSampleExtension_CaptureMetadata;
extern const GUID MF_CAPTURE_METADATA_FRAME_RAWSTREAM;
extern const GUID MFSampleExtension_DeviceTimestamp;
extern const GUID KSPROPERTYSETID_ExtendedCameraControl;
extern const GUID KSEVENTSETID_ExtendedCameraControl;
extern const GUID IID_IMFDeviceTransform;
extern const GUID IID_IMFDeviceTransformCallback;
extern const GUID IID_IMFRealTimeClientEx;
extern const GUID IID_IKsTopologyInfo;
}

// ---- Enums and constants ------------------------------------------------------------------------------
typedef enum _DeviceStreamState {
  DeviceStreamState_Stop = 0,
  DeviceStreamState_Pause = 1,
  DeviceStreamState_Run = 2,
  DeviceStreamState_Disabled = 3
} DeviceStreamState, *PDeviceStreamState;

typedef enum _MFFrameSourceTypes {
  MFFrameSourceTypes_Color = 0x0001,
  MFFrameSourceTypes_Infrared = 0x0002,
  MFFrameSourceTypes_Depth = 0x0004,
  MFFrameSourceTypes_Image = 0x0008,
  MFFrameSourceTypes_Custom = 0x0080
} MFFrameSourceTypes;

typedef enum _MFDepthMeasurement { DistanceToFocalPlane = 0, DistanceToOpticalCenter = 1 } MFDepthMeasurement;

// MinGW has MFT_MESSAGE_TYPE but not these members.
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_DROP_SAMPLES = static_cast<MFT_MESSAGE_TYPE>(0x00000003);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_COMMAND_TICK = static_cast<MFT_MESSAGE_TYPE>(0x00000004);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_NOTIFY_RELEASE_RESOURCES = static_cast<MFT_MESSAGE_TYPE>(0x10000004);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_NOTIFY_REACQUIRE_RESOURCES = static_cast<MFT_MESSAGE_TYPE>(0x10000005);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_NOTIFY_EVENT = static_cast<MFT_MESSAGE_TYPE>(0x10000006);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_COMMAND_SET_OUTPUT_STREAM_STATE = static_cast<MFT_MESSAGE_TYPE>(0x10000007);
constexpr MFT_MESSAGE_TYPE MFT_MESSAGE_COMMAND_FLUSH_OUTPUT_STREAM = static_cast<MFT_MESSAGE_TYPE>(0x10000008);

typedef enum {
  MetadataId_Standard_Start = 1,
  MetadataId_PhotoConfirmation = MetadataId_Standard_Start,
  MetadataId_UsbVideoHeader,
  MetadataId_CaptureStats,
  MetadataId_CameraExtrinsics,
  MetadataId_CameraIntrinsics,
  MetadataId_FrameIllumination,
  MetadataId_DigitalWindow,
  MetadataId_BackgroundSegmentationMask,
  MetadataId_Standard_End = MetadataId_BackgroundSegmentationMask,
  MetadataId_Custom_Start = 0x80000000
} KSCAMERA_MetadataId;

#ifndef KSPROPERTY_TYPE_GETPAYLOADSIZE
#define KSPROPERTY_TYPE_GETPAYLOADSIZE 0x00000004
#endif
#ifndef KSPROPERTY_TYPE_HIGHPRIORITY
#define KSPROPERTY_TYPE_HIGHPRIORITY 0x08000000
#endif
#ifndef KSPROPERTY_TYPE_FSFILTERSCOPE
#define KSPROPERTY_TYPE_FSFILTERSCOPE 0x40000000
#endif
#ifndef KSPROPERTY_TYPE_COPYPAYLOAD
#define KSPROPERTY_TYPE_COPYPAYLOAD 0x80000000
#endif
#ifndef KSPROPERTY_CAMERACONTROL_FLAGS_ASYNCHRONOUS
#define KSPROPERTY_CAMERACONTROL_FLAGS_ASYNCHRONOUS 0x00000004
#endif
constexpr ULONG KSPROPERTY_CAMERACONTROL_AUTO_EXPOSURE_PRIORITY = 19;

// evntprov.h: provider traits and typed data descriptors of self-describing events (MinGW's
// EVENT_INFO_CLASS stops at EventProviderBinaryTrackInfo; its EVENT_DATA_DESCRIPTOR keeps the type in the
// low byte of Reserved, where the SDK overlays UCHAR Type).
constexpr EVENT_INFO_CLASS EventProviderSetReserved1 = static_cast<EVENT_INFO_CLASS>(1);
constexpr EVENT_INFO_CLASS EventProviderSetTraits = static_cast<EVENT_INFO_CLASS>(2);
constexpr EVENT_INFO_CLASS EventProviderUseDescriptorType = static_cast<EVENT_INFO_CLASS>(3);
#ifndef EVENT_DATA_DESCRIPTOR_TYPE_NONE
#define EVENT_DATA_DESCRIPTOR_TYPE_NONE 0
#define EVENT_DATA_DESCRIPTOR_TYPE_EVENT_METADATA 1
#define EVENT_DATA_DESCRIPTOR_TYPE_PROVIDER_METADATA 2
#define EVENT_DATA_DESCRIPTOR_TYPE_TIMESTAMP_OVERRIDE 3
#endif
#ifndef WINEVENT_CHANNEL_TRACELOGGING
#define WINEVENT_CHANNEL_TRACELOGGING 11
#endif
static_assert(sizeof(EVENT_DATA_DESCRIPTOR) == 16, "pointer, size, type word");
static_assert(sizeof(EVENT_DESCRIPTOR) == 16, "id, version, channel, level, opcode, task, keyword");

// mfapi.h: callback flags and work queues (MinGW lacks them).
#ifndef MFASYNC_FAST_IO_PROCESSING_CALLBACK
#define MFASYNC_FAST_IO_PROCESSING_CALLBACK 0x00000001
#endif
#ifndef MFASYNC_CALLBACK_QUEUE_UNDEFINED
#define MFASYNC_CALLBACK_QUEUE_UNDEFINED 0x00000000
#endif
#ifndef MFASYNC_CALLBACK_QUEUE_STANDARD
#define MFASYNC_CALLBACK_QUEUE_STANDARD 0x00000001
#endif

#define KSCAMERA_EXTENDEDPROP_FILTERSCOPE 0xFFFFFFFF
#define KSCAMERA_EXTENDEDPROP_CAPS_ASYNCCONTROL 0x8000000000000000
#define KSCAMERA_EXTENDEDPROP_CAPS_CANCELLABLE 0x4000000000000000
#define KSCAMERA_EXTENDEDPROP_FLAG_CANCELOPERATION 0x8000000000000000
#define KSCAMERA_EXTENDEDPROP_CAPS_MASK 0xFF00000000000000
#define KSCAMERA_EXTENDEDPROP_FLAG_MASK 0xFF00000000000000
#define KSCAMERA_EXTENDEDPROP_CAPS_RESERVED 0xFF00000000000000
#define KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO 0x0000000000000001
#define KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL 0x0000000000000002
#define KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK 0x0000000000000004
#define KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MASK                                                            \
  (KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL |                 \
   KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK)
#define KSCAMERA_EXTENDEDPROP_WARMSTART_MODE_DISABLED 0x0000000000000000
#define KSCAMERA_EXTENDEDPROP_WARMSTART_MODE_ENABLED 0x0000000000000001

// Literal ids: the SDK's implicit numbering shifts with NTDDI_VERSION.
typedef enum {
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOMODE = 0,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOFRAMERATE = 1,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOMAXFRAMERATE = 2,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOTRIGGERTIME = 3,
  KSPROPERTY_CAMERACONTROL_EXTENDED_WARMSTART = 4,
  KSPROPERTY_CAMERACONTROL_EXTENDED_MAXVIDFPS_PHOTORES = 5,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOTHUMBNAIL = 6,
  KSPROPERTY_CAMERACONTROL_EXTENDED_SCENEMODE = 7,
  KSPROPERTY_CAMERACONTROL_EXTENDED_TORCHMODE = 8,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FLASHMODE = 9,
  KSPROPERTY_CAMERACONTROL_EXTENDED_OPTIMIZATIONHINT = 10,
  KSPROPERTY_CAMERACONTROL_EXTENDED_WHITEBALANCEMODE = 11,
  KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE = 12,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSMODE = 13,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ISO = 14,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FIELDOFVIEW = 15,
  KSPROPERTY_CAMERACONTROL_EXTENDED_EVCOMPENSATION = 16,
  KSPROPERTY_CAMERACONTROL_EXTENDED_CAMERAANGLEOFFSET = 17,
  KSPROPERTY_CAMERACONTROL_EXTENDED_METADATA = 18,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSPRIORITY = 19,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSSTATE = 20,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ROI_CONFIGCAPS = 21,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ROI_ISPCONTROL = 22,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOCONFIRMATION = 23,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ZOOM = 24,
  KSPROPERTY_CAMERACONTROL_EXTENDED_MCC = 25,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ISO_ADVANCED = 26,
  KSPROPERTY_CAMERACONTROL_EXTENDED_VIDEOSTABILIZATION = 27,
  KSPROPERTY_CAMERACONTROL_EXTENDED_VFR = 28,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FACEDETECTION = 29,
  KSPROPERTY_CAMERACONTROL_EXTENDED_VIDEOHDR = 30,
  KSPROPERTY_CAMERACONTROL_EXTENDED_HISTOGRAM = 31,
  KSPROPERTY_CAMERACONTROL_EXTENDED_OIS = 32,
  KSPROPERTY_CAMERACONTROL_EXTENDED_ADVANCEDPHOTO = 33,
  KSPROPERTY_CAMERACONTROL_EXTENDED_PROFILE = 34,
  KSPROPERTY_CAMERACONTROL_EXTENDED_FACEAUTH_MODE = 35,
  KSPROPERTY_CAMERACONTROL_EXTENDED_SECURE_MODE = 36,
  KSPROPERTY_CAMERACONTROL_EXTENDED_VIDEOTEMPORALDENOISING = 37,
  KSPROPERTY_CAMERACONTROL_EXTENDED_IRTORCHMODE = 38,
  KSPROPERTY_CAMERACONTROL_EXTENDED_RELATIVEPANELOPTIMIZATION = 39,
  KSPROPERTY_CAMERACONTROL_EXTENDED_EYEGAZECORRECTION = 40,
  KSPROPERTY_CAMERACONTROL_EXTENDED_BACKGROUNDSEGMENTATION = 41,
  KSPROPERTY_CAMERACONTROL_EXTENDED_DIGITALWINDOW_CONFIGCAPS = 42,
  KSPROPERTY_CAMERACONTROL_EXTENDED_DIGITALWINDOW = 43
} KSPROPERTY_CAMERACONTROL_EXTENDED_PROPERTY;

// ---- Structures ---------------------------------------------------------------------------------------
typedef struct tagKSCAMERA_EXTENDEDPROP_HEADER {
  ULONG Version;
  ULONG PinId;
  ULONG Size;
  ULONG Result;
  ULONGLONG Flags;
  ULONGLONG Capability;
} KSCAMERA_EXTENDEDPROP_HEADER, *PKSCAMERA_EXTENDEDPROP_HEADER;

typedef struct tagKSCAMERA_EXTENDEDPROP_VALUE {
  union {
    double dbl;
    ULONGLONG ull;
    ULONG ul;
    ULARGE_INTEGER ratio;
    LONG l;
    LONGLONG ll;
  } Value;
} KSCAMERA_EXTENDEDPROP_VALUE, *PKSCAMERA_EXTENDEDPROP_VALUE;

typedef struct tagKSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING {
  ULONG Mode;
  LONG Min;
  LONG Max;
  LONG Step;
  KSCAMERA_EXTENDEDPROP_VALUE VideoProc;
  ULONGLONG Reserved;
} KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING, *PKSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING;

typedef struct tagKSCAMERA_METADATA_ITEMHEADER {
  ULONG MetadataId;
  ULONG Size;  // this header plus the payload that follows it
} KSCAMERA_METADATA_ITEMHEADER, *PKSCAMERA_METADATA_ITEMHEADER;

typedef struct _MF_FLOAT2 { FLOAT x; FLOAT y; } MF_FLOAT2;
typedef struct _MF_FLOAT3 { FLOAT x; FLOAT y; FLOAT z; } MF_FLOAT3;
typedef struct _MF_QUATERNION { FLOAT x; FLOAT y; FLOAT z; FLOAT w; } MF_QUATERNION;

typedef struct _MFCameraExtrinsic_CalibratedTransform {
  GUID CalibrationId;
  MF_FLOAT3 Position;
  MF_QUATERNION Orientation;
} MFCameraExtrinsic_CalibratedTransform;

typedef struct _MFCameraExtrinsics {
  UINT32 TransformCount;
  MFCameraExtrinsic_CalibratedTransform CalibratedTransforms[1];
} MFCameraExtrinsics;

typedef struct _MFCameraIntrinsic_PinholeCameraModel {
  MF_FLOAT2 FocalLength;
  MF_FLOAT2 PrincipalPoint;
} MFCameraIntrinsic_PinholeCameraModel;

typedef struct _MFCameraIntrinsic_DistortionModel {
  FLOAT Radial_k1;
  FLOAT Radial_k2;
  FLOAT Radial_k3;
  FLOAT Tangential_p1;
  FLOAT Tangential_p2;
} MFCameraIntrinsic_DistortionModel;

typedef struct _MFPinholeCameraIntrinsic_IntrinsicModel {
  UINT32 Width;
  UINT32 Height;
  MFCameraIntrinsic_PinholeCameraModel CameraModel;
  MFCameraIntrinsic_DistortionModel DistortionModel;
} MFPinholeCameraIntrinsic_IntrinsicModel;

typedef struct _MFPinholeCameraIntrinsics {
  UINT32 IntrinsicModelCount;
  MFPinholeCameraIntrinsic_IntrinsicModel IntrinsicModels[1];
} MFPinholeCameraIntrinsics;

// ---- Interfaces (method order is the vtable order and is binding) -----------------------------------
MIDL_INTERFACE("D818FBD8-FC46-42F2-87AC-1EA2D1F9BF32")
IMFDeviceTransform : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE InitializeTransform(IMFAttributes *pAttributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInputAvailableType(DWORD dwInputStreamID, DWORD dwTypeIndex,
                                                          IMFMediaType **pMediaType) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInputCurrentType(DWORD dwInputStreamID, IMFMediaType **pMediaType) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInputStreamAttributes(DWORD dwInputStreamID,
                                                             IMFAttributes **ppAttributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex,
                                                           IMFMediaType **pMediaType) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetOutputCurrentType(DWORD dwOutputStreamID, IMFMediaType **pMediaType) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetOutputStreamAttributes(DWORD dwOutputStreamID,
                                                              IMFAttributes **ppAttributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamIDs(DWORD dwInputIDArraySize, DWORD *pdwInputStreamIds,
                                                 DWORD dwOutputIDArraySize, DWORD *pdwOutputStreamIds) = 0;
  virtual HRESULT STDMETHODCALLTYPE ProcessEvent(DWORD dwInputStreamID, IMFMediaEvent *pEvent) = 0;
  virtual HRESULT STDMETHODCALLTYPE ProcessInput(DWORD dwInputStreamID, IMFSample *pSample, DWORD dwFlags) = 0;
  virtual HRESULT STDMETHODCALLTYPE ProcessMessage(MFT_MESSAGE_TYPE eMessage, ULONG_PTR ulParam) = 0;
  virtual HRESULT STDMETHODCALLTYPE ProcessOutput(DWORD dwFlags, DWORD cOutputBufferCount,
                                                  MFT_OUTPUT_DATA_BUFFER *pOutputSample, DWORD *pdwStatus) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetInputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType,
                                                        DeviceStreamState value, DWORD dwFlags) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInputStreamState(DWORD dwStreamID, DeviceStreamState *value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetOutputStreamState(DWORD dwStreamID, IMFMediaType *pMediaType,
                                                         DeviceStreamState value, DWORD dwFlags) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetOutputStreamState(DWORD dwStreamID, DeviceStreamState *value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInputStreamPreferredState(DWORD dwStreamID, DeviceStreamState *value,
                                                                 IMFMediaType **ppMediaType) = 0;
  virtual HRESULT STDMETHODCALLTYPE FlushInputStream(DWORD dwStreamIndex, DWORD dwFlags) = 0;
  virtual HRESULT STDMETHODCALLTYPE FlushOutputStream(DWORD dwStreamIndex, DWORD dwFlags) = 0;
};
__CRT_UUID_DECL(IMFDeviceTransform, 0xd818fbd8, 0xfc46, 0x42f2, 0x87, 0xac, 0x1e, 0xa2, 0xd1, 0xf9, 0xbf, 0x32)

MIDL_INTERFACE("6D5CB646-29EC-41FB-8179-8C4C6D750811")
IMFDeviceTransformCallback : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE OnBufferSent(IMFAttributes *pCallbackAttributes, DWORD pinId) = 0;
};
__CRT_UUID_DECL(IMFDeviceTransformCallback, 0x6d5cb646, 0x29ec, 0x41fb, 0x81, 0x79, 0x8c, 0x4c, 0x6d, 0x75, 0x08, 0x11)

MIDL_INTERFACE("03910848-AB16-4611-B100-17B88AE2F248")
IMFRealTimeClientEx : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE RegisterThreadsEx(DWORD *pdwTaskIndex, LPCWSTR wszClassName,
                                                      LONG lBasePriority) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnregisterThreads() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetWorkQueueEx(DWORD dwMultithreadedWorkQueueId, LONG lWorkItemBasePriority) = 0;
};
__CRT_UUID_DECL(IMFRealTimeClientEx, 0x03910848, 0xab16, 0x4611, 0xb1, 0x00, 0x17, 0xb8, 0x8a, 0xe2, 0xf2, 0x48)

MIDL_INTERFACE("720D4AC0-7533-11D0-A5D6-28DB04C10000")
IKsTopologyInfo : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE get_NumCategories(DWORD *pdwNumCategories) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Category(DWORD dwIndex, GUID *pCategory) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NumConnections(DWORD *pdwNumConnections) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ConnectionInfo(DWORD dwIndex, KSTOPOLOGY_CONNECTION *pConnectionInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NodeName(DWORD dwNodeId, WCHAR *pwchNodeName, DWORD dwBufSize,
                                                 DWORD *pdwNameLen) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD *pdwNumNodes) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NodeType(DWORD dwNodeId, GUID *pNodeType) = 0;
  virtual HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD dwNodeId, REFIID iid, void **ppvObject) = 0;
};
__CRT_UUID_DECL(IKsTopologyInfo, 0x720d4ac0, 0x7533, 0x11d0, 0xa5, 0xd6, 0x28, 0xdb, 0x04, 0xc1, 0x00, 0x00)

// MinGW's ks.h/ksproxy.h declare IKsControl without the uuid binding that __uuidof needs.
__CRT_UUID_DECL(IKsControl, 0x28f54685, 0x06fd, 0x11d2, 0xb2, 0x7a, 0x00, 0xa0, 0xc9, 0x22, 0x31, 0x96)

#endif  // WQ_SDK_SUPPLEMENT

// ---- Wire layouts, pinned whichever headers supplied them ---------------------------------------------
static_assert(sizeof(KSPROPERTY) == 24, "KSPROPERTY");
static_assert(sizeof(KSEVENT) == 24 && sizeof(KSMETHOD) == 24, "KSEVENT/KSMETHOD");
static_assert(sizeof(KSP_NODE) == 32 && offsetof(KSP_NODE, NodeId) == 24, "KSP_NODE");
static_assert(sizeof(KSE_NODE) == 32 && offsetof(KSE_NODE, NodeId) == 24, "KSE_NODE");
static_assert(sizeof(KSM_NODE) == 32 && offsetof(KSM_NODE, NodeId) == 24, "KSM_NODE");
static_assert(sizeof(KSEVENTDATA) == 32, "KSEVENTDATA");
static_assert(sizeof(KSPROPERTY_DESCRIPTION) == 40 && offsetof(KSPROPERTY_DESCRIPTION, MembersListCount) == 32,
              "KSPROPERTY_DESCRIPTION");
static_assert(sizeof(KSPROPERTY_MEMBERSHEADER) == 16, "KSPROPERTY_MEMBERSHEADER");
static_assert(sizeof(KSPROPERTY_STEPPING_LONG) == 16 && offsetof(KSPROPERTY_STEPPING_LONG, Bounds) == 8,
              "KSPROPERTY_STEPPING_LONG");
static_assert(sizeof(KSPROPERTY_VIDEOPROCAMP_S) == 40 && offsetof(KSPROPERTY_VIDEOPROCAMP_S, Value) == 24 &&
                  offsetof(KSPROPERTY_VIDEOPROCAMP_S, Capabilities) == 32,
              "KSPROPERTY_VIDEOPROCAMP_S");
static_assert(sizeof(KSPROPERTY_CAMERACONTROL_S) == 40 && offsetof(KSPROPERTY_CAMERACONTROL_S, Flags) == 28,
              "KSPROPERTY_CAMERACONTROL_S");
static_assert(sizeof(KSTOPOLOGY_CONNECTION) == 16, "KSTOPOLOGY_CONNECTION");
static_assert(sizeof(KSCAMERA_EXTENDEDPROP_HEADER) == 32 && offsetof(KSCAMERA_EXTENDEDPROP_HEADER, Flags) == 16 &&
                  offsetof(KSCAMERA_EXTENDEDPROP_HEADER, Capability) == 24,
              "KSCAMERA_EXTENDEDPROP_HEADER");
static_assert(sizeof(KSCAMERA_EXTENDEDPROP_VALUE) == 8, "KSCAMERA_EXTENDEDPROP_VALUE");
static_assert(sizeof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING) == 32 &&
                  offsetof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING, VideoProc) == 16 &&
                  offsetof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING, Reserved) == 24,
              "KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING");
static_assert(sizeof(KSCAMERA_METADATA_ITEMHEADER) == 8, "KSCAMERA_METADATA_ITEMHEADER");
static_assert(sizeof(MF_FLOAT2) == 8 && sizeof(MF_FLOAT3) == 12 && sizeof(MF_QUATERNION) == 16, "MF_FLOAT*");
static_assert(sizeof(MFCameraExtrinsic_CalibratedTransform) == 44 &&
                  offsetof(MFCameraExtrinsic_CalibratedTransform, Position) == 16 &&
                  offsetof(MFCameraExtrinsic_CalibratedTransform, Orientation) == 28,
              "MFCameraExtrinsic_CalibratedTransform");
static_assert(sizeof(MFCameraExtrinsics) == 48 && offsetof(MFCameraExtrinsics, CalibratedTransforms) == 4,
              "MFCameraExtrinsics");
static_assert(sizeof(MFCameraIntrinsic_PinholeCameraModel) == 16, "MFCameraIntrinsic_PinholeCameraModel");
static_assert(sizeof(MFCameraIntrinsic_DistortionModel) == 20, "MFCameraIntrinsic_DistortionModel");
static_assert(sizeof(MFPinholeCameraIntrinsic_IntrinsicModel) == 44 &&
                  offsetof(MFPinholeCameraIntrinsic_IntrinsicModel, CameraModel) == 8 &&
                  offsetof(MFPinholeCameraIntrinsic_IntrinsicModel, DistortionModel) == 24,
              "MFPinholeCameraIntrinsic_IntrinsicModel");
static_assert(sizeof(MFPinholeCameraIntrinsics) == 48 && offsetof(MFPinholeCameraIntrinsics, IntrinsicModels) == 4,
              "MFPinholeCameraIntrinsics");
static_assert(DeviceStreamState_Run == 2 && MF_STREAM_STATE_RUNNING == 2, "stream states");
