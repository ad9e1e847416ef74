#include "tools/EventNames.h"

#if defined(_WIN32)
#include "mft_core/recorder/MfValues.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/KsIdentifierTranslator.h"
#include "user_space_frameworks/MediaEventNames.h"
#include "user_space_frameworks/MediaTypeTranslator.h"
#endif

namespace tools {

namespace {

#if defined(_WIN32)
// The names the module's own traces use: subtypes by their four-character names, other GUIDs by the
// GUID table, KS requests by set, id and flag names, media events by the event table.
class TranslatorNames : public device_events::Names {
 public:
  std::string GuidName(const device_events::Guid &guid) const override {
    return user_space_frameworks::MediaTypeTranslator::SubtypeName(mft_core::FromRecorded(guid));
  }
  std::string KsRequestName(device_events::KsKind kind, const device_events::Guid &set, uint32_t id,
                            uint32_t flags) const override {
    using Translator = user_space_frameworks::KsIdentifierTranslator;
    KSIDENTIFIER identifier{};
    identifier.Set = mft_core::FromRecorded(set);
    identifier.Id = id;
    identifier.Flags = flags;
    // The recording counts kinds as observers do (event 0, property 1); the translator as the platform.
    Translator::Kind translatorKind = Translator::Property;
    if (kind == device_events::KsKind::Event) translatorKind = Translator::Event;
    if (kind == device_events::KsKind::Method) translatorKind = Translator::Method;
    return Translator::Name(identifier, translatorKind);
  }
  std::string MediaEventName(uint32_t type) const override {
    return user_space_frameworks::MediaEventTypeName(static_cast<MediaEventType>(type));
  }
};
#endif

}  // namespace

std::unique_ptr<device_events::Names> CreateEventNames() {
#if defined(_WIN32)
  return std::make_unique<TranslatorNames>();
#else
  return std::make_unique<device_events::Names>();
#endif
}

}  // namespace tools
