#include "mft_core/recorder/MfValues.h"

#include <algorithm>
#include <cstring>

#include "device_events/AttributeStore.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

namespace {

using device_events::RecordEncoder;
using device_events::ValueTag;

constexpr DWORD kMaxRecordedIds = 64;
constexpr UINT32 kBlobRoom = 512;
constexpr uint8_t kEmptyStore[8] = {0x41, 0x46, 0x4D, 0x49, 0, 0, 0, 0};

void EncodeBufferBytes(RecordEncoder &record, IMFMediaBuffer *buffer) {
  BYTE *data = nullptr;
  DWORD length = 0;
  if (buffer == nullptr || FAILED(buffer->Lock(&data, nullptr, &length))) {
    record.Null();
    return;
  }
  record.Bytes(data, length);
  buffer->Unlock();
}

}  // namespace

device_events::Guid ToRecorded(const GUID &guid) {
  device_events::Guid recorded;
  static_assert(sizeof(recorded) == sizeof(guid), "GUID layout");
  std::memcpy(static_cast<void *>(&recorded), &guid, sizeof(guid));
  return recorded;
}

GUID FromRecorded(const device_events::Guid &recorded) {
  GUID guid;
  std::memcpy(&guid, &recorded, sizeof(guid));
  return guid;
}

std::string Utf8(const wchar_t *text) {
  if (text == nullptr) return {};
  return device_events::Utf16ToUtf8(reinterpret_cast<const uint8_t *>(text), wcslen(text) * sizeof(wchar_t));
}

