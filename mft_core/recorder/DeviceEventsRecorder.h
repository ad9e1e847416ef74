// The device events recorder: encodes every recorded call, KS request, driver event and queued media
// event on the calling thread and hands the bytes to a background writer. Switched on per transform
// by the registry (HKLM "Software\Tavix\Veldara\WQ4XX", value "DeviceEventsRecording"), read when
// the transform is created.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "device_events/EventsEncoder.h"
#include "mft_core/ks/DeviceEventsRecorder.h"
#include "mft_core/recorder/EventsFileWriter.h"

namespace mft_core {

struct DeviceEventsRecorderSettings {
  bool enabled = false;
  bool flightRecorder = false;  // records kept in a ring in memory, written out on a trigger
  bool pixelData = false;  // samples with their pixels
  std::wstring path;       // the recording file
  EventsFileWriterOptions writer;

  static constexpr const wchar_t *kRegistryKey = L"Software\\Tavix\\Veldara\\WQ4XX";
  static constexpr const wchar_t *kEnabledValue = L"DeviceEventsRecording";  // DWORD, 1: everything, 2: ring
  static constexpr DWORD kFlightRecorderMode = 2;
  static constexpr const wchar_t *kRingMegabytesValue = L"DeviceEventsRingMegabytes";  // DWORD, default 32
  static constexpr const wchar_t *kDumpFilesValue = L"DeviceEventsDumpFiles";          // DWORD, default 8
  static constexpr const wchar_t *kPixelDataValue = L"DeviceEventsPixelData";      // DWORD, non-zero: pixels too
  static constexpr const wchar_t *kMaxMegabytesValue = L"DeviceEventsMaxMegabytes";  // DWORD, default 256
  static constexpr const wchar_t *kFileValue = L"DeviceEventsFile";                // string, default below
  static constexpr const wchar_t *kDefaultFile = L"c:\\VeldaraLogs\\events.bin";

  // HKEY_LOCAL_MACHINE values, with the defaults where one is missing.
  static DeviceEventsRecorderSettings FromRegistry();
  // Switches recording on for transforms created from now on (what a field engineer sets by hand),
  // and removes the values again.
  HRESULT StoreInRegistry() const;
  static void RemoveFromRegistry();
};

class DeviceEventsRecorder : public IDeviceEventsRecorder, public std::enable_shared_from_this<DeviceEventsRecorder> {
 public:
  // A recorder when the registry switches recording on and the file can be created, else empty.
  static std::shared_ptr<DeviceEventsRecorder> CreateIfEnabled(const GUID &transformClass, const std::string &name);
  static HRESULT Create(const DeviceEventsRecorderSettings &settings, const GUID &transformClass,
                        const std::string &name, std::shared_ptr<DeviceEventsRecorder> &recorder);
  ~DeviceEventsRecorder() override;

  void Close() override;
  const std::wstring &Path() const { return path; }
  EventsFileWriter &Writer() { return *writer; }

  bool IsRecording() const override;
  void RecordCall(const char *function, const RecordedValue *arguments, size_t count) override;
  void RecordReturn(const char *function, HRESULT result, const RecordedValue *arguments, size_t count) override;
  void RecordDriverEvent(REFGUID eventSet, ULONG eventId) override;
  void RecordMediaEvent(IMFMediaEvent *event) override;
  void RecordMediaEvent(MediaEventType type, REFGUID extendedType, HRESULT status, const PROPVARIANT *value) override;
  std::shared_ptr<IKsControlsObserver> ApplicationRequestsObserver() override { return applicationObserver; }
  std::shared_ptr<IKsControlsObserver> DriverRequestsObserver() override { return driverObserver; }

  // One KS request with the answer: `dataIn` holds the data as it was before the request.
  // `identifier` and `dataIn` as they were when the request was made (a request may use one buffer for
  // both, which the driver then overwrites); `data` as the request left it.
  void RecordKsRequest(device_events::RecordKind kind, KsControlType type, const std::vector<uint8_t> *identifier,
                       const std::vector<uint8_t> *dataIn, const void *data, ULONG dataLength,
                       const ULONG *bytesReturned, HRESULT result);

