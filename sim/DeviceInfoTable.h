// The camera's device-information table, as its firmware answers the device-information command.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/WindowsSdk.h"

namespace sim {

constexpr uint32_t kFirmwareOpcodeDeviceInfo = 0x10;
constexpr size_t kDeviceInfoTableSize = 230;

// The fields a test or a session may want to vary; the rest of the table is a plausible camera's.
struct DeviceInfoConfig {
  std::array<BYTE, 4> functionalPayloadVersion{{100, 7, 12, 5}};  // 5.12.7.100, least significant first
  std::array<BYTE, 8> opticModuleSerial{{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}};
  std::array<BYTE, 8> asicModuleSerial{{0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe}};
  uint16_t leftSensorId = 0x0A11;
  uint16_t rightSensorId = 0x0A12;
  uint16_t fisheyeSensorId = 0x0F01;
  bool advancedMode = true;
  bool eepromLocked = false;
};

// 230 bytes, little-endian, reserved bytes zero.
std::vector<BYTE> DeviceInfoTable(const DeviceInfoConfig &config);

}  // namespace sim
