#include "product/metadata/MetadataToAttribute.h"

#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

void IMetadataToAttribute::Process(Microsoft::WRL::ComPtr<IMFSample> sample) {
  WQ_SCOPE();
  ExtractDataToAttribute(sample.Get());
}

void IMetadataToAttribute::ExtractDataToAttribute(IMFSample *sample) {
  WQ_SCOPE();
  if (sample == nullptr) return;
  UvcMetaDataWrapper metadata;
  // A wrapper that did not open finds nothing: sticky records are still attached.
  (void)metadata.Init(sample);
  ExtractFromMetadata(sample, metadata);
}

void IMetadataToAttribute::ProcessFrame(IMFSample *sample, const UvcMetaDataWrapper &metadata) {
  WQ_SCOPE();
  ExtractFromMetadata(sample, metadata);
}

}  // namespace mft_core
