// Writes encoded records to the recording file on a thread of its own, every 100 ms or sooner when the
// queue grows long. Callers only queue: a full queue or a full file drops records, counts them, and
// leaves a record saying how many, so the frame path never waits for the disk and nothing is lost
// silently.
// As a flight recorder (a ring size given) it keeps the records in memory instead and writes nothing
// until a trigger: then, a moment later, its thread writes the ring to a new numbered file beside the
// recording's path and the ring starts over.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "device_events/EventsFormat.h"
#include "mft_core/recorder/RecordRing.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

// 100 ns ticks since the recording started, from the performance counter.
class RecordClock {
 public:
  RecordClock();
  uint64_t Now() const;
  // The same for a performance counter value read earlier.
  uint64_t At(LARGE_INTEGER counter) const;

 private:
  LARGE_INTEGER start{};
  LARGE_INTEGER frequency{};
};

struct EventsFileWriterOptions {
  size_t queueRecords = 8192;             // records waiting for the writer at most
  uint64_t maxFileBytes = 256ull << 20;   // the file's cap
  size_t ringBytes = 0;                   // non-zero: a flight recorder keeping this much in memory
  unsigned maxDumps = 8;                  // flight-recorder files kept at most (none is ever overwritten)
  DWORD dumpDelayMs = 200;                // records after a trigger that its file still holds
  DWORD triggerQuietMs = 5000;            // a trigger this soon after the last one joins its file
  size_t setUpBytes = 4u << 20;           // the set-up records kept aside from the ring at most
  const wchar_t *requestEventName = kDumpRequestEvent;  // the named event an engineer sets for a file

  // A manual-reset event in the global namespace: setting it asks every flight recorder for a file.
  static constexpr const wchar_t *kDumpRequestEvent = L"Global\\WQ400DeviceEventsDump";
};

class EventsFileWriter {
 public:
  // Creates (or truncates) the file, writes `header` and starts the writer thread.
  static HRESULT Open(const std::wstring &path, const std::vector<uint8_t> &header,
                      const EventsFileWriterOptions &options, const RecordClock &clock,
                      std::unique_ptr<EventsFileWriter> &writer);
  ~EventsFileWriter();
  EventsFileWriter(const EventsFileWriter &) = delete;
  EventsFileWriter &operator=(const EventsFileWriter &) = delete;

  // Recording everything: a buffer to encode one record into (empty, with room from earlier
  // records), and the record handed to the queue; neither blocks on the disk.
  std::vector<uint8_t> TakeBuffer();
  void Push(std::vector<uint8_t> &&record);
  // Flight recorder: copies a record into the ring; the caller keeps its buffer. A record marked
  // `setUp` is also kept aside from the ring (the transform's set-up and control calls), for every
  // file it writes: a replay sets the transform up from them before it plays the ring.
  void Keep(const uint8_t *record, size_t size, bool setUp);
  // Writes what is queued, the drop count if any and the closing record, and closes the file.
  void Close();
  // False once closed or after the disk refused a write.
  bool IsOpen() const;
  // Holds the writer back so that a test can fill the queue.
  void PauseForTest(bool paused);
  uint64_t DroppedRecords() const;
  size_t QueuedRecords() const;

  // Flight recorder: asks for the ring to be written out. Never waits: the writer's thread writes it.
  // Triggers that come while one is pending, or within the quiet time of the last, join its file.
  void Trigger(device_events::DumpTrigger why, const std::string &what);
  bool IsFlightRecorder() const { return options.ringBytes != 0; }
  // Flight recorder: an output stream's state and type as a state request left them, for the state
  // record of the files written from now on (what an engineer reads first in a dump).
  void NoteStreamState(uint32_t stream, uint32_t state, Microsoft::WRL::ComPtr<IMFMediaType> type);
  // Flight recorder: a control an application set (its KS identifier and the data it set), for the
  // same state record; a later set of the same control (flags aside) replaces it.
  void NoteControl(std::vector<uint8_t> identifier, std::vector<uint8_t> data);
  // Files written so far, and the path of the last one.
  unsigned DumpsWritten() const;
  std::wstring LastDumpPath() const;
  // "events.bin" -> "events.flight-0003.bin".
  static std::wstring DumpPath(const std::wstring &path, unsigned number);

 private:
  EventsFileWriter(HANDLE file, std::wstring path, std::vector<uint8_t> header, const EventsFileWriterOptions &options,
                   const RecordClock &clock);
  void Run();
  void RunFlightRecorder();
  // The ring as the next numbered file; false when the file limit is reached or the disk refused it.
  struct SetUp {
    std::vector<uint8_t> bytes;  // records back to back
    uint64_t records = 0;
    bool complete = true;  // false once a record did not fit
    std::map<uint32_t, std::pair<uint32_t, Microsoft::WRL::ComPtr<IMFMediaType>>> streams;  // by output stream
    // By the identifier without its flags: the identifier as set, and the data.
    std::map<std::vector<uint8_t>, std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> controls;
  };
  bool WriteDump(std::deque<RecordChunk> &chunks, uint64_t overwritten, device_events::DumpTrigger why,
                 const std::string &what, uint64_t triggers, const SetUp &setUp);
  void PollRequestEvent();
  void Write(std::deque<std::vector<uint8_t>> &batch, bool final);
  std::vector<uint8_t> SpareBuffer();  // with the lock held
  size_t WakeRecords() const;          // queued records that wake the writer before its time
  void EncodeDropped(std::vector<uint8_t> &out, uint64_t count, device_events::DropReason reason) const;

  user_space_frameworks::UniqueHandle file;
  const std::wstring path;
  const std::vector<uint8_t> header;
  const EventsFileWriterOptions options;
  const RecordClock &clock;

  // The platform's lock and condition variable: the toolchain's std::mutex and condition variable wait
  // and wake through kernel event objects, a costly call for a caller that finds the writer holding it.
  // On a cache line of its own: every record takes it, and the fields read without it stay clean.
  alignas(64) mutable user_space_frameworks::CriticalSection section;  // everything below up to the thread
  user_space_frameworks::ConditionVariable wake;
  std::deque<std::vector<uint8_t>> queue;
  std::vector<std::vector<uint8_t>> spareBuffers;
  uint64_t queueDrops = 0;        // dropped since the last drop record, queue full
  uint64_t totalDropped = 0;
  bool writerWaiting = false;
  bool stopping = false;
  bool paused = false;
  // Flight recorder.
  RecordRing ring;
  SetUp setUp;
  bool dumpPending = false;
  ULONGLONG dumpDue = 0;
  bool anyTrigger = false;
  ULONGLONG lastTrigger = 0;
  device_events::DumpTrigger pendingWhy = device_events::DumpTrigger::Requested;
  std::string pendingWhat;
  uint64_t pendingTriggers = 0;
  unsigned dumpsWritten = 0;
  std::wstring lastDumpPath;
  std::thread writer;
  alignas(64) std::atomic<bool> open{true};  // read on every record without the lock

  // Writer thread only.
  uint64_t fileBytes = 0;
  uint64_t recordsWritten = 0;
  uint64_t capDrops = 0;
  std::vector<uint8_t> writeBuffer;
  std::vector<std::vector<uint8_t>> recycled;  // written records' buffers on their way back
  user_space_frameworks::UniqueHandle requestEvent;
  bool requestSeen = false;
};

}  // namespace mft_core
