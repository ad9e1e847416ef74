#include "tools/EventNames.h"

#if defined(_WIN32)
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/MediaEventNames.h"
#endif

namespace tools {

namespace {

#if defined(_WIN32)
// Media event names come from the framework's table; GUIDs and KS identifiers keep the reader's
// rendering (FOURCC subtypes, set, id and flags).
class WindowsNames : public device_events::Names {
 public:
  std::string MediaEventName(uint32_t type) const override {
    return user_space_frameworks::MediaEventTypeName(static_cast<MediaEventType>(type));
  }
};
#endif

}  // namespace

std::unique_ptr<device_events::Names> CreateEventNames() {
#if defined(_WIN32)
  return std::make_unique<WindowsNames>();
#else
  return std::make_unique<device_events::Names>();
#endif
}

}  // namespace tools
