#include "mft_core/recorder/EventsFileWriter.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "device_events/EventsEncoder.h"
#include "mft_core/recorder/MfValues.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {

namespace {

using device_events::DropReason;
using device_events::RecordKind;

// Room kept at the end of a capped file for the drop count and the closing record.
constexpr uint64_t kCloseReserve = 256;
// Buffers come back from the writer for reuse, as many as may be queued between two of its wakes, so
// that a steady recording allocates nothing; a new one starts with room for a frame's record.
constexpr size_t kLargestSpare = 256 * 1024;
constexpr size_t kFreshBufferBytes = 2048;
constexpr size_t kWriteChunk = 1 << 20;
// How long records wait for the writer while the queue stays short.
constexpr DWORD kWriteIntervalMs = 100;

}  // namespace

RecordClock::RecordClock() {
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&start);
}

uint64_t RecordClock::Now() const {
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return At(now);
}

uint64_t RecordClock::At(LARGE_INTEGER now) const {
  const uint64_t ticks = static_cast<uint64_t>(now.QuadPart - start.QuadPart);
  const uint64_t perSecond = static_cast<uint64_t>(frequency.QuadPart);
  if (perSecond == 10000000ull) return ticks;  // the usual counter already counts in 100 ns units
  return ticks / perSecond * 10000000ull + ticks % perSecond * 10000000ull / perSecond;
}

HRESULT EventsFileWriter::Open(const std::wstring &path, const std::vector<uint8_t> &header,
                               const EventsFileWriterOptions &options, const RecordClock &clock,
                               std::unique_ptr<EventsFileWriter> &writer) {
  // A flight recorder writes nothing until a trigger.
  if (options.ringBytes != 0) {
    writer.reset(new EventsFileWriter(INVALID_HANDLE_VALUE, path, header, options, clock));
    return S_OK;
  }
  // Readers may look at the file while it grows; a second writer may not.
  user_space_frameworks::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid()) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    WQ_TRACE(Warning, "cannot create the events recording: " << user_space_frameworks::trace::HrText(hr));
    return hr;
  }
  DWORD written = 0;
  if (!WriteFile(file.Get(), header.data(), static_cast<DWORD>(header.size()), &written, nullptr) ||
      written != header.size()) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    WQ_TRACE(Error, "cannot write the events recording's header: " << user_space_frameworks::trace::HrText(hr));
    return hr;
  }
  writer.reset(new EventsFileWriter(file.Release(), path, header, options, clock));
  return S_OK;
}

EventsFileWriter::EventsFileWriter(HANDLE file, std::wstring path, std::vector<uint8_t> header,
                                   const EventsFileWriterOptions &options, const RecordClock &clock)
    : file(file), path(std::move(path)), header(std::move(header)), options(options), clock(clock),
      ring(options.ringBytes), fileBytes(this->header.size()) {
  if (IsFlightRecorder() && options.requestEventName != nullptr) {
    // Manual reset: one setting reaches every flight recorder, each of which acts on its rising edge.
    requestEvent.Reset(CreateEventW(nullptr, TRUE, FALSE, options.requestEventName));
  }
  writer = std::thread([this] { IsFlightRecorder() ? RunFlightRecorder() : Run(); });
}

EventsFileWriter::~EventsFileWriter() { Close(); }

std::vector<uint8_t> EventsFileWriter::TakeBuffer() {
  user_space_frameworks::AutoLock lock(section);
  return SpareBuffer();
}

std::vector<uint8_t> EventsFileWriter::SpareBuffer() {
  if (spareBuffers.empty()) {
    std::vector<uint8_t> buffer;
    buffer.reserve(kFreshBufferBytes);
    return buffer;
  }
  std::vector<uint8_t> buffer = std::move(spareBuffers.back());
  spareBuffers.pop_back();
  return buffer;
}

