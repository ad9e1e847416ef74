// Media Foundation objects as recorded values, both ways: the recorder encodes attribute stores,
// media types, samples and event values; replay rebuilds them from what the reader decoded.
#pragma once

#include <string>
#include <vector>

#include "device_events/EventsEncoder.h"
#include "device_events/EventsReader.h"
#include "mft_core/ks/DeviceEventsRecorder.h"
#include "platform/WindowsSdk.h"

namespace mft_core {

device_events::Guid ToRecorded(const GUID &guid);
GUID FromRecorded(const device_events::Guid &guid);

// Appends `attributes` in the layout of MFGetAttributesAsBlob, read value by value under the store's
// lock; false (and nothing appended) when the store refuses a read.
bool AppendAttributeStore(IMFAttributes *attributes, std::vector<uint8_t> &out);
// An attribute store as the platform lays it out (MFGetAttributesAsBlob), under `tag`
// (Attributes or MediaType); an empty store when the platform cannot lay it out.
void EncodeAttributes(device_events::RecordEncoder &record, IMFAttributes *attributes, device_events::ValueTag tag);
// Time, duration, flags, lengths, attributes, capture metadata and its raw stream; pixel data only
// when `pixelData`.
void EncodeSample(device_events::RecordEncoder &record, IMFSample *sample, bool pixelData);
// A media event's value: Null, U32, U64, I64, GUID, string, or a media type.
void EncodePropVariant(device_events::RecordEncoder &record, const PROPVARIANT *value);
std::string Utf8(const wchar_t *text);
// A call's argument as recorded on entry, and what it holds on return (outputs only).
void EncodeArgument(device_events::RecordEncoder &record, const RecordedValue &value, bool pixelData);
void EncodeOutput(device_events::RecordEncoder &record, const RecordedValue &value, HRESULT result, bool pixelData);

HRESULT DecodeAttributes(const device_events::Value &value, IMFAttributes **attributes);
HRESULT DecodeMediaType(const device_events::Value &value, IMFMediaType **mediaType);
// A sample with the recorded time, duration, flags and attributes, its capture metadata, and one
// buffer of the recorded length (the recorded pixels, or zeros).
HRESULT DecodeSample(const device_events::SampleValue &value, IMFSample **sample);

// The attributes of two stores that differ, as text ("key: recorded 5, now 6"); empty when equal.
std::string CompareAttributeBlobs(const std::string &recorded, const std::string &now);

}  // namespace mft_core
