// The per-product metadata parsers: an ordered list of converters run on every captured sample.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mft_core/streams/IMetadataParser.h"
#include "product/metadata/MetadataToAttribute.h"

namespace mft_core {

using MetadataConverterList = std::vector<std::shared_ptr<IMetadataToAttribute>>;

// Runs its converters in order; a converter that fails does not stop the ones after it.
class WQ400MetadataParser : public IMetadataParser {
 public:
  // Named "<transformName> Metadata Parser".
  explicit WQ400MetadataParser(const std::string &transformName);

  // Always S_OK: a sample with missing or malformed metadata goes on without those attributes.
  HRESULT Parse(IMFSample *sample) override;
  const MetadataConverterList &GetConverters() const { return converters; }

 protected:
  MetadataConverterList converters;
};

// Intrinsics, extrinsics, capture timing, statistics, configuration, depth control, hardware timestamp.
class WQ400DepthMetadataParser : public WQ400MetadataParser {
 public:
  explicit WQ400DepthMetadataParser(const std::string &transformName);
};

// Intrinsics, fisheye extrinsics, capture timing, fisheye control, configuration, hardware timestamp.
class WQ400FisheyeMetadataParser : public WQ400MetadataParser {
 public:
  explicit WQ400FisheyeMetadataParser(const std::string &transformName);
};

// Intrinsics, extrinsics, capture timing, configuration, color control, hardware timestamp.
class WQ400ColorMetadataParser : public WQ400MetadataParser {
 public:
  explicit WQ400ColorMetadataParser(const std::string &transformName);
};

}  // namespace mft_core