bool AppendAttributeStore(IMFAttributes *attributes, std::vector<uint8_t> &out) {
  // The platform's own serialiser measures the store, then copies every value out through a variant
  // (an allocation per string and blob) before laying it out; reading each value straight into place
  // costs a third as much on the frame path. The layout is the platform's; the value bytes follow the
  // items' order (a store of one value comes out byte for byte as the platform writes it).
  const size_t start = out.size();
  UINT32 count = 0;
  // Most stores on the frame path are empty (a camera's sample, its capture metadata): no lock for them.
  if (FAILED(attributes->GetCount(&count))) return false;
  if (count == 0) {
    const uint32_t head[2] = {device_events::kAttributeStoreTag, 0};
    out.resize(start + sizeof(head));
    std::memcpy(out.data() + start, head, sizeof(head));
    return true;
  }
  if (FAILED(attributes->LockStore())) return false;
  bool complete = SUCCEEDED(attributes->GetCount(&count));
  uint32_t written = 0;
  size_t values = start + 8 + size_t{count} * device_events::kAttributeItemSize;
  if (complete) out.resize(values);
  for (UINT32 index = 0; complete && index < count; ++index) {
    GUID key;
    MF_ATTRIBUTE_TYPE type = MF_ATTRIBUTE_UINT32;
    complete = SUCCEEDED(attributes->GetItemByIndex(index, &key, nullptr)) &&
               SUCCEEDED(attributes->GetItemType(key, &type));
    if (!complete || type == MF_ATTRIBUTE_IUNKNOWN) continue;  // objects are not stored
    uint8_t item[device_events::kAttributeItemSize] = {};
    std::memcpy(item, &key, sizeof(key));
    const uint32_t typeValue = type;
    std::memcpy(item + 16, &typeValue, sizeof(typeValue));
    UINT32 size = 0;
    switch (type) {
      case MF_ATTRIBUTE_UINT32: {
        UINT32 number = 0;
        complete = SUCCEEDED(attributes->GetUINT32(key, &number));
        std::memcpy(item + 24, &number, sizeof(number));
        break;
      }
      case MF_ATTRIBUTE_UINT64: {
        UINT64 number = 0;
        complete = SUCCEEDED(attributes->GetUINT64(key, &number));
        std::memcpy(item + 24, &number, sizeof(number));
        break;
      }
      case MF_ATTRIBUTE_DOUBLE: {
        double number = 0;
        complete = SUCCEEDED(attributes->GetDouble(key, &number));
        std::memcpy(item + 24, &number, sizeof(number));
        break;
      }
      case MF_ATTRIBUTE_GUID: {
        GUID guid;
        size = sizeof(guid);
        complete = SUCCEEDED(attributes->GetGUID(key, &guid));
        out.resize(values + size);
        std::memcpy(out.data() + values, &guid, size);
        break;
      }
      case MF_ATTRIBUTE_STRING: {
        UINT32 length = 0;
        complete = SUCCEEDED(attributes->GetStringLength(key, &length));
        size = (length + 1) * sizeof(wchar_t);
        out.resize(values + size);
        complete = complete && SUCCEEDED(attributes->GetString(key, reinterpret_cast<wchar_t *>(out.data() + values),
                                                               length + 1, nullptr));
        break;
      }
      case MF_ATTRIBUTE_BLOB:
        // The metadata blobs are small: read straight into room left for them, measured first only
        // when one does not fit.
        out.resize(values + kBlobRoom);
        if (SUCCEEDED(attributes->GetBlob(key, out.data() + values, kBlobRoom, &size))) break;
        complete = SUCCEEDED(attributes->GetBlobSize(key, &size));
        out.resize(values + size);
        complete = complete && (size == 0 || SUCCEEDED(attributes->GetBlob(key, out.data() + values, size, nullptr)));
        break;
      default:
        complete = false;
        break;
    }
    if (type == MF_ATTRIBUTE_GUID || type == MF_ATTRIBUTE_STRING || type == MF_ATTRIBUTE_BLOB) {
      const uint32_t offset = static_cast<uint32_t>(values - start);
      std::memcpy(item + 24, &size, sizeof(size));
      std::memcpy(item + 28, &offset, sizeof(offset));
      values += size;
    }
    std::memcpy(out.data() + start + 8 + size_t{written} * device_events::kAttributeItemSize, item, sizeof(item));
    ++written;
  }
  attributes->UnlockStore();
  if (!complete) {
    out.resize(start);
    return false;
  }
  // Items of skipped objects leave room at the end of the item table: close it up.
  const size_t table = 8 + size_t{written} * device_events::kAttributeItemSize;
  const size_t unused = size_t{count - written} * device_events::kAttributeItemSize;
  if (unused != 0) {
    uint8_t *base = out.data() + start;
    std::memmove(base + table, base + table + unused, values - start - table - unused);
    for (uint32_t i = 0; i < written; ++i) {
      uint8_t *item = base + 8 + size_t{i} * device_events::kAttributeItemSize;
      uint32_t type = 0, offset = 0;
      std::memcpy(&type, item + 16, sizeof(type));
      if (type != MF_ATTRIBUTE_GUID && type != MF_ATTRIBUTE_STRING && type != MF_ATTRIBUTE_BLOB) continue;
      std::memcpy(&offset, item + 28, sizeof(offset));
      offset -= static_cast<uint32_t>(unused);
      std::memcpy(item + 28, &offset, sizeof(offset));
    }
    values -= unused;
  }
  out.resize(values);
  const uint32_t head[2] = {device_events::kAttributeStoreTag, written};
  std::memcpy(out.data() + start, head, sizeof(head));
  return true;
}

void EncodeAttributes(RecordEncoder &record, IMFAttributes *attributes, ValueTag tag) {
  const size_t blob = record.BeginBlob(tag);
  std::vector<uint8_t> &out = record.Buffer();
  const size_t start = out.size();
  bool written = attributes != nullptr && AppendAttributeStore(attributes, out);
  if (!written && attributes != nullptr) {
    // A store of another make may refuse a part of that; the platform's serialiser then decides.
    UINT32 size = 0;
    if (SUCCEEDED(MFGetAttributesAsBlobSize(attributes, &size))) {
      out.resize(start + size);
      written = SUCCEEDED(MFGetAttributesAsBlob(attributes, out.data() + start, size));
    }
  }
  if (!written) {
    out.resize(start);
    record.Raw(kEmptyStore, sizeof(kEmptyStore));
  }
  record.EndBlob(blob);
}

