// Every Windows test program runs inside one COM apartment and one Media Foundation session.
#include <gtest/gtest.h>

#include "user_space_frameworks/Trace.h"

#include "platform/WindowsSdk.h"

namespace {

class MfTestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    // WQ400_TRACE and WQ400_TRACE_FILE trace a test program as they do the module.
    user_space_frameworks::trace::ConfigureFromEnvironment();
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    ASSERT_EQ(S_OK, MFStartup(MF_VERSION, MFSTARTUP_FULL));
  }
  void TearDown() override {
    MFShutdown();
    CoUninitialize();
  }
};

const auto *const environment = ::testing::AddGlobalTestEnvironment(new MfTestEnvironment);

}  // namespace
