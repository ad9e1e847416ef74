#include "user_space_frameworks/MFAttributesParser.h"

#include <algorithm>

#include "user_space_frameworks/Check.h"

namespace user_space_frameworks {

HRESULT MFAttributesParser::CopyStore(IMFAttributes *dst, IMFAttributes *src, bool overwrite,
                                      const std::vector<GUID> &excludedKeys) {
  RETURN_IF_NULL(dst);
  if (src == nullptr) return S_OK;
  UINT32 count = 0;
  RETURN_IF_FAILED(src->GetCount(&count));
  for (UINT32 index = 0; index < count; ++index) {
    GUID key = GUID_NULL;
    PROPVARIANT value;
    PropVariantInit(&value);
    RETURN_IF_FAILED(src->GetItemByIndex(index, &key, &value));
    MF_ATTRIBUTE_TYPE existingType;
    const bool excluded = std::find(excludedKeys.begin(), excludedKeys.end(), key) != excludedKeys.end();
    const bool keep = !overwrite && SUCCEEDED(dst->GetItemType(key, &existingType));
    HRESULT hr = S_OK;
    if (!excluded && !keep) hr = dst->SetItem(key, value);
    PropVariantClear(&value);
    RETURN_IF_FAILED(hr);
  }
  return S_OK;
}

}  // namespace user_space_frameworks
