// The camera's 230-byte device-information table, read once with firmware command 0x10. A camera that
// cannot report it does not fail initialisation: only IsValid tells.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "mft_core/ks/FirmwareCommandPipe.h"
#include "mft_core/transform/DeviceInfo.h"

namespace mft_core {

class WQ400DeviceInfo : public DeviceInfo {
 public:
  static constexpr uint32_t kOpcodeGetDeviceInfo = 0x10;
  static constexpr size_t kTableSize = 230;
  static constexpr size_t kFunctionalPayloadVersionOffset = 12;

  WQ400DeviceInfo(std::shared_ptr<IFirmwareCommandPipe> firmwareCommandPipe, const std::string &displayName);
  ~WQ400DeviceInfo() override;

  const char *GetTraceName() const override { return name.c_str(); }

  // Reads the table; returns S_OK whether or not the camera answered.
  HRESULT Init();
  void TraceDeviceInfo() const override;

  bool IsValid() const { return valid != 0; }
  // A version's bytes as the camera stores them (little-endian) in text, most significant part first.
  // Every version of the camera and of its firmware image is printed this way.
  static std::string VersionText(const BYTE *bytes, size_t width);
  // Table bytes 12 to 15, in the camera's byte order.
  std::array<BYTE, 4> GetFunctionalPayloadVersion() const;
  const std::array<BYTE, kTableSize> &GetTable() const { return table; }

 private:
  std::shared_ptr<IFirmwareCommandPipe> firmwareCommandPipe;
  std::string name;
  std::array<BYTE, kTableSize> table{};
  BYTE valid = 0;
};

}  // namespace mft_core
