// The flight recorder's memory: whole encoded records, oldest first, in chunks of fixed size. When the
// ring is full the oldest chunk is forgotten (its records counted as overwritten) and its memory takes
// the new records, so a steady recording allocates nothing. Not locked: the events writer guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace mft_core {

struct RecordChunk {
  std::vector<uint8_t> bytes;  // records back to back
  uint64_t records = 0;
};

class RecordRing {
 public:
  static constexpr size_t kChunkBytes = 1 << 20;

  // At least two chunks, so that the ring never forgets the records just written; none for a
  // capacity of 0 (no flight recorder). The memory is taken at once.
  explicit RecordRing(size_t capacityBytes);

  void Append(const uint8_t *record, size_t size);
  // Hands out every record kept, oldest first, and how many were overwritten before the oldest since
  // the last time; the ring starts empty again.
  void TakeAll(std::deque<RecordChunk> &chunks, uint64_t &overwritten);
  // Chunks handed out come back for reuse.
  void GiveBack(std::deque<RecordChunk> &chunks);

  uint64_t Records() const;
  size_t Chunks() const { return chunks.size(); }
  size_t MaxChunks() const { return maxChunks; }

 private:
  RecordChunk FreshChunk();

  const size_t maxChunks;
  std::deque<RecordChunk> chunks;
  std::vector<RecordChunk> spare;
  uint64_t overwritten = 0;
};

}  // namespace mft_core