void EncodeSample(RecordEncoder &record, IMFSample *sample, bool pixelData) {
  const size_t blob = record.BeginBlob(ValueTag::Sample);
  LONGLONG time = 0, duration = 0;
  uint32_t present = 0;
  if (SUCCEEDED(sample->GetSampleTime(&time))) present |= device_events::kSampleHasTime;
  if (SUCCEEDED(sample->GetSampleDuration(&duration))) present |= device_events::kSampleHasDuration;
  DWORD flags = 0, totalLength = 0, bufferCount = 0;
  sample->GetSampleFlags(&flags);
  sample->GetTotalLength(&totalLength);
  sample->GetBufferCount(&bufferCount);
  record.RawScalar<int64_t>(time);
  record.RawScalar<int64_t>(duration);
  record.RawScalar<uint32_t>(present);
  record.RawScalar<uint32_t>(flags);
  record.RawScalar<uint32_t>(totalLength);
  record.RawScalar<uint32_t>(bufferCount);
  EncodeAttributes(record, sample, ValueTag::Attributes);

  // The capture metadata is an attribute store of its own, held as an object, with the camera's
  // raw metadata stream in a buffer inside it: neither survives the sample's own layout.
  ComPtr<IMFAttributes> captureMetadata;
  if (SUCCEEDED(sample->GetUnknown(MFSampleExtension_CaptureMetadata, IID_PPV_ARGS(&captureMetadata)))) {
    EncodeAttributes(record, captureMetadata.Get(), ValueTag::Attributes);
    ComPtr<IMFMediaBuffer> rawStream;
    if (SUCCEEDED(captureMetadata->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, IID_PPV_ARGS(&rawStream)))) {
      EncodeBufferBytes(record, rawStream.Get());
    } else {
      record.Null();
    }
  } else {
    record.Null();
    record.Null();
  }
  if (pixelData) {
    ComPtr<IMFMediaBuffer> buffer;
    if (bufferCount == 1 && SUCCEEDED(sample->GetBufferByIndex(0, &buffer))) {
      EncodeBufferBytes(record, buffer.Get());
    } else if (bufferCount > 1 && SUCCEEDED(sample->ConvertToContiguousBuffer(&buffer))) {
      EncodeBufferBytes(record, buffer.Get());
    } else {
      record.Null();
    }
  } else {
    record.Null();
  }
  record.EndBlob(blob);
}

void EncodePropVariant(RecordEncoder &record, const PROPVARIANT *value) {
  if (value == nullptr) {
    record.Null();
    return;
  }
  switch (value->vt) {
    case VT_UI4: record.U32(value->ulVal); return;
    case VT_UI8: record.U64(value->uhVal.QuadPart); return;
    case VT_I8: record.I64(value->hVal.QuadPart); return;
    case VT_CLSID:
      if (value->puuid != nullptr) {
        record.GuidValue(ToRecorded(*value->puuid));
        return;
      }
      break;
    case VT_LPWSTR: record.String(Utf8(value->pwszVal)); return;
    case VT_UNKNOWN: {
      ComPtr<IMFMediaType> mediaType;
      if (value->punkVal != nullptr && SUCCEEDED(value->punkVal->QueryInterface(IID_PPV_ARGS(&mediaType)))) {
        EncodeAttributes(record, mediaType.Get(), ValueTag::MediaType);
        return;
      }
      break;
    }
    default: break;
  }
  record.Null();
}

void EncodeArgument(RecordEncoder &record, const RecordedValue &value, bool pixelData) {
  using Kind = RecordedValue::Kind;
  switch (value.kind) {
    case Kind::U32: record.U32(static_cast<uint32_t>(value.number)); return;
    case Kind::U64: record.U64(value.number); return;
    case Kind::Text: {
      // An empty text stands for "no arguments".
      const char *text = static_cast<const char *>(value.pointer);
      if (text != nullptr && text[0] != 0) record.String(text);
      return;
    }
    case Kind::Attributes:
    case Kind::MediaType:
      if (value.pointer == nullptr) {
        record.Null();
      } else {
        auto *attributes = value.kind == Kind::MediaType
                               ? static_cast<IMFAttributes *>(static_cast<IMFMediaType *>(const_cast<void *>(value.pointer)))
                               : static_cast<IMFAttributes *>(const_cast<void *>(value.pointer));
        EncodeAttributes(record, attributes, value.kind == Kind::MediaType ? ValueTag::MediaType : ValueTag::Attributes);
      }
      return;
    case Kind::Sample:
      if (value.pointer == nullptr) {
        record.Null();
      } else {
        EncodeSample(record, static_cast<IMFSample *>(const_cast<void *>(value.pointer)), pixelData);
      }
      return;
    case Kind::MediaEvent: {
      auto *event = static_cast<IMFMediaEvent *>(const_cast<void *>(value.pointer));
      MediaEventType type = MEUnknown;
      if (event == nullptr || FAILED(event->GetType(&type))) {
        record.Null();
      } else {
        record.U32(type);
      }
      return;
    }
    case Kind::OutU32:
    case Kind::OutMediaType:
    case Kind::OutAttributes:
      if (value.pointer == nullptr) {
        record.Null();
      } else {
        record.U32(1);
      }
      return;
    case Kind::StreamIds:
      if (value.pointer == nullptr) {
        record.Null();
      } else {
        record.U32(static_cast<uint32_t>(value.number));
      }
      return;
    case Kind::OutputBuffers: {
      const auto *buffers = static_cast<const MFT_OUTPUT_DATA_BUFFER *>(value.pointer);
      record.U32(static_cast<uint32_t>(value.number));
      if (buffers == nullptr) {
        if (value.number != 0) record.Null();
        return;
      }
      for (uint64_t i = 0; i < value.number; ++i) record.U32(buffers[i].dwStreamID);
      return;
    }
  }
}

