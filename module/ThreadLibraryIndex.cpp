// The thread library linked into the module takes a thread-local storage index the first time one of its
// functions runs on a thread, and never gives it back. A host process that loads and unloads the module
// a thousand times (the frame server unloads it whenever no camera uses it) would run out of indexes,
// and the library then ends the process. The index is taken here, when the module is loaded and before
// any other of its objects is built, and given back when the module goes, after every other one is gone.
#include <pthread.h>

#include "platform/WindowsSdk.h"

namespace {

class ThreadLibraryIndex {
 public:
  ThreadLibraryIndex() {
    const DWORD lowestFree = TlsAlloc();
    if (lowestFree == TLS_OUT_OF_INDEXES) return;
    TlsFree(lowestFree);
    // The library takes the lowest free index now and stores this thread's record in it, unless it
    // already holds one (then nothing is given back: better one index lost than one freed twice).
    pthread_self();
    if (TlsGetValue(lowestFree) != nullptr) index = lowestFree;
  }
  ~ThreadLibraryIndex() {
    if (index != TLS_OUT_OF_INDEXES) TlsFree(index);
  }
  ThreadLibraryIndex(const ThreadLibraryIndex &) = delete;
  ThreadLibraryIndex &operator=(const ThreadLibraryIndex &) = delete;

 private:
  DWORD index = TLS_OUT_OF_INDEXES;
};

// Built first and destroyed last of the module's static objects.
__attribute__((init_priority(101))) ThreadLibraryIndex threadLibraryIndex;

}  // namespace
