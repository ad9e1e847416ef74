// The camera's own description of itself (model, versions, serial numbers), read once when the transform
// is initialised; the device transform keeps it so that other parts reach it through the framework.
#pragma once

#include "user_space_frameworks/Object.h"

namespace mft_core {

class DeviceInfo : public virtual user_space_frameworks::Object {
 public:
  ~DeviceInfo() override = default;
  // Writes every field to the trace, one line each.
  virtual void TraceDeviceInfo() const = 0;
};

}  // namespace mft_core