void EncodeOutput(RecordEncoder &record, const RecordedValue &value, HRESULT result, bool pixelData) {
  using Kind = RecordedValue::Kind;
  const bool filled = SUCCEEDED(result) && value.pointer != nullptr;
  switch (value.kind) {
    case Kind::OutU32:
      if (filled) {
        record.U32(*static_cast<const uint32_t *>(value.pointer));
      } else {
        record.Null();
      }
      return;
    case Kind::OutMediaType:
    case Kind::OutAttributes: {
      IUnknown *object = filled ? *static_cast<IUnknown *const *>(value.pointer) : nullptr;
      if (object == nullptr) {
        record.Null();
      } else if (value.kind == Kind::OutMediaType) {
        EncodeAttributes(record, *static_cast<IMFMediaType *const *>(value.pointer), ValueTag::MediaType);
      } else {
        EncodeAttributes(record, *static_cast<IMFAttributes *const *>(value.pointer), ValueTag::Attributes);
      }
      return;
    }
    case Kind::StreamIds:
      if (filled) {
        const DWORD count = static_cast<DWORD>(std::min<uint64_t>(value.number, kMaxRecordedIds));
        record.Bytes(value.pointer, count * sizeof(DWORD));
      } else {
        record.Null();
      }
      return;
    case Kind::OutputBuffers: {
      // Every buffer, whether or not the call succeeded: a stream may deliver while the call fails.
      const auto *buffers = static_cast<const MFT_OUTPUT_DATA_BUFFER *>(value.pointer);
      if (buffers == nullptr) return;
      for (uint64_t i = 0; i < value.number; ++i) {
        record.U32(buffers[i].dwStreamID);
        record.U32(buffers[i].dwStatus);
        if (buffers[i].pSample != nullptr) {
          EncodeSample(record, buffers[i].pSample, pixelData);
        } else {
          record.Null();
        }
      }
      return;
    }
    default:
      // Inputs were recorded on entry.
      return;
  }
}

HRESULT DecodeAttributes(const device_events::Value &value, IMFAttributes **attributes) {
  RETURN_IF_NULL(attributes);
  ComPtr<IMFAttributes> result;
  RETURN_IF_FAILED(MFCreateAttributes(&result, 8));
  if (!value.bytes.empty()) {
    RETURN_IF_FAILED(MFInitAttributesFromBlob(result.Get(), reinterpret_cast<const UINT8 *>(value.bytes.data()),
                                              static_cast<UINT>(value.bytes.size())));
  }
  *attributes = result.Detach();
  return S_OK;
}

HRESULT DecodeMediaType(const device_events::Value &value, IMFMediaType **mediaType) {
  RETURN_IF_NULL(mediaType);
  ComPtr<IMFMediaType> result;
  RETURN_IF_FAILED(MFCreateMediaType(&result));
  if (!value.bytes.empty()) {
    RETURN_IF_FAILED(MFInitAttributesFromBlob(result.Get(), reinterpret_cast<const UINT8 *>(value.bytes.data()),
                                              static_cast<UINT>(value.bytes.size())));
  }
  *mediaType = result.Detach();
  return S_OK;
}

