// At start-up the depth transform compares the camera's firmware with the image installed with the
// driver and, when they differ, asks the camera to restart into its firmware-update mode, where the
// update service takes it over. Nothing here ever fails the transform: every refusal is traced.
#pragma once

#include <array>
#include <string>

#include "mft_core/ks/FirmwareCommandPipe.h"

namespace mft_core {

class WQ400FirmwareCheck {
 public:
  using Version = std::array<BYTE, 4>;

  static constexpr uint32_t kEnterUpdateModeOpcode = 0x1E;
  static constexpr long kImageVersionOffset = 398;
  static const wchar_t *const kServiceKey;      // under HKEY_LOCAL_MACHINE
  static const wchar_t *const kAutoModeValue;
  static const wchar_t *const kImagePath;       // under the Windows directory

  // Runs the whole check against the camera's functional payload version.
  static void Run(IFirmwareCommandPipe &pipe, const Version &deviceVersion);

  // Unless the update service's "DFUAutoMode" reads exactly "Auto", updates are off; a service
  // without the key or the value keeps the default, which is on.
  static bool IsAutoUpdateEnabled();
  // The installed image's version bytes; false when the image is missing or too short.
  static bool ReadInstalledVersion(Version &version);
};

}  // namespace mft_core
