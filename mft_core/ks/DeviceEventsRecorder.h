// Optional recording of device-transform calls, KS requests and driver events. Callers check
// IsRecording() first so that nothing is formatted while recording is off.
#pragma once

#include <sstream>
#include <string>

namespace mft_core {

class IDeviceEventsRecorder {
 public:
  virtual ~IDeviceEventsRecorder() = default;
  virtual bool IsRecording() const = 0;
  // One call: the qualified function name and its arguments as text.
  virtual void RecordCall(const std::string &function, const std::string &arguments) = 0;
};

// "a, b, c" from the arguments of a call.
template <typename... Args>
std::string RecordedArguments(const Args &...args) {
  std::ostringstream text;
  const char *separator = "";
  ((text << separator << args, separator = ", "), ...);
  return text.str();
}

}  // namespace mft_core
