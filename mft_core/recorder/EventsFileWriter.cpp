#include "mft_core/recorder/EventsFileWriter.h"

#include <algorithm>
#include <iterator>

#include "device_events/EventsEncoder.h"
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
  const uint64_t ticks = static_cast<uint64_t>(now.QuadPart - start.QuadPart);
  const uint64_t perSecond = static_cast<uint64_t>(frequency.QuadPart);
  return ticks / perSecond * 10000000ull + ticks % perSecond * 10000000ull / perSecond;
}

HRESULT EventsFileWriter::Open(const std::wstring &path, const std::vector<uint8_t> &header,
                               const EventsFileWriterOptions &options, const RecordClock &clock,
                               std::unique_ptr<EventsFileWriter> &writer) {
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
  writer.reset(new EventsFileWriter(file.Release(), header.size(), options, clock));
  return S_OK;
}

EventsFileWriter::EventsFileWriter(HANDLE file, uint64_t headerBytes, const EventsFileWriterOptions &options,
                                   const RecordClock &clock)
    : file(file), options(options), clock(clock), fileBytes(headerBytes) {
  writer = std::thread([this] { Run(); });
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
