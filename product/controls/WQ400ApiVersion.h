// Reports the version of the product's private KS interface (read-only).
#pragma once

#include "mft_core/ks/KsControlHandlers.h"

namespace mft_core {

class WQ400ApiVersion : public KsPropHandler {
 public:
  static constexpr ULONG kMajor = 2;
  static constexpr ULONG kMinor = 3;

  WQ400ApiVersion();
  HRESULT Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
              ULONG *pBytesReturned) override;
};

}  // namespace mft_core
