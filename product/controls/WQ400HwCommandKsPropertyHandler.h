// Passes an application's raw firmware command (opcode and four parameters in the property identifier,
// data in the data buffer) through the firmware command pipe, and the reply back on GET.
#pragma once

#include <memory>

#include "mft_core/ks/FirmwareCommandPipe.h"
#include "mft_core/ks/KsControlHandlers.h"

namespace mft_core {

class WQ400HwCommandKsPropertyHandler : public KsPropHandler {
 public:
  explicit WQ400HwCommandKsPropertyHandler(std::shared_ptr<IFirmwareCommandPipe> fwCommandPipe);
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;

 private:
  std::shared_ptr<IFirmwareCommandPipe> fwCommandPipe;
};

}  // namespace mft_core
