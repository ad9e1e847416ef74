// Helpers over IMFAttributes stores.
#pragma once

#include <vector>

#include "platform/WindowsSdk.h"

namespace user_space_frameworks {

class MFAttributesParser {
 public:
  // Copies every item of `src` into `dst` except `excludedKeys`; an item already in `dst` is replaced
  // only when `overwrite` is true. A null `src` copies nothing.
  static HRESULT CopyStore(IMFAttributes *dst, IMFAttributes *src, bool overwrite,
                           const std::vector<GUID> &excludedKeys);
};

}  // namespace user_space_frameworks