void EventsFileWriter::EncodeDropped(std::vector<uint8_t> &out, uint64_t count, DropReason reason) const {
  out.clear();
  device_events::RecordEncoder record(out);
  record.Begin(RecordKind::Dropped, clock.Now(), GetCurrentThreadId(), 0);
  record.U64(count);
  record.U32(static_cast<uint32_t>(reason));
  record.End();
}

void EventsFileWriter::Keep(const uint8_t *record, size_t size, bool keepAside) {
  user_space_frameworks::AutoLock lock(section);
  if (stopping || !open.load(std::memory_order_relaxed)) return;
  ring.Append(record, size);
  if (!keepAside || !setUp.complete) return;
  if (setUp.bytes.size() + size > options.setUpBytes) {
    setUp.complete = false;
    WQ_TRACE(Warning, "flight recorder: the set-up records outgrew " << (options.setUpBytes >> 10)
                                                                     << " KiB; its files cannot be replayed");
  } else {
    setUp.bytes.insert(setUp.bytes.end(), record, record + size);
    ++setUp.records;
  }
}

void EventsFileWriter::Push(std::vector<uint8_t> &&record) {
  user_space_frameworks::AutoLock lock(section);
  if (stopping || !open.load(std::memory_order_relaxed)) return;
  // The drop record goes where the records went missing, ahead of the next one that fits.
  const size_t needed = queueDrops != 0 ? 2 : 1;
  if (queue.size() + needed > options.queueRecords) {
    ++queueDrops;
    ++totalDropped;
    return;
  }
  if (queueDrops != 0) {
    std::vector<uint8_t> dropped = SpareBuffer();
    EncodeDropped(dropped, queueDrops, DropReason::QueueFull);
    queue.push_back(std::move(dropped));
    queueDrops = 0;
  }
  queue.push_back(std::move(record));
  // Waking the writer costs the caller a trip through the kernel: it writes on its timer and is woken
  // only when the queue fills up faster than that.
  if (writerWaiting && queue.size() >= WakeRecords()) wake.WakeOne();
}

size_t EventsFileWriter::WakeRecords() const { return std::max<size_t>(1, options.queueRecords / 8); }

void EventsFileWriter::Run() {
  std::deque<std::vector<uint8_t>> batch;
  for (;;) {
    bool last = false;
    {
      user_space_frameworks::AutoLock lock(section);
      // On its timer, or earlier once the queue is long: never for a record or two, which would keep it
      // running beside the callers and taking their lock.
      writerWaiting = true;
      const ULONGLONG until = GetTickCount64() + kWriteIntervalMs;
      for (ULONGLONG now = GetTickCount64(); now < until; now = GetTickCount64()) {
        if (stopping || (!paused && queue.size() >= WakeRecords())) break;
        wake.Wait(section, static_cast<DWORD>(until - now));
      }
      writerWaiting = false;
      if (paused && !stopping) continue;
      batch.swap(queue);
      last = stopping;
      if (last && queueDrops != 0) {
        std::vector<uint8_t> dropped = SpareBuffer();
        EncodeDropped(dropped, queueDrops, DropReason::QueueFull);
        batch.push_back(std::move(dropped));
        queueDrops = 0;
      }
    }
    Write(batch, last);
    // The buffers go back for reuse in one short turn of the lock.
    for (auto &buffer : batch) {
      if (recycled.size() < 2 * WakeRecords() && buffer.capacity() <= kLargestSpare) {
        buffer.clear();
        recycled.push_back(std::move(buffer));
      }
    }
    batch.clear();
    {
      user_space_frameworks::AutoLock lock(section);
      if (spareBuffers.empty()) {
        spareBuffers.swap(recycled);
      } else {
        const size_t room = 2 * WakeRecords() - std::min(spareBuffers.size(), 2 * WakeRecords());
        const size_t taken = std::min(room, recycled.size());
        spareBuffers.insert(spareBuffers.end(), std::make_move_iterator(recycled.begin()),
                            std::make_move_iterator(recycled.begin() + static_cast<std::ptrdiff_t>(taken)));
      }
    }
    recycled.clear();
    if (last) return;
  }
}