HRESULT DecodeSample(const device_events::SampleValue &value, IMFSample **sample) {
  RETURN_IF_NULL(sample);
  ComPtr<IMFSample> result;
  RETURN_IF_FAILED(MFCreateSample(&result));
  if (!value.attributes.bytes.empty()) {
    RETURN_IF_FAILED(MFInitAttributesFromBlob(result.Get(),
                                              reinterpret_cast<const UINT8 *>(value.attributes.bytes.data()),
                                              static_cast<UINT>(value.attributes.bytes.size())));
  }
  if (value.present & device_events::kSampleHasTime) RETURN_IF_FAILED(result->SetSampleTime(value.time));
  if (value.present & device_events::kSampleHasDuration) RETURN_IF_FAILED(result->SetSampleDuration(value.duration));
  RETURN_IF_FAILED(result->SetSampleFlags(value.flags));
  if (value.bufferCount > 0) {
    ComPtr<IMFMediaBuffer> buffer;
    RETURN_IF_FAILED(MFCreateMemoryBuffer(value.totalLength, &buffer));
    BYTE *data = nullptr;
    RETURN_IF_FAILED(buffer->Lock(&data, nullptr, nullptr));
    const size_t pixels = value.pixels.IsNull() ? 0 : std::min<size_t>(value.pixels.bytes.size(), value.totalLength);
    std::memcpy(data, value.pixels.bytes.data(), pixels);
    std::memset(data + pixels, 0, value.totalLength - pixels);
    buffer->Unlock();
    RETURN_IF_FAILED(buffer->SetCurrentLength(value.totalLength));
    RETURN_IF_FAILED(result->AddBuffer(buffer.Get()));
  }
  if (!value.captureMetadata.IsNull()) {
    ComPtr<IMFAttributes> captureMetadata;
    RETURN_IF_FAILED(DecodeAttributes(value.captureMetadata, &captureMetadata));
    if (!value.rawMetadata.IsNull()) {
      const DWORD length = static_cast<DWORD>(value.rawMetadata.bytes.size());
      ComPtr<IMFMediaBuffer> rawStream;
      RETURN_IF_FAILED(MFCreateMemoryBuffer(length, &rawStream));
      BYTE *data = nullptr;
      RETURN_IF_FAILED(rawStream->Lock(&data, nullptr, nullptr));
      std::memcpy(data, value.rawMetadata.bytes.data(), length);
      rawStream->Unlock();
      RETURN_IF_FAILED(rawStream->SetCurrentLength(length));
      RETURN_IF_FAILED(captureMetadata->SetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, rawStream.Get()));
    }
    RETURN_IF_FAILED(result->SetUnknown(MFSampleExtension_CaptureMetadata, captureMetadata.Get()));
  }
  *sample = result.Detach();
  return S_OK;
}

std::string CompareAttributeBlobs(const std::string &recorded, const std::string &now) {
  using device_events::Attribute;
  using device_events::AttributeType;
  std::vector<Attribute> before, after;
  device_events::ReadError error;
  if (!device_events::DecodeAttributeStore(recorded, 0, before, error)) return "recorded store: " + error.message;
  if (!device_events::DecodeAttributeStore(now, 0, after, error)) return "store now: " + error.message;
  // GUIDs, strings and blobs hold where their bytes lie in `number`, which depends on the layout only.
  auto same = [](const Attribute &a, const Attribute &b) {
    const bool scalar = a.type == AttributeType::UInt32 || a.type == AttributeType::UInt64 ||
                        a.type == AttributeType::Double;
    return a.type == b.type && (!scalar || a.number == b.number) && a.guid == b.guid && a.text == b.text &&
           a.bytes == b.bytes;
  };
  std::string differences;
  auto note = [&](const std::string &text) {
    if (!differences.empty()) differences += "; ";
    differences += text;
  };
  for (const Attribute &a : before) {
    const Attribute *b = device_events::FindAttribute(after, a.key);
    if (b == nullptr) {
      note(device_events::GuidText(a.key) + " missing now");
    } else if (!same(a, *b)) {
      note(device_events::GuidText(a.key) + " differs");
    }
  }
  for (const Attribute &b : after) {
    if (device_events::FindAttribute(before, b.key) == nullptr) note(device_events::GuidText(b.key) + " new");
  }
  return differences;
}

}  // namespace mft_core
