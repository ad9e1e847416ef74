// The auto-exposure state log of the fisheye transform: off unless the registry switches it on, and
// then written by the engine while the fisheye stream runs.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ProductHarness.h"
#include "common/SystemStateGuards.h"
#include "product/controls/WQ400FishEyeExtendedExposureControl.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"

using namespace test_support;

namespace {

const wchar_t kKey[] = L"Software\\Tavix\\Veldara\\WQ4XX\\FEExposure";
const wchar_t kLogPath[] = L"c:\\Tavix\\Logs\\AEState.txt";

bool LogExists() { return GetFileAttributesW(kLogPath) != INVALID_FILE_ATTRIBUTES; }

std::string ReadLog() {
  std::ifstream file("c:\\Tavix\\Logs\\AEState.txt");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Streams the fisheye camera until the engine has looked at some frames.
void StreamSomeFrames() {
  ProductHarness harness;
  harness.Connect<mft_core::WQ400FishEyeDeviceMft>(sim::FisheyeCamera());
  ASSERT_EQ(S_OK, harness.host->Initialize());
  ASSERT_EQ(S_OK, harness.Start(0, 640, 480, 60));
  EXPECT_TRUE(harness.WaitForFrames(20));
  EXPECT_EQ(S_OK, harness.host->Shutdown());
}

TEST(FishEyeExposureSettings, TheTuningDwordsOfTheFisheyeKeyReplaceTheirDefaults) {
  RegistryValueGuard samples(kKey, L"NumConvergedSamplesForLock");
  RegistryValueGuard lockDelta(kKey, L"AutoLockConvergeDelta");
  RegistryValueGuard manualDelta(kKey, L"ManualConvergeDelta");
  samples.DeleteValue();
  lockDelta.DeleteValue();
  manualDelta.DeleteValue();
  mft_core::FishEyeExposureSettings settings = mft_core::FishEyeExposureSettings::FromRegistry();
  EXPECT_EQ(3u, settings.numConvergedSamplesForLock);
  EXPECT_EQ(50000u, settings.autoLockConvergeDelta);
  EXPECT_EQ(50000u, settings.manualConvergeDelta);

  samples.SetDword(7);
  lockDelta.SetDword(1234);
  manualDelta.SetString(L"99");  // not a DWORD: the default holds
  settings = mft_core::FishEyeExposureSettings::FromRegistry();
  EXPECT_EQ(7u, settings.numConvergedSamplesForLock);
  EXPECT_EQ(1234u, settings.autoLockConvergeDelta);
  EXPECT_EQ(50000u, settings.manualConvergeDelta);
}

TEST(FishEyeStateLog, IsOffByDefaultAndWrittenWhenTheRegistrySwitchesItOn) {
  DeleteFileW(kLogPath);
  StreamSomeFrames();
  EXPECT_FALSE(LogExists());
  {
    RegistryValueGuard logSwitch(kKey, L"AEStateLog");
    logSwitch.SetDword(0);
    StreamSomeFrames();
    EXPECT_FALSE(LogExists());
    logSwitch.SetDword(1);
    StreamSomeFrames();
  }
  ASSERT_TRUE(LogExists());
  const std::string log = ReadLog();
  EXPECT_NE(std::string::npos, log.find("AddImage:"));
  EXPECT_NE(std::string::npos, log.find("AnalyzeImage Score:"));
  EXPECT_NE(std::string::npos, log.find("ModifyExposure: IncreaseExposureGain:"));
  EXPECT_TRUE(DeleteFileW(kLogPath));
  RemoveDirectoryW(L"c:\\Tavix\\Logs");
  RemoveDirectoryW(L"c:\\Tavix");
}

}  // namespace