void EventsFileWriter::Write(std::deque<std::vector<uint8_t>> &batch, bool final) {
  if (!file.IsValid()) return;
  auto flush = [&]() {
    if (writeBuffer.empty()) return true;
    DWORD written = 0;
    const BOOL ok = WriteFile(file.Get(), writeBuffer.data(), static_cast<DWORD>(writeBuffer.size()), &written, nullptr);
    if (!ok || written != writeBuffer.size()) {
      WQ_TRACE(Error, "events recording stopped: the disk refused a write ("
                          << user_space_frameworks::trace::HrText(HRESULT_FROM_WIN32(GetLastError())) << ")");
      open = false;
      return false;
    }
    fileBytes += written;
    writeBuffer.clear();
    return true;
  };
  const uint64_t limit = options.maxFileBytes > kCloseReserve ? options.maxFileBytes - kCloseReserve : 0;
  for (const auto &record : batch) {
    if (capDrops != 0 || fileBytes + writeBuffer.size() + record.size() > limit) {
      ++capDrops;
      continue;
    }
    writeBuffer.insert(writeBuffer.end(), record.begin(), record.end());
    ++recordsWritten;
    if (writeBuffer.size() >= kWriteChunk && !flush()) return;
  }
  if (final) {
    std::vector<uint8_t> closing;
    uint64_t dropped = 0;
    {
      user_space_frameworks::AutoLock lock(section);
      totalDropped += capDrops;
      dropped = totalDropped;
    }
    if (capDrops != 0) {
      EncodeDropped(closing, capDrops, DropReason::SizeCap);
      writeBuffer.insert(writeBuffer.end(), closing.begin(), closing.end());
      ++recordsWritten;
    }
    closing.clear();
    device_events::RecordEncoder record(closing);
    record.Begin(RecordKind::End, clock.Now(), GetCurrentThreadId(), 0);
    record.U64(recordsWritten + 1);
    record.U64(dropped);
    record.End();
    writeBuffer.insert(writeBuffer.end(), closing.begin(), closing.end());
  }
  flush();
}

void EventsFileWriter::NoteStreamState(uint32_t stream, uint32_t state, Microsoft::WRL::ComPtr<IMFMediaType> type) {
  if (!IsFlightRecorder()) return;
  user_space_frameworks::AutoLock lock(section);
  setUp.streams[stream] = {state, std::move(type)};
}

void EventsFileWriter::NoteControl(std::vector<uint8_t> identifier, std::vector<uint8_t> data) {
  if (!IsFlightRecorder() || identifier.size() < sizeof(KSIDENTIFIER)) return;
  std::vector<uint8_t> key = identifier;
  std::fill_n(key.begin() + offsetof(KSIDENTIFIER, Flags), sizeof(ULONG), uint8_t{0});
  user_space_frameworks::AutoLock lock(section);
  setUp.controls[std::move(key)] = {std::move(identifier), std::move(data)};
}

void EventsFileWriter::Trigger(device_events::DumpTrigger why, const std::string &what) {
  if (!IsFlightRecorder()) return;
  user_space_frameworks::AutoLock lock(section);
  if (stopping) return;
  const ULONGLONG now = GetTickCount64();
  const bool quiet = !anyTrigger || now - lastTrigger >= options.triggerQuietMs;
  anyTrigger = true;
  lastTrigger = now;
  if (dumpPending || !quiet) {
    // A storm: one file, counting what joined it.
    if (dumpPending) ++pendingTriggers;
    return;
  }
  dumpPending = true;
  dumpDue = now + options.dumpDelayMs;
  pendingWhy = why;
  pendingWhat = what;
  pendingTriggers = 1;
  if (writerWaiting) wake.WakeOne();
}

