#include "user_space_frameworks/ModuleVersion.h"

#include <atomic>

namespace user_space_frameworks {

namespace {
// Set once by the module at load; programs that link the framework directly have none.
std::atomic<const char *> buildIdentity{nullptr};
}  // namespace

const char kVersionBanner[] = WQ_PRODUCT_NAME " Version: " WQ_VERSION_TEXT;

void SetBuildIdentity(const char *identity) { buildIdentity.store(identity); }

std::string VersionBanner() {
  const char *identity = buildIdentity.load();
  return identity != nullptr ? std::string(kVersionBanner) + " " + identity : std::string(kVersionBanner);
}

}  // namespace user_space_frameworks
