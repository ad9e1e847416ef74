// Remembers what a KS controls subject told it, in order.
#pragma once

#include <mutex>
#include <vector>

#include "mft_core/ks/KsControlsObserver.h"

namespace test_support {

class RecordingKsControlsObserver : public mft_core::IKsControlsObserver {
 public:
  struct Entry {
    bool exit;
    mft_core::KsControlType type;
    PKSIDENTIFIER identifier;
    HRESULT result;
  };
  void OnKsControlEntry(mft_core::KsControlType type, PKSIDENTIFIER identifier, ULONG, LPVOID, ULONG,
                        ULONG *) override {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back({false, type, identifier, S_OK});
  }
  void OnKsControlExit(mft_core::KsControlType type, PKSIDENTIFIER identifier, ULONG, LPVOID, ULONG, ULONG *,
                       HRESULT result) override {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back({true, type, identifier, result});
  }
  std::vector<Entry> Entries() const {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }

 private:
  mutable std::mutex mutex;
  std::vector<Entry> entries;
};

}  // namespace test_support
