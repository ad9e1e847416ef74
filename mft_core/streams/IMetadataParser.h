// Copies a captured frame's camera metadata onto its sample as attributes; attached to an input stream.
#pragma once

#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

class IMetadataParser : public virtual user_space_frameworks::Object {
 public:
  explicit IMetadataParser(std::string name) : name(std::move(name)) {}
  ~IMetadataParser() override = default;

  virtual HRESULT Parse(IMFSample *sample) = 0;

  const std::string &GetName() const { return name; }
  const char *GetTraceName() const override { return name.c_str(); }

 private:
  std::string name;
};

}  // namespace mft_core
