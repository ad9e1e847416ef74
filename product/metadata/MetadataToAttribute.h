// Converters from one kind of camera metadata record to one blob attribute on the sample.
#pragma once

#include <cstring>
#include <string>

#include "platform/WindowsSdk.h"
#include "product/metadata/UvcMetaDataWrapper.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

class IMetadataToAttribute : public user_space_frameworks::Object {
 public:
  explicit IMetadataToAttribute(std::string name) : name(std::move(name)) {}
  const char *GetTraceName() const override { return name.c_str(); }
  const std::string &GetName() const { return name; }

  // Copies this converter's record from the sample's metadata onto the sample. Failures are traced,
  // never returned: one converter's failure must not keep the others from running.
  virtual void Process(Microsoft::WRL::ComPtr<IMFSample> sample);
  // Opens the sample's metadata and extracts from it.
  virtual void ExtractDataToAttribute(IMFSample *sample);

  // The parser's per-frame path: the frame's metadata is opened (fetched and locked) once and shared by
  // every converter; a wrapper whose Init failed finds nothing.
  virtual void ProcessFrame(IMFSample *sample, const UvcMetaDataWrapper &metadata);
  virtual void ExtractFromMetadata(IMFSample *sample, const UvcMetaDataWrapper &metadata) = 0;

 private:
  std::string name;
};

// The name traces give MetadataToAttribute<T>::Process, one per record type.
template <typename T>
struct MetadataRecordTypeName;
#define WQ_METADATA_RECORD_TYPE_NAME(T)                              \
  template <>                                                        \
  struct MetadataRecordTypeName<T> {                                 \
    static constexpr const char *processFunction =                   \
        "mft_core::MetadataToAttribute<struct " #T ">::Process";     \
  }
WQ_METADATA_RECORD_TYPE_NAME(_MFPinholeCameraIntrinsics);
WQ_METADATA_RECORD_TYPE_NAME(_MFCameraExtrinsics);
WQ_METADATA_RECORD_TYPE_NAME(STMFCameraFishEyeExtrinsics);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixDepthControl);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixCaptureTiming);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixConfiguration);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixStat);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixFishEyeControl);
WQ_METADATA_RECORD_TYPE_NAME(VeldaraWQ400MetaDataTavixColorControl);
#undef WQ_METADATA_RECORD_TYPE_NAME

// Stores the item `metadataId` whose payload is exactly sizeof(T) as the blob `attributeId`. With
// keepLast, a frame without the item gets the last record seen again (records that change only with
// calibration, such as intrinsics).
template <typename T>
class MetadataToAttribute : public IMetadataToAttribute {
 public:
  MetadataToAttribute(std::string name, const GUID &attributeId, uint32_t metadataId, bool keepLast)
      : IMetadataToAttribute(std::move(name)), attributeId(attributeId), metadataId(metadataId),
        keepLast(keepLast) {}

  void Process(Microsoft::WRL::ComPtr<IMFSample> sample) override {
    WQ_SCOPE_AS(MetadataRecordTypeName<T>::processFunction);
    ExtractDataToAttribute(sample.Get());
  }

  void ProcessFrame(IMFSample *sample, const UvcMetaDataWrapper &metadata) override {
    WQ_SCOPE_AS(MetadataRecordTypeName<T>::processFunction);
    ExtractFromMetadata(sample, metadata);
  }

  void ExtractFromMetadata(IMFSample *sample, const UvcMetaDataWrapper &metadata) override {
    (void)AttachRecord(sample, metadata);
  }

  const GUID &GetAttributeId() const { return attributeId; }
  uint32_t GetMetadataId() const { return metadataId; }
  bool KeepsLast() const { return keepLast; }

 protected:
  // The work of ExtractFromMetadata. Answers the frame's own record when it went onto the sample (the
  // bytes of the blob the sample now carries), null otherwise.
  const uint8_t *AttachRecord(IMFSample *sample, const UvcMetaDataWrapper &metadata) {
    if (sample == nullptr) return nullptr;
    constexpr UINT32 size = static_cast<UINT32>(sizeof(T));
    const MetadataItemView item = metadata.GetMetadataItem(metadataId, size, size);
    if (item) {
      const void *data = item.data;
      const HRESULT hr = LOG_IF_FAILED(sample->SetBlob(attributeId, reinterpret_cast<const UINT8 *>(data), size));
      if (keepLast) {
        std::memcpy(&lastData, data, size);
        hasLastData = true;
      }
      return SUCCEEDED(hr) ? item.data : nullptr;
    }
    if (keepLast && hasLastData) {
      LOG_IF_FAILED(sample->SetBlob(attributeId, reinterpret_cast<const UINT8 *>(&lastData), size));
    }
    return nullptr;
  }

  bool hasLastData = false;
  T lastData{};
  const GUID attributeId;
  const uint32_t metadataId;
  const bool keepLast;
};

}  // namespace mft_core