std::wstring EventsFileWriter::DumpPath(const std::wstring &path, unsigned number) {
  wchar_t suffix[32];
  swprintf(suffix, 32, L".flight-%04u", number);
  const size_t slash = path.find_last_of(L"\\/");
  const size_t dot = path.find_last_of(L'.');
  if (dot == std::wstring::npos || (slash != std::wstring::npos && dot < slash)) return path + suffix;
  return path.substr(0, dot) + suffix + path.substr(dot);
}

void EventsFileWriter::PollRequestEvent() {
  if (!requestEvent.IsValid()) return;
  const bool set = WaitForSingleObject(requestEvent.Get(), 0) == WAIT_OBJECT_0;
  if (set && !requestSeen) {
    WQ_TRACE(Info, "flight recorder: an engineer asked for its records");
    Trigger(device_events::DumpTrigger::Requested, "named event set");
  }
  requestSeen = set;
}

void EventsFileWriter::RunFlightRecorder() {
  std::deque<RecordChunk> chunks;
  for (;;) {
    bool last = false, dump = false;
    uint64_t overwritten = 0, triggers = 0;
    SetUp kept;
    device_events::DumpTrigger why = device_events::DumpTrigger::Requested;
    std::string what;
    {
      user_space_frameworks::AutoLock lock(section);
      writerWaiting = true;
      const ULONGLONG now = GetTickCount64();
      const ULONGLONG until = dumpPending ? std::min<ULONGLONG>(dumpDue, now + kWriteIntervalMs) : now + kWriteIntervalMs;
      if (!stopping && now < until) wake.Wait(section, static_cast<DWORD>(until - now));
      writerWaiting = false;
      last = stopping;
      if (dumpPending && (last || GetTickCount64() >= dumpDue)) {
        dump = true;
        dumpPending = false;
        why = pendingWhy;
        what = std::move(pendingWhat);
        triggers = pendingTriggers;
        ring.TakeAll(chunks, overwritten);
        kept = setUp;
      }
    }
    if (dump) {
      WriteDump(chunks, overwritten, why, what, triggers, kept);
      user_space_frameworks::AutoLock lock(section);
      ring.GiveBack(chunks);
    }
    if (last) return;
    PollRequestEvent();
  }
}

