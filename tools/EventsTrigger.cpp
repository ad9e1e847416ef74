// Asks every flight recorder on this machine for a file of its records, on a healthy system: sets the
// named event the recorders' writers watch, holds it long enough for each to see it, and clears it.
//   events_trigger [--hold-ms N]
// Exit code: 0 once the event was set and cleared, 1 when it could not be opened, 2 for bad options.
#include <cstdlib>
#include <iostream>
#include <string>

#include "mft_core/recorder/EventsFileWriter.h"
#include "platform/WindowsSdk.h"

int main(int argc, char **argv) {
  // The writers look at the event every 100 ms.
  DWORD holdMs = 1000;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--hold-ms" && i + 1 < argc) {
      holdMs = static_cast<DWORD>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      std::cerr << "usage: events_trigger [--hold-ms N]\n";
      return 2;
    }
  }
  const wchar_t *name = mft_core::EventsFileWriterOptions::kDumpRequestEvent;
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, name);
  if (event == nullptr) {
    std::cerr << "cannot open the flight recorders' event (error " << GetLastError() << ")\n";
    return 1;
  }
  SetEvent(event);
  Sleep(holdMs);
  ResetEvent(event);
  CloseHandle(event);
  std::cout << "Asked the flight recorders for their records\n";
  return 0;
}
