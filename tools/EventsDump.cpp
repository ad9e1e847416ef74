// Prints a device events recording as a timeline.
//   events_dump <events.bin> [--kind call,return,app-ks,driver-ks,driver-event,media-event,dropped,filter,end,ring-dump]
//               [--stream N[,N...]] [--verbose]
// Exit code: 0 when the whole file was read, also when its writer died inside the last record (the
// records before it are printed, then where and how it was cut); 1 when it is damaged (the records
// before the damage are printed, then the offset and what is wrong); 2 for bad options.
#include <iostream>
#include <sstream>
#include <string>

#include "device_events/EventsReader.h"
#include "device_events/Timeline.h"
#include "tools/EventNames.h"
#include "tools/ToolArguments.h"

namespace {

int Usage() {
  std::cerr << "usage: events_dump <events.bin> [--kind KIND[,KIND...]] [--stream N[,N...]] [--verbose]\n"
               "  kinds: call, return, app-ks, driver-ks, driver-event, media-event, dropped, filter, end, ring-dump\n";
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  using namespace device_events;
  std::string path;
  RecordFilter filter;
  TimelineOptions options;
  const std::vector<tools::ToolOption> known = {
      {"--kind", true,
       [&](const std::string &value) {
         std::string error;
         if (ParseKinds(value, filter.kinds, error)) return true;
         std::cerr << error << "\n";
         return false;
       }},
      {"--stream", true,
       [&](const std::string &value) {
         std::stringstream list(value);
         std::string item;
         while (std::getline(list, item, ',')) {
           try {
             filter.streams.insert(static_cast<uint32_t>(std::stoul(item)));
           } catch (const std::exception &) {
             return false;
           }
         }
         return true;
       }},
      {"--verbose", false, [&](const std::string &) { return options.verbose = true; }},
  };
  if (!tools::ParseToolArguments(argc, argv, known, path)) return Usage();

  std::vector<uint8_t> bytes;
  std::string fileError;
  if (!ReadFileBytes(path, bytes, fileError)) {
    std::cerr << fileError << "\n";
    return 1;
  }
  const auto names = tools::CreateEventNames();
  EventsReader reader(bytes.data(), bytes.size());
  FileHeader header;
  ReadError error;
  if (!reader.ReadHeader(header, error)) {
    std::cerr << path << ": " << error.Text() << "\n";
    return 1;
  }
  std::cout << FormatHeader(header, *names);
  std::cout << "     seconds  thread  kind         what\n";
  Record record;
  size_t shown = 0, total = 0;
  bool closed = false;
  for (;;) {
    const EventsReader::Status status = reader.Next(record, error);
    if (status == EventsReader::Status::End) break;
    if (status == EventsReader::Status::Cut) {
      std::cout << shown << " of " << total << " records shown\n";
      std::cout << "Cut: after " << total << " whole records, " << error.message << "\n";
      return 0;
    }
    if (status == EventsReader::Status::Error) {
      std::cout.flush();
      std::cerr << path << ": damaged after " << total << " records: " << error.Text() << "\n";
      return 1;
    }
    ++total;
    closed = record.Kind() == RecordKind::End;
    if (!filter.Matches(record)) continue;
    ++shown;
    std::cout << FormatRecord(record, *names, options) << "\n";
  }
  std::cout << shown << " of " << total << " records shown\n";
  if (!closed) {
    std::cout << "Cut: after " << total << " whole records at offset " << reader.Position()
              << ", between two records, without the closing record: the process writing it ended there\n";
  }
  return 0;
}
