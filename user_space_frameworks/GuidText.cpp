#include "user_space_frameworks/GuidText.h"

#include <cstdio>

namespace user_space_frameworks {

std::string GuidText(REFGUID guid) {
  char text[40];
  std::snprintf(text, sizeof(text), "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned long>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
  return text;
}

}  // namespace user_space_frameworks
