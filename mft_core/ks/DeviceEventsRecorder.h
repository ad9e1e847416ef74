// Optional recording of device-transform calls, KS requests, driver events and queued media events.
// Only a transform whose recording was switched on holds a recorder, so a call pays one pointer test
// while recording is off; nothing is formatted or copied until the recorder encodes a record.
#pragma once

#include <cstddef>
#include <cstdint>

#include <memory>

#include "mft_core/ks/KsControlsObserver.h"
#include "platform/WindowsSdk.h"

namespace mft_core {

// One argument of a recorded call, typed and borrowed: the recorder serialises what it points to.
// Pointers handed in for the transform to fill (out-arguments) are recorded as present or empty on
// entry and with what they received on return.
struct RecordedValue {
  enum class Kind : uint8_t {
    U32,
    U64,
    Text,
    Attributes,
    MediaType,
    Sample,
    MediaEvent,
    OutU32,         // DWORD*, DeviceStreamState*, MFSHUTDOWN_STATUS*
    OutMediaType,   // IMFMediaType**
    OutAttributes,  // IMFAttributes**
    StreamIds,      // an identifier array and its size
    OutputBuffers,  // ProcessOutput's buffers and their count
  };

  RecordedValue(unsigned long value) : kind(Kind::U32), number(value) {}
  RecordedValue(unsigned int value) : kind(Kind::U32), number(value) {}
  RecordedValue(int value) : kind(Kind::U32), number(static_cast<uint32_t>(value)) {}
  RecordedValue(unsigned long long value) : kind(Kind::U64), number(value) {}
  RecordedValue(const char *text) : kind(Kind::Text), pointer(text) {}
  RecordedValue(IMFAttributes *attributes) : kind(Kind::Attributes), pointer(attributes) {}
  RecordedValue(IMFMediaType *mediaType) : kind(Kind::MediaType), pointer(mediaType) {}
  RecordedValue(IMFSample *sample) : kind(Kind::Sample), pointer(sample) {}
  RecordedValue(IMFMediaEvent *event) : kind(Kind::MediaEvent), pointer(event) {}
  RecordedValue(DWORD *value) : kind(Kind::OutU32), pointer(value) {}
  RecordedValue(DeviceStreamState *value) : kind(Kind::OutU32), pointer(value) {}
  RecordedValue(MFSHUTDOWN_STATUS *value) : kind(Kind::OutU32), pointer(value) {}
  RecordedValue(IMFMediaType **value) : kind(Kind::OutMediaType), pointer(value) {}
  RecordedValue(IMFAttributes **value) : kind(Kind::OutAttributes), pointer(value) {}

  static RecordedValue StreamIds(DWORD size, DWORD *ids) { return RecordedValue(Kind::StreamIds, size, ids); }
  static RecordedValue OutputBuffers(DWORD count, MFT_OUTPUT_DATA_BUFFER *buffers) {
    return RecordedValue(Kind::OutputBuffers, count, buffers);
  }

  Kind kind;
  uint64_t number = 0;
  const void *pointer = nullptr;

 private:
  RecordedValue(Kind kind, uint64_t number, const void *pointer) : kind(kind), number(number), pointer(pointer) {}
};

class IDeviceEventsRecorder {
 public:
  virtual ~IDeviceEventsRecorder() = default;
  virtual bool IsRecording() const = 0;
  // Ends the recording: what is queued is written with the closing record; later records are not kept.
  virtual void Close() = 0;
  // A guarded call on entry, `function` being the caller's pretty function name, and on return with
  // its result (the same arguments, now holding what the call handed out).
  virtual void RecordCall(const char *function, const RecordedValue *arguments, size_t count) = 0;
  virtual void RecordReturn(const char *function, HRESULT result, const RecordedValue *arguments, size_t count) = 0;
  // A driver event the listener delivers.
  virtual void RecordDriverEvent(REFGUID eventSet, ULONG eventId) = 0;
  // A media event the transform queues for the frame server: ready-made, or from its parts.
  virtual void RecordMediaEvent(IMFMediaEvent *event) = 0;
  virtual void RecordMediaEvent(MediaEventType type, REFGUID extendedType, HRESULT status,
                                const PROPVARIANT *value) = 0;
  // Observers that record KS requests: those applications make (on the transform's dispatcher) and
  // those the transform makes to the driver (on its proxy), each with the answer.
  virtual std::shared_ptr<IKsControlsObserver> ApplicationRequestsObserver() = 0;
  virtual std::shared_ptr<IKsControlsObserver> DriverRequestsObserver() = 0;
};

}  // namespace mft_core
