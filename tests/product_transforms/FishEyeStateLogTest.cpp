// The auto-exposure state log of the fisheye transform: off unless the registry switches it on, and
// then written by the engine while the fisheye stream runs.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ProductHarness.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"

using namespace test_support;

namespace {

const wchar_t kKey[] = L"Software\\Tavix\\Veldara\\WQ4XX\\FEExposure";
const wchar_t kLogPath[] = L"c:\\Tavix\\Logs\\AEState.txt";

// Sets "AEStateLog" for the test's lifetime; removes what it created.
class ScopedStateLogSwitch {
 public:
  explicit ScopedStateLogSwitch(DWORD value) {
    DWORD disposition = 0;
    EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                                             &disposition));
    createdKey = disposition == REG_CREATED_NEW_KEY;
    EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, L"AEStateLog", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&value),
                                            sizeof(value)));
  }
  ~ScopedStateLogSwitch() {
    RegDeleteValueW(key, L"AEStateLog");
    RegCloseKey(key);
    if (createdKey) RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey);
  }

 private:
  HKEY key = nullptr;
  bool createdKey = false;
};

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

TEST(FishEyeStateLog, IsOffByDefaultAndWrittenWhenTheRegistrySwitchesItOn) {
  DeleteFileW(kLogPath);
  StreamSomeFrames();
  EXPECT_FALSE(LogExists());
  {
    ScopedStateLogSwitch off(0);
    StreamSomeFrames();
    EXPECT_FALSE(LogExists());
  }
  {
    ScopedStateLogSwitch on(1);
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
