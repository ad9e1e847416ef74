#include "mft_core/recorder/RecordRing.h"

#include <algorithm>

namespace mft_core {

RecordRing::RecordRing(size_t capacityBytes) : maxChunks(capacityBytes == 0 ? 0 : std::max<size_t>(2, capacityBytes / kChunkBytes)) {
  // The whole ring at once, its pages touched: the process's memory does not grow while it fills.
  spare.resize(maxChunks);
  for (RecordChunk &chunk : spare) {
    chunk.bytes.resize(kChunkBytes);
    chunk.bytes.clear();
  }
}

RecordChunk RecordRing::FreshChunk() {
  if (!spare.empty()) {
    RecordChunk chunk = std::move(spare.back());
    spare.pop_back();
    return chunk;
  }
  RecordChunk chunk;
  chunk.bytes.reserve(kChunkBytes);
  return chunk;
}

void RecordRing::Append(const uint8_t *record, size_t size) {
  if (chunks.empty() || chunks.back().bytes.size() + size > kChunkBytes) {
    if (chunks.size() >= maxChunks) {
      RecordChunk oldest = std::move(chunks.front());
      chunks.pop_front();
      overwritten += oldest.records;
      oldest.bytes.clear();
      oldest.records = 0;
      spare.push_back(std::move(oldest));
    }
    chunks.push_back(FreshChunk());
  }
  // A record larger than a chunk (a sample with its pixels) has a chunk of its own, grown for it.
  RecordChunk &chunk = chunks.back();
  chunk.bytes.insert(chunk.bytes.end(), record, record + size);
  ++chunk.records;
}

void RecordRing::TakeAll(std::deque<RecordChunk> &out, uint64_t &lost) {
  out.swap(chunks);
  chunks.clear();
  lost = overwritten;
  overwritten = 0;
}

void RecordRing::GiveBack(std::deque<RecordChunk> &returned) {
  for (RecordChunk &chunk : returned) {
    if (spare.size() + chunks.size() >= maxChunks) break;
    chunk.bytes.clear();
    chunk.records = 0;
    // A chunk grown for one large record goes back to the common size.
    if (chunk.bytes.capacity() > kChunkBytes) {
      std::vector<uint8_t>().swap(chunk.bytes);
      chunk.bytes.reserve(kChunkBytes);
    }
    spare.push_back(std::move(chunk));
  }
  returned.clear();
}

uint64_t RecordRing::Records() const {
  uint64_t records = 0;
  for (const RecordChunk &chunk : chunks) records += chunk.records;
  return records;
}

}  // namespace mft_core
