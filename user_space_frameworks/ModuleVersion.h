// The module's version: one definition for the trace banner and the DLL's version resource.
#pragma once

#define WQ_VERSION_MAJOR 6
#define WQ_VERSION_MINOR 1
#define WQ_VERSION_BUILD 160
#define WQ_VERSION_REVISION 14
#define WQ_VERSION_TEXT "6.1.160.14"
#define WQ_PRODUCT_NAME "WQ400 Device MFT"

#ifndef RC_INVOKED
#include <string>

namespace user_space_frameworks {

// "WQ400 Device MFT Version: 6.1.160.14"
extern const char kVersionBanner[];
// The banner, then the source revision and build stamp that the module registered at load.
std::string VersionBanner();
// `identity` ("revision 1a2b3c4, built 2026-11-23 02:30 UTC") must outlive every call.
void SetBuildIdentity(const char *identity);

}  // namespace user_space_frameworks
#endif
