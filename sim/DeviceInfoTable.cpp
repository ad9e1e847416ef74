#include "sim/DeviceInfoTable.h"

#include <cstring>

namespace sim {

namespace {

template <typename T>
void Put(std::vector<BYTE> &table, size_t offset, T value) {
  std::memcpy(table.data() + offset, &value, sizeof(T));
}

template <size_t N>
void PutBytes(std::vector<BYTE> &table, size_t offset, const std::array<BYTE, N> &bytes) {
  std::memcpy(table.data() + offset, bytes.data(), N);
}

}  // namespace

std::vector<BYTE> DeviceInfoTable(const DeviceInfoConfig &config) {
  std::vector<BYTE> table(kDeviceInfoTableSize, 0);
  Put<uint16_t>(table, 0, static_cast<uint16_t>(kDeviceInfoTableSize));  // structure size
  table[2] = 3;                                                          // structure version
  table[3] = 0x0B;                                                       // product type
  table[4] = 0x05;                                                       // product id
  table[5] = config.advancedMode ? 1 : 0;
  Put<uint16_t>(table, 6, 0x0102);  // advanced mode version 1.2
  PutBytes(table, 12, config.functionalPayloadVersion);
  Put<uint16_t>(table, 16, 0x0104);  // eye-safety payload 1.4
  Put<uint16_t>(table, 20, 0x0201);  // firmware-update payload 2.1
  table[24] = 1;                     // flash read-only version
  table[25] = 1;                     // flash locked
  table[26] = 4;                     // flash read-write version
  Put<uint32_t>(table, 28, 0x00000013);  // strap state
  Put<uint32_t>(table, 32, 0);           // OEM id
  Put<uint32_t>(table, 36, 0);           // OEM version
  Put<uint16_t>(table, 40, 0x0002);      // MIPI config
  Put<uint32_t>(table, 44, 0x000003E8);  // MIPI frequencies
  PutBytes(table, 48, config.opticModuleSerial);
  table[56] = 2;
  Put<uint32_t>(table, 60, 0x00C1A2B3);
  PutBytes(table, 64, config.asicModuleSerial);
  const std::array<BYTE, 12> chipId{{0x4a, 0x53, 0x31, 0x30, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}};
  PutBytes(table, 72, chipId);
  Put<uint32_t>(table, 84, 0x00D4E5F6);
  Put<uint16_t>(table, 88, config.leftSensorId);
  table[90] = 3;
  Put<uint16_t>(table, 100, config.rightSensorId);
  table[102] = 3;
  Put<uint16_t>(table, 112, config.fisheyeSensorId);
  table[114] = 1;
  table[124] = 0x1E;  // accelerometer chip
  table[125] = 0x0F;  // gyroscope chip
  Put<uint32_t>(table, 126, 0x00000000);
  Put<uint16_t>(table, 136, 0x0000);  // no RGB module
  table[154] = 1;                     // WinUSB support
  table[158] = 2;                     // hardware type
  table[162] = 1;                     // SKU component
  table[166] = 1;                     // depth camera
  table[170] = 1;                     // depth active mode
  table[174] = 0;                     // without RGB
  table[178] = 1;                     // with IMU
  table[182] = 1;                     // projector type
  // EEPROM and calibration sub-table versions, 2 bytes each from offset 186 to 211.
  for (size_t offset = 186; offset < 212; offset += 2) Put<uint16_t>(table, offset, 0x0101);
  Put<uint32_t>(table, 212, 0x01020304);  // motion module firmware 1.2.3.4
  const std::array<BYTE, 8> motionSerial{{0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00}};
  PutBytes(table, 216, motionSerial);
  Put<uint32_t>(table, 224, 0x00000102);
  table[228] = config.eepromLocked ? 1 : 0;
  return table;
}

}  // namespace sim