  // Flight recorder: asks for the ring to be written out (what an engineer's tool does through the
  // named event); nothing when recording everything.
  void Trigger(device_events::DumpTrigger why, const std::string &what) { writer->Trigger(why, what); }

  // Flight recorder: an application request that changes the camera's state runs on this thread, so
  // the driver requests it causes are kept aside with the set-up (see Finish).
  void ControlBegins();
  void ControlEnds();

 private:
  DeviceEventsRecorder(const DeviceEventsRecorderSettings &settings, std::wstring path, std::string name);
  // One record's making: its buffer, its time, and the time its caller spends on it.
  class RecordScope;
  // The driver filter as the transform finds it: its streams, their attributes and types, its nodes.
  void RecordFilter(IMFAttributes *filterAttributes);
  device_events::RecordEncoder Begin(RecordScope &scope, device_events::RecordKind kind, HRESULT result);
  // `setUp`: a flight recorder keeps the record aside from its ring too, for the replay of its files:
  // every record until the first frame comes in, then those of control calls (anything but the frame
  // path and the getters), state-changing application requests, the driver requests either makes,
  // media events other than have-output, and driver events.
  void Finish(device_events::RecordEncoder &record, bool setUp = false);
  bool SetUpCall(std::string_view name) const;
  bool OnControlThread();
  // A call or return record begun with the call's short name ("ProcessInput"), also handed back.
  device_events::RecordEncoder BeginCall(RecordScope &scope, device_events::RecordKind kind, HRESULT result,
                                         const char *function, std::string_view &name);

  // A flight recorder's dumps say what each output stream's last state request left.
  void NoteStreamState(const RecordedValue &stream, const RecordedValue &type, const RecordedValue &state);
  // A driver request the driver keeps refusing as not ready fails only after the proxy's last retry:
  // the not-ready answers in a row, per requesting thread.
  void CountNotReady(bool notReady);

  const uint64_t longRecordTicks;  // a millisecond
  const bool pixelData;
  // The writer's own flag lies beside its lock, which every record takes and releases: read here,
  // records on other threads would miss it in their caches each time.
  const bool flightRecorder;
  const std::string name;  // the transform's, for the account traced at close
  std::atomic<bool> closed{false};
  // A record is made in a slot of the recorder's, claimed without a lock: a recording thread mostly
  // finds the one it used last, so that the memory a record touches stays in its core's cache (a lock
  // and a free list shared by the recording threads cost more than the encoding). A flight recorder
  // encodes the record in the slot's buffer and copies it into its ring. The slot also keeps the
  // account of what recording costs the threads that record (application, frame server and camera
  // threads): the time they spent in the record calls, and how many calls; traced at close.
  struct alignas(64) EncodeSlot {
    std::atomic<bool> busy{false};
    std::atomic<uint64_t> ticks{0};
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> longTicks{0};  // of calls longer than a millisecond
    std::vector<uint8_t> bytes;
  };
  static constexpr size_t kEncodeSlots = 16;
  std::array<EncodeSlot, kEncodeSlots> slots;
  // Set-up records for the flight recorder: all of them until the frames flow, then control calls'.
  std::atomic<bool> framesFlowing{false};
  std::atomic<int> controlCalls{0};
  std::mutex controlMutex;
  std::vector<DWORD> controlThreads;  // one entry per control call running
  std::atomic<int> notReadyThreads{0};
  std::mutex notReadyMutex;
  std::map<DWORD, int> notReadyInARow;
  const std::wstring path;
  RecordClock clock;
  std::unique_ptr<EventsFileWriter> writer;
  std::shared_ptr<IKsControlsObserver> applicationObserver;
  std::shared_ptr<IKsControlsObserver> driverObserver;
};

}  // namespace mft_core
