#include "user_space_frameworks/MediaTypeTranslator.h"

#include <mutex>
#include <new>

#include "user_space_frameworks/GuidTranslator.h"

namespace user_space_frameworks {

namespace {

constexpr DWORD FourCc(const char (&code)[5]) {
  return static_cast<DWORD>(static_cast<unsigned char>(code[0])) |
         static_cast<DWORD>(static_cast<unsigned char>(code[1])) << 8 |
         static_cast<DWORD>(static_cast<unsigned char>(code[2])) << 16 |
         static_cast<DWORD>(static_cast<unsigned char>(code[3])) << 24;
}

// The standard video four-character codes, then the camera's own (blanks are part of the code).
const char *const kFourCcNames[] = {
    "AI44", "AYUV", "YUY2", "YVYU", "YVU9", "UYVY", "NV11", "NV12", "YV12", "I420", "IYUV", "Y210", "Y216",
    "Y410", "Y416", "Y41P", "Y41T", "Y42T", "P210", "P216", "P010", "P016", "v210", "v216", "v410", "MJPG",
    "Y12I", "Y8I ", "Z16 ", "Y8  ",
};

std::mutex instanceMutex;
std::shared_ptr<const MediaTypeTranslator> instance;

}  // namespace

MediaTypeTranslator::MediaTypeTranslator() {
  names.reserve(sizeof(kFourCcNames) / sizeof(kFourCcNames[0]));
  for (const char *name : kFourCcNames) {
    char code[5] = {name[0], name[1], name[2], name[3], '\0'};
    names.emplace(FourCc(code), name);
  }
}

HRESULT MediaTypeTranslator::Create() {
  try {
    std::lock_guard<std::mutex> hold(instanceMutex);
    if (!instance) instance = std::make_shared<const MediaTypeTranslator>();
    return S_OK;
  } catch (const std::bad_alloc &) {
    return E_OUTOFMEMORY;
  }
}

void MediaTypeTranslator::Release() {
  std::lock_guard<std::mutex> hold(instanceMutex);
  instance.reset();
}

std::shared_ptr<const MediaTypeTranslator> MediaTypeTranslator::Instance() {
  std::lock_guard<std::mutex> hold(instanceMutex);
  if (!instance) instance = std::make_shared<const MediaTypeTranslator>();
  return instance;
}

const char *MediaTypeTranslator::FourCcName(DWORD fourCc) const {
  const auto found = names.find(fourCc);
  return found == names.end() ? "Unknown" : found->second;
}

std::string MediaTypeTranslator::SubtypeName(REFGUID subtype) {
  // Video subtypes carry their four-character code in the first field of the platform's base GUID.
  GUID base = MFVideoFormat_Base;
  base.Data1 = subtype.Data1;
  if (base == subtype) {
    const auto translator = Instance();
    const auto found = translator->names.find(subtype.Data1);
    if (found != translator->names.end()) return found->second;
  }
  return GuidTranslator::Name(subtype);
}

}  // namespace user_space_frameworks
