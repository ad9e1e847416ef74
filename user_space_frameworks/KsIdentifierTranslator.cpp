#include "user_space_frameworks/KsIdentifierTranslator.h"

#include <cstdio>
#include <mutex>
#include <new>

namespace user_space_frameworks {

namespace {

// Literal ids: the SDK numbers some of these sets through version-dependent enumerations.
const char *const kExtendedCameraControlIds[] = {
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOFRAMERATE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOMAXFRAMERATE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOTRIGGERTIME",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_WARMSTART",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_MAXVIDFPS_PHOTORES",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOTHUMBNAIL",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_SCENEMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_TORCHMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FLASHMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_OPTIMIZATIONHINT",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_WHITEBALANCEMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSMODE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ISO",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FIELDOFVIEW",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_EVCOMPENSATION",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_CAMERAANGLEOFFSET",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_METADATA",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSPRIORITY",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FOCUSSTATE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ROI_CONFIGCAPS",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ROI_ISPCONTROL",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PHOTOCONFIRMATION",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ZOOM",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_MCC",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ISO_ADVANCED",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_VIDEOSTABILIZATION",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_VFR",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FACEDETECTION",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_VIDEOHDR",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_HISTOGRAM",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_OIS",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_ADVANCEDPHOTO",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_PROFILE",
    "KSPROPERTY_CAMERACONTROL_EXTENDED_FACEAUTH_MODE",
};

const char *const kCameraControlIds[] = {
    "KSPROPERTY_CAMERACONTROL_PAN",
    "KSPROPERTY_CAMERACONTROL_TILT",
    "KSPROPERTY_CAMERACONTROL_ROLL",
    "KSPROPERTY_CAMERACONTROL_ZOOM",
    "KSPROPERTY_CAMERACONTROL_EXPOSURE",
    "KSPROPERTY_CAMERACONTROL_IRIS",
    "KSPROPERTY_CAMERACONTROL_FOCUS",
    "KSPROPERTY_CAMERACONTROL_SCANMODE",
    "KSPROPERTY_CAMERACONTROL_PRIVACY",
    "KSPROPERTY_CAMERACONTROL_PANTILT",
    "KSPROPERTY_CAMERACONTROL_PAN_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_TILT_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_ROLL_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_ZOOM_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_EXPOSURE_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_IRIS_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_FOCUS_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_PANTILT_RELATIVE",
    "KSPROPERTY_CAMERACONTROL_FOCAL_LENGTH",
    "KSPROPERTY_CAMERACONTROL_AUTO_EXPOSURE_PRIORITY",
};

const char *const kVideoProcAmpIds[] = {
    "KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS",
    "KSPROPERTY_VIDEOPROCAMP_CONTRAST",
    "KSPROPERTY_VIDEOPROCAMP_HUE",
    "KSPROPERTY_VIDEOPROCAMP_SATURATION",
    "KSPROPERTY_VIDEOPROCAMP_SHARPNESS",
    "KSPROPERTY_VIDEOPROCAMP_GAMMA",
    "KSPROPERTY_VIDEOPROCAMP_COLORENABLE",
    "KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE",
    "KSPROPERTY_VIDEOPROCAMP_BACKLIGHT_COMPENSATION",
    "KSPROPERTY_VIDEOPROCAMP_GAIN",
    "KSPROPERTY_VIDEOPROCAMP_DIGITAL_MULTIPLIER",
    "KSPROPERTY_VIDEOPROCAMP_DIGITAL_MULTIPLIER_LIMIT",
    "KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE_COMPONENT",
    "KSPROPERTY_VIDEOPROCAMP_POWERLINE_FREQUENCY",
};

const char *const kTopologyIds[] = {
    "KSPROPERTY_TOPOLOGY_CATEGORIES",
    "KSPROPERTY_TOPOLOGY_NODES",
    "KSPROPERTY_TOPOLOGY_CONNECTIONS",
    "KSPROPERTY_TOPOLOGY_NAME",
};

const char *const kVidCapToStiIds[] = {
    "KSEVENT_VIDCAPTOSTI_EXT_TRIGGER",
    "KSEVENT_VIDCAP_AUTO_UPDATE",
    "KSEVENT_VIDCAP_SEARCH",
};

// The camera's own sets.
const GUID kWQ400ControlSet = {0x7DC07391, 0x1BE4, 0x405E, {0xB1, 0x34, 0x56, 0x4E, 0x60, 0x71, 0xDF, 0xDB}};
const GUID kWQ400DepthXuSet = {0xC9606CCB, 0x594C, 0x4D25, {0xAF, 0x47, 0xCC, 0xC4, 0x96, 0x43, 0x59, 0x95}};
const GUID kWQ400ColorXuSet = {0xB8EC416E, 0xA3AC, 0x4580, {0x8D, 0x5C, 0x0B, 0xEE, 0x15, 0x97, 0xE4, 0x3D}};
const GUID kWQ400FisheyeXuSet = {0xF6C3C3D1, 0x5CDE, 0x4477, {0xAD, 0xF0, 0x41, 0x33, 0xF5, 0x8D, 0xA6, 0xF4}};

template <size_t N>
std::unordered_map<ULONG, const char *> Sequential(const char *const (&names)[N]) {
  std::unordered_map<ULONG, const char *> ids;
  ids.reserve(N);
  for (size_t i = 0; i < N; ++i) ids.emplace(static_cast<ULONG>(i), names[i]);
  return ids;
}

std::string Hex(ULONG value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%lX", static_cast<unsigned long>(value));
  return text;
}

std::mutex instanceMutex;
std::shared_ptr<const KsIdentifierTranslator> instance;

}  // namespace

size_t KsIdentifierTranslator::GuidHash::operator()(const GUID &guid) const {
  const auto *words = reinterpret_cast<const uint64_t *>(&guid);
  return static_cast<size_t>(words[0] * 0x9E3779B97F4A7C15ull ^ words[1]);
}

KsIdentifierTranslator::KsIdentifierTranslator() {
  sets.emplace(KSPROPERTYSETID_ExtendedCameraControl,
               SetTable{"KSPROPERTYSETID_ExtendedCameraControl", Sequential(kExtendedCameraControlIds)});
  sets.emplace(KSEVENTSETID_ExtendedCameraControl,
               SetTable{"KSEVENTSETID_ExtendedCameraControl", Sequential(kExtendedCameraControlIds)});
  sets.emplace(KSPROPSETID_Topology, SetTable{"KSPROPSETID_Topology", Sequential(kTopologyIds)});
  sets.emplace(PROPSETID_VIDCAP_CAMERACONTROL,
               SetTable{"PROPSETID_VIDCAP_CAMERACONTROL", Sequential(kCameraControlIds)});
  sets.emplace(PROPSETID_VIDCAP_VIDEOPROCAMP, SetTable{"PROPSETID_VIDCAP_VIDEOPROCAMP", Sequential(kVideoProcAmpIds)});
  sets.emplace(KSEVENTSETID_VIDCAPTOSTI, SetTable{"KSEVENTSETID_VIDCAPTOSTI", Sequential(kVidCapToStiIds)});
  sets.emplace(kWQ400DepthXuSet, SetTable{"KSPROPERTY_XU_WQ400_DEPTH",
                                          {{1, "KSPROPERTY_XU_WQ400_DEPTH::HWM"},
                                           {2, "KSPROPERTY_XU_WQ400_DEPTH::LASER_MODE"},
                                           {3, "KSPROPERTY_XU_WQ400_DEPTH::EXPOSURE"},
                                           {4, "KSPROPERTY_XU_WQ400_DEPTH::LASER_POWER"}}});
  sets.emplace(kWQ400ColorXuSet, SetTable{"KSPROPERTY_XU_WQ400_COLOR",
                                          {{1, "KSPROPERTY_XU_WQ400_COLOR::EXTRINSICS"},
                                           {2, "KSPROPERTY_XU_WQ400_COLOR::INTRINSICS"}}});
  sets.emplace(kWQ400FisheyeXuSet, SetTable{"KSPROPERTY_XU_WQ400_FISHEYE",
                                            {{1, "KSPROPERTY_XU_WQ400_FISHEYE::EXPOSURE"},
                                             {2, "KSPROPERTY_XU_WQ400_FISHEYE::EXTRINSICS"},
                                             {3, "KSPROPERTY_XU_WQ400_FISHEYE::INTRINSICS"}}});
  sets.emplace(kWQ400ControlSet, SetTable{"PROPSETID_WQ400_PRIVATE",
                                          {{0, "KSPROPERTY_WQ400_API_VERSION"},
                                           {1, "KSPROPERTY_WQ400_CONTROL_HW_COMMAND"}}});

  flagNames[Property] = {
      {KSPROPERTY_TYPE_GET, "KSPROPERTY_TYPE_GET"},
      {KSPROPERTY_TYPE_SET, "KSPROPERTY_TYPE_SET"},
      {KSPROPERTY_TYPE_GETPAYLOADSIZE, "KSPROPERTY_TYPE_GETPAYLOADSIZE"},
      {KSPROPERTY_TYPE_SETSUPPORT, "KSPROPERTY_TYPE_SETSUPPORT"},
      {KSPROPERTY_TYPE_BASICSUPPORT, "KSPROPERTY_TYPE_BASICSUPPORT"},
      {KSPROPERTY_TYPE_RELATIONS, "KSPROPERTY_TYPE_RELATIONS"},
      {KSPROPERTY_TYPE_SERIALIZESET, "KSPROPERTY_TYPE_SERIALIZESET"},
      {KSPROPERTY_TYPE_UNSERIALIZESET, "KSPROPERTY_TYPE_UNSERIALIZESET"},
      {KSPROPERTY_TYPE_SERIALIZERAW, "KSPROPERTY_TYPE_SERIALIZERAW"},
      {KSPROPERTY_TYPE_UNSERIALIZERAW, "KSPROPERTY_TYPE_UNSERIALIZERAW"},
      {KSPROPERTY_TYPE_SERIALIZESIZE, "KSPROPERTY_TYPE_SERIALIZESIZE"},
      {KSPROPERTY_TYPE_DEFAULTVALUES, "KSPROPERTY_TYPE_DEFAULTVALUES"},
      {KSPROPERTY_TYPE_TOPOLOGY, "KSPROPERTY_TYPE_TOPOLOGY"},
      {KSPROPERTY_TYPE_HIGHPRIORITY, "KSPROPERTY_TYPE_HIGHPRIORITY"},
      {KSPROPERTY_TYPE_FSFILTERSCOPE, "KSPROPERTY_TYPE_FSFILTERSCOPE"},
      {KSPROPERTY_TYPE_COPYPAYLOAD, "KSPROPERTY_TYPE_COPYPAYLOAD"},
  };
  flagNames[Event] = {
      {KSEVENT_TYPE_ENABLE, "KSEVENT_TYPE_ENABLE"},
      {KSEVENT_TYPE_ONESHOT, "KSEVENT_TYPE_ONESHOT"},
      {KSEVENT_TYPE_ENABLEBUFFERED, "KSEVENT_TYPE_ENABLEBUFFERED"},
      {KSEVENT_TYPE_SETSUPPORT, "KSEVENT_TYPE_SETSUPPORT"},
      {KSEVENT_TYPE_BASICSUPPORT, "KSEVENT_TYPE_BASICSUPPORT"},
      {KSEVENT_TYPE_QUERYBUFFER, "KSEVENT_TYPE_QUERYBUFFER"},
      {KSEVENT_TYPE_TOPOLOGY, "KSEVENT_TYPE_TOPOLOGY"},
  };
  // Method types are partly values, not bits: MODIFY is READ | WRITE, SEND repeats READ.
  flagNames[Method] = {
      {KSMETHOD_TYPE_NONE, "KSMETHOD_TYPE_NONE"},
      {KSMETHOD_TYPE_MODIFY, "KSMETHOD_TYPE_MODIFY"},
      {KSMETHOD_TYPE_READ, "KSMETHOD_TYPE_READ"},
      {KSMETHOD_TYPE_WRITE, "KSMETHOD_TYPE_WRITE"},
      {KSMETHOD_TYPE_SOURCE, "KSMETHOD_TYPE_SOURCE"},
      {KSMETHOD_TYPE_SEND, "KSMETHOD_TYPE_SEND"},
      {KSMETHOD_TYPE_SETSUPPORT, "KSMETHOD_TYPE_SETSUPPORT"},
      {KSMETHOD_TYPE_BASICSUPPORT, "KSMETHOD_TYPE_BASICSUPPORT"},
      {KSMETHOD_TYPE_TOPOLOGY, "KSMETHOD_TYPE_TOPOLOGY"},
  };
}

HRESULT KsIdentifierTranslator::Create() {
  try {
    std::lock_guard<std::mutex> hold(instanceMutex);
    if (!instance) instance = std::make_shared<const KsIdentifierTranslator>();
    return S_OK;
  } catch (const std::bad_alloc &) {
    return E_OUTOFMEMORY;
  }
}

void KsIdentifierTranslator::Release() {
  std::lock_guard<std::mutex> hold(instanceMutex);
  instance.reset();
}

std::shared_ptr<const KsIdentifierTranslator> KsIdentifierTranslator::Instance() {
  std::lock_guard<std::mutex> hold(instanceMutex);
  if (!instance) instance = std::make_shared<const KsIdentifierTranslator>();
  return instance;
}

std::string KsIdentifierTranslator::Name(const KSIDENTIFIER &identifier, Kind kind) {
  return Instance()->Translate(identifier, kind);
}

std::string KsIdentifierTranslator::SetName(REFGUID set) const {
  const auto found = sets.find(set);
  if (found != sets.end()) return found->second.name;
  char text[48];
  std::snprintf(text, sizeof(text), "Unknown 0x%08lX%04X%04X%02X%02X%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned long>(set.Data1), set.Data2, set.Data3, set.Data4[0], set.Data4[1],
                set.Data4[2], set.Data4[3], set.Data4[4], set.Data4[5], set.Data4[6], set.Data4[7]);
  return text;
}

std::string KsIdentifierTranslator::IdName(REFGUID set, ULONG id) const {
  const auto found = sets.find(set);
  if (found != sets.end()) {
    const auto name = found->second.ids.find(id);
    if (name != found->second.ids.end()) return name->second;
  }
  char text[24];
  std::snprintf(text, sizeof(text), "Unknown 0x%lX", static_cast<unsigned long>(id));
  return text;
}

std::string KsIdentifierTranslator::FlagNames(ULONG flags, Kind kind) const {
  std::string text;
  ULONG named = 0;
  for (const auto &flag : flagNames[kind]) {
    const bool matches = flag.first == 0 ? flags == 0 : (flags & flag.first) == flag.first;
    // A value already covered by a longer name (MODIFY over READ and WRITE) is not repeated.
    if (!matches || (flag.first != 0 && (named & flag.first) == flag.first)) continue;
    if (!text.empty()) text += " | ";
    text += flag.second;
    named |= flag.first;
  }
  if (const ULONG rest = flags & ~named) {
    if (!text.empty()) text += " | ";
    text += Hex(rest);
  }
  return text;
}

std::string KsIdentifierTranslator::Translate(const KSIDENTIFIER &identifier, Kind kind) const {
  return "Set: " + SetName(identifier.Set) + ", Id: " + IdName(identifier.Set, identifier.Id) +
         ", Flags: " + FlagNames(identifier.Flags, kind);
}

}  // namespace user_space_frameworks
