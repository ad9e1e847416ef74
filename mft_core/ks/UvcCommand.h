// One fixed property of an extension unit, read or written as a raw buffer.
#pragma once

#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

class UvcCommand : public user_space_frameworks::Object {
 public:
  UvcCommand(const Microsoft::WRL::ComPtr<IKsControl> &ksControl, const GUID &set, ULONG id, std::string name);

  HRESULT Get(void *buffer, size_t length, ULONG &bytesReturned);
  HRESULT Set(const void *buffer, size_t length);
  // Whole fixed-size buffers.
  template <typename Buffer>
  HRESULT Get(Buffer &buffer, ULONG &bytesReturned) {
    return Get(&buffer, sizeof(buffer), bytesReturned);
  }
  template <typename Buffer>
  HRESULT Set(const Buffer &buffer) {
    return Set(&buffer, sizeof(buffer));
  }

  const char *GetTraceName() const override { return name.c_str(); }

 private:
  std::string name;
  Microsoft::WRL::ComPtr<IKsControl> ksControl;
  GUID set;
  ULONG id;
};

}  // namespace mft_core
