#include "product/device/WQ400DeviceInfo.h"

#include <cstdio>
#include <cstring>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

enum class Kind { Bool, U8, U16, U32, Bytes, Version };

struct Field {
  size_t offset;
  const char *label;
  Kind kind;
  size_t width;  // bytes of a byte string or a version
};

// The table as the firmware lays it out; bytes not listed are reserved.
constexpr Field kFields[] = {
    {0, "Structure Size", Kind::U16, 2},
    {2, "Structure version", Kind::Version, 1},
    {3, "Product type", Kind::U8, 1},
    {4, "Product ID", Kind::Version, 1},
    {5, "Advanced Mode", Kind::Bool, 1},
    {6, "Advanced Mode Version", Kind::Version, 2},
    {12, "FunctionalPayloadVersion", Kind::Version, 4},
    {16, "EyeSafetyPayloadVersion", Kind::Version, 2},
    {20, "DfuPayloadVersion", Kind::Version, 2},
    {24, "Flash RO version", Kind::Version, 1},
    {25, "Flash is locked", Kind::Bool, 1},
    {26, "Flash RW version", Kind::Version, 1},
    {28, "Strap state", Kind::U32, 4},
    {32, "OEM ID", Kind::U32, 4},
    {36, "OEM Version", Kind::U32, 4},
    {40, "MIPI config", Kind::U16, 2},
    {44, "MIPI Frequencies", Kind::U32, 4},
    {48, "Optic module serial", Kind::Bytes, 8},
    {56, "Optic module version", Kind::U8, 1},
    {60, "Optic module mm#", Kind::U32, 4},
    {64, "Asic module serial", Kind::Bytes, 8},
    {72, "Asic module chip ID", Kind::Bytes, 12},
    {84, "Asic module mm#", Kind::U32, 4},
    {88, "Left sensor ID", Kind::U16, 2},
    {90, "Left sensor version", Kind::U8, 1},
    {100, "Right sensor ID", Kind::U16, 2},
    {102, "Right sensor version", Kind::U8, 1},
    {112, "FishEye sensor ID", Kind::U16, 2},
    {114, "FishEye sensor version", Kind::U8, 1},
    {124, "Imu ACC Chip ID", Kind::U8, 1},
    {125, "Imu Gyro Chip ID", Kind::U8, 1},
    {126, "Imu ST Chip ID", Kind::U32, 4},
    {136, "RGB module ID", Kind::U16, 2},
    {138, "RGB module version", Kind::U8, 1},
    {140, "RGB module SN", Kind::Bytes, 8},
    {148, "RGB ISP FW", Kind::U16, 2},
    {154, "WinUSB support", Kind::Bool, 1},
    {158, "HW type", Kind::U8, 1},
    {162, "SKU component", Kind::U8, 1},
    {166, "Depth camera", Kind::U8, 1},
    {170, "Depth active mode", Kind::Bool, 1},
    {174, "WithRGB", Kind::Bool, 1},
    {178, "WithImu", Kind::Bool, 1},
    {182, "Projector type", Kind::U8, 1},
    {186, "EEPROM version", Kind::Version, 2},
    {188, "EEPROM module info version", Kind::Version, 2},
    {190, "Asic module info table version", Kind::Version, 2},
    {192, "Calibration table version", Kind::Version, 2},
    {194, "Coefficients sub table version", Kind::Version, 2},
    {196, "Depth sub table version", Kind::Version, 2},
    {198, "RGB sub table version", Kind::Version, 2},
    {200, "Fisheye sub table version", Kind::Version, 2},
    {202, "IMU sub table version", Kind::Version, 2},
    {204, "Lens Shading sub table version", Kind::Version, 2},
    {206, "Projector sub table version", Kind::Version, 2},
    {208, "SN sub table version", Kind::Version, 2},
    {210, "ThermalLoop table version", Kind::Version, 2},
    {212, "MM FW version", Kind::Version, 4},
    {216, "Motion Module SN", Kind::Bytes, 8},
    {224, "Motion Module version", Kind::Version, 4},
    {228, "EEPROM Lock Status", Kind::Bool, 1},
};

static_assert(kFields[sizeof(kFields) / sizeof(kFields[0]) - 1].offset < WQ400DeviceInfo::kTableSize,
              "table layout");

uint32_t LittleEndian(const BYTE *bytes, size_t width) {
  uint32_t value = 0;
  for (size_t i = width; i > 0; --i) value = (value << 8) | bytes[i - 1];
  return value;
}

std::string FieldText(const Field &field, const BYTE *table) {
  const BYTE *bytes = table + field.offset;
  char number[16];
  switch (field.kind) {
    case Kind::Bool: return std::string(field.label) + (bytes[0] != 0 ? "=TRUE" : "=FALSE");
    case Kind::U8:
    case Kind::U16:
    case Kind::U32:
      std::snprintf(number, sizeof(number), "%X", static_cast<unsigned>(LittleEndian(bytes, field.width)));
      return std::string(field.label) + ": 0x" + number;
    case Kind::Bytes: {
      std::string text = std::string(field.label) + ": ";
      for (size_t i = 0; i < field.width; ++i) {
        std::snprintf(number, sizeof(number), "%02x", bytes[i]);
        text += number;
      }
      return text;
    }
    case Kind::Version: return std::string(field.label) + ": " + WQ400DeviceInfo::VersionText(bytes, field.width);
  }
  return field.label;
}

}  // namespace

WQ400DeviceInfo::WQ400DeviceInfo(std::shared_ptr<IFirmwareCommandPipe> firmwareCommandPipe,
                                 const std::string &displayName)
    : firmwareCommandPipe(std::move(firmwareCommandPipe)), name(displayName) {
  WQ_SCOPE();
}

WQ400DeviceInfo::~WQ400DeviceInfo() { WQ_SCOPE(); }

HRESULT WQ400DeviceInfo::Init() {
  WQ_SCOPE_BEGIN(HRESULT);
  HRESULT hr = E_POINTER;
  if (firmwareCommandPipe) {
    hr = firmwareCommandPipe->Get(table.data(), kOpcodeGetDeviceInfo, kTableSize, 0, 0, 0, 0);
  }
  if (SUCCEEDED(hr)) {
    valid = 1;
    TraceDeviceInfo();
  } else {
    // The pipe has traced the failure; initialisation goes on without the table.
    WQ_TRACE(Warning, name << ": device information not available " << user_space_frameworks::trace::HrText(hr));
  }
  return S_OK;
  WQ_SCOPE_END;
}

// Versions are little-endian numbers whose bytes are the parts, most significant part first:
// 1 byte "7", 2 bytes "1.3", 4 bytes "5.12.7.100".
std::string WQ400DeviceInfo::VersionText(const BYTE *bytes, size_t width) {
  std::string text;
  for (size_t i = width; i > 0; --i) {
    if (!text.empty()) text += '.';
    text += std::to_string(bytes[i - 1]);
  }
  return text;
}

std::array<BYTE, 4> WQ400DeviceInfo::GetFunctionalPayloadVersion() const {
  WQ_SCOPE();
  std::array<BYTE, 4> version;
  std::memcpy(version.data(), table.data() + kFunctionalPayloadVersionOffset, version.size());
  return version;
}

void WQ400DeviceInfo::TraceDeviceInfo() const {
  WQ_SCOPE();
  if (!user_space_frameworks::trace::IsEnabled(user_space_frameworks::TraceLevel::Info)) return;
  for (const Field &field : kFields) {
    WQ_TRACE(Info, FieldText(field, table.data()));
  }
}

}  // namespace mft_core