bool EventsFileWriter::WriteDump(std::deque<RecordChunk> &chunks, uint64_t overwritten,
                                 device_events::DumpTrigger why, const std::string &what, uint64_t triggers,
                                 const SetUp &setUp) {
  // The next number after the highest kept; never one that exists, and no more than the limit kept:
  // files are taken away (moved or deleted) by whoever reads them.
  std::wstring pattern = DumpPath(path, 0);
  pattern.replace(pattern.rfind(L"0000"), 4, L"*");
  unsigned kept = 0, highest = 0;
  WIN32_FIND_DATAW found;
  HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      const wchar_t *number = wcsstr(found.cFileName, L".flight-");
      if (number == nullptr) continue;
      ++kept;
      highest = std::max(highest, static_cast<unsigned>(wcstoul(number + 8, nullptr, 10)));
    } while (FindNextFileW(search, &found));
    FindClose(search);
  }
  if (kept >= options.maxDumps) {
    WQ_TRACE(Warning, "flight recorder: " << kept << " files are waiting to be read; this trigger writes none");
    return false;
  }
  user_space_frameworks::UniqueHandle dumpFile;
  std::wstring dumpPath;
  for (unsigned number = highest + 1; number <= highest + 16 && !dumpFile.IsValid(); ++number) {
    dumpPath = DumpPath(path, number);
    dumpFile.Reset(CreateFileW(dumpPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                               FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!dumpFile.IsValid() && GetLastError() != ERROR_FILE_EXISTS) break;
  }
  if (!dumpFile.IsValid()) {
    WQ_TRACE(Error, "flight recorder: cannot create its file ("
                        << user_space_frameworks::trace::HrText(HRESULT_FROM_WIN32(GetLastError())) << ")");
    return false;
  }
  uint64_t records = 0;
  for (const RecordChunk &chunk : chunks) records += chunk.records;
  std::vector<uint8_t> opening, state, closing;
  device_events::RecordEncoder first(opening);
  first.Begin(RecordKind::RingDump, clock.Now(), GetCurrentThreadId(), 0);
  first.U64(overwritten);
  first.U32(static_cast<uint32_t>(why));
  first.String(what);
  first.U64(triggers);
  first.End();
  // Between the set-up records and the ring's.
  device_events::RecordEncoder between(state);
  between.Begin(RecordKind::State, clock.Now(), GetCurrentThreadId(), 0);
  between.U64(setUp.records);
  between.U32(setUp.complete ? 1 : 0);
  between.U32(static_cast<uint32_t>(setUp.streams.size()));
  for (const auto &stream : setUp.streams) {
    between.U32(stream.first);
    between.U32(stream.second.first);
    if (stream.second.second) {
      EncodeAttributes(between, stream.second.second.Get(), device_events::ValueTag::MediaType);
    } else {
      between.Null();
    }
  }
  between.U32(static_cast<uint32_t>(setUp.controls.size()));
  for (const auto &control : setUp.controls) {
    between.Bytes(control.second.first.data(), control.second.first.size());
    between.Bytes(control.second.second.data(), control.second.second.size());
  }
  between.End();
  device_events::RecordEncoder last(closing);
  last.Begin(RecordKind::End, clock.Now(), GetCurrentThreadId(), 0);
  last.U64(records + setUp.records + 3);
  last.U64(0);
  last.End();
  auto write = [&](const std::vector<uint8_t> &bytes) {
    DWORD written = 0;
    return bytes.empty() || (WriteFile(dumpFile.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                                       nullptr) && written == bytes.size());
  };
  bool ok = write(header) && write(opening) && write(setUp.bytes) && write(state);
  for (const RecordChunk &chunk : chunks) ok = ok && write(chunk.bytes);
  ok = ok && write(closing);
  if (!ok) {
    WQ_TRACE(Error, "flight recorder: the disk refused its file ("
                        << user_space_frameworks::trace::HrText(HRESULT_FROM_WIN32(GetLastError())) << ")");
    return false;
  }
  WQ_TRACE(Info, "flight recorder: " << records << " records written to " << Utf8(dumpPath.c_str()) << " ("
                                     << device_events::DumpTriggerName(why) << ": " << what << ")");
  user_space_frameworks::AutoLock lock(section);
  ++dumpsWritten;
  lastDumpPath = dumpPath;
  return true;
}

unsigned EventsFileWriter::DumpsWritten() const {
  user_space_frameworks::AutoLock lock(section);
  return dumpsWritten;
}

std::wstring EventsFileWriter::LastDumpPath() const {
  user_space_frameworks::AutoLock lock(section);
  return lastDumpPath;
}

void EventsFileWriter::Close() {
  {
    user_space_frameworks::AutoLock lock(section);
    if (stopping) return;
    stopping = true;
    paused = false;
  }
  wake.WakeAll();
  if (writer.joinable()) writer.join();
  if (file.IsValid()) FlushFileBuffers(file.Get());
  file.Reset();
  open = false;
}

bool EventsFileWriter::IsOpen() const { return open.load(std::memory_order_relaxed); }

void EventsFileWriter::PauseForTest(bool pause) {
  {
    user_space_frameworks::AutoLock lock(section);
    paused = pause;
  }
  wake.WakeAll();
}

uint64_t EventsFileWriter::DroppedRecords() const {
  user_space_frameworks::AutoLock lock(section);
  return totalDropped;
}

}  // namespace mft_core

namespace mft_core {

size_t EventsFileWriter::QueuedRecords() const {
  user_space_frameworks::AutoLock lock(section);
  return queue.size();
}

}  // namespace mft_core
