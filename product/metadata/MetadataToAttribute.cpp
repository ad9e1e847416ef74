#include "product/metadata/MetadataToAttribute.h"

namespace mft_core {

void IMetadataToAttribute::Process(Microsoft::WRL::ComPtr<IMFSample> sample) {
  const bool verbose = user_space_frameworks::trace::IsEnabled(user_space_frameworks::TraceLevel::Verbose);
  if (verbose) user_space_frameworks::trace::Write(user_space_frameworks::TraceLevel::Verbose, WQ_FUNCTION, "==>");
  ExtractDataToAttribute(sample.Get());
  if (verbose) user_space_frameworks::trace::Write(user_space_frameworks::TraceLevel::Verbose, WQ_FUNCTION, "<==");
}

}  // namespace mft_core
