// The depth transform's start-up firmware check: the update service's registry mode, the installed
// firmware image and the camera's device information decide whether the camera is asked, exactly
// once, to restart into its update mode. Nothing of it ever fails initialisation. (Device information
// that cannot be read leaves it invalid and initialisation succeeding: WQ400ControlsTest.)
#include <cstring>

#include "ProductHarness.h"
#include "common/SystemStateGuards.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr uint32_t kDeviceInfoOpcode = 0x10;
constexpr uint32_t kEnterUpdateMode = 0x1E;
constexpr size_t kDeviceInfoSize = 230;
constexpr size_t kVersionOffset = 12;  // in the device information
constexpr size_t kImageVersionOffset = 398;
const BYTE kCameraVersion[4] = {5, 15, 1, 23};

enum class Mode { NoKey, NoValue, Auto, LowerCaseAuto, Manual };
enum class Image { None, Short, Same, OneByteDiffers };

struct CheckCase {
  const char *name;
  Mode mode;
  Image image;
  size_t expectedCommands;
};

// A camera whose device information reports kCameraVersion; other commands are echoed.
void AnswerDeviceInformation(sim::SimulatedCameraFilter &filter) {
  filter.SetFirmwareResponder([](const sim::FirmwareCommand &command) {
    std::vector<BYTE> reply(1024, 0);
    std::memcpy(reply.data(), &command.opcode, 4);
    if (command.opcode == kDeviceInfoOpcode) {
      const uint16_t size = kDeviceInfoSize;
      std::memcpy(reply.data() + 4, &size, sizeof(size));
      std::memcpy(reply.data() + 4 + kVersionOffset, kCameraVersion, 4);
    }
    return reply;
  });
}

std::vector<BYTE> FirmwareImage(size_t size, const BYTE version[4]) {
  std::vector<BYTE> image(size, 0xA5);
  if (size >= kImageVersionOffset + 4) std::memcpy(image.data() + kImageVersionOffset, version, 4);
  return image;
}

class DepthFirmwareCheckTest : public test_support::DepthTransformTest,
                               public ::testing::WithParamInterface<CheckCase> {
 protected:
  std::vector<sim::FirmwareCommand> CommandsWith(uint32_t opcode) {
    std::vector<sim::FirmwareCommand> found;
    for (const auto &command : filter->FirmwareCommands()) {
      if (command.opcode == opcode) found.push_back(command);
    }
    return found;
  }
  test_support::RegistryValueGuard mode{L"SYSTEM\\CurrentControlSet\\Services\\VeldaraCameraDFU", L"DFUAutoMode"};
  test_support::WindowsFileGuard image{L"\\system32\\drivers\\WQ400Firmware.bin"};
};

TEST_P(DepthFirmwareCheckTest, AsksForAnUpdateOnlyWhenEnabledAndTheVersionsDiffer) {
  const CheckCase &check = GetParam();
  switch (check.mode) {
    case Mode::NoKey: mode.DeleteKey(); break;
    case Mode::NoValue: mode.SetString(L"Auto"); mode.DeleteValue(); break;
    case Mode::Auto: mode.SetString(L"Auto"); break;
    case Mode::LowerCaseAuto: mode.SetString(L"auto"); break;
    case Mode::Manual: mode.SetString(L"Manual"); break;
  }
  BYTE other[4] = {5, 15, 2, 23};
  switch (check.image) {
    case Image::None: image.Remove(); break;
    case Image::Short: image.Write(FirmwareImage(kImageVersionOffset + 3, kCameraVersion)); break;
    case Image::Same: image.Write(FirmwareImage(4096, kCameraVersion)); break;
    case Image::OneByteDiffers: image.Write(FirmwareImage(kImageVersionOffset + 4, other)); break;
  }
  auto sink = std::make_shared<user_space_frameworks::CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink capture(sink, user_space_frameworks::TraceLevel::Info);
  Connect();
  AnswerDeviceInformation(*filter.Get());
  ASSERT_EQ(S_OK, Initialize());
  EXPECT_EQ(1u, CommandsWith(kDeviceInfoOpcode).size());
  // One version, one text: the device information and the check print it most significant part first.
  EXPECT_TRUE(sink->Contains("FunctionalPayloadVersion: 23.1.15.5"));
  if (check.image == Image::OneByteDiffers && check.expectedCommands == 1) {
    EXPECT_TRUE(sink->Contains("camera firmware 23.1.15.5, installed image 23.2.15.5"));
  }
  const auto commands = CommandsWith(kEnterUpdateMode);
  ASSERT_EQ(check.expectedCommands, commands.size());
  if (!commands.empty()) {
    EXPECT_EQ(1u, commands[0].params[0]);
    EXPECT_EQ(0u, commands[0].params[1]);
    EXPECT_EQ(0u, commands[0].params[2]);
    EXPECT_EQ(0u, commands[0].params[3]);
    EXPECT_TRUE(commands[0].data.empty());
  }
  // The transform streams whatever the check decided.
  ASSERT_EQ(S_OK, Start(0));
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 2; }));
  EXPECT_EQ(1u, CommandsWith(kDeviceInfoOpcode).size());
}

INSTANTIATE_TEST_SUITE_P(
    Decisions, DepthFirmwareCheckTest,
    ::testing::Values(CheckCase{"NoServiceKeyDiffers", Mode::NoKey, Image::OneByteDiffers, 1},
                      CheckCase{"NoServiceKeySame", Mode::NoKey, Image::Same, 0},
                      CheckCase{"NoValueDiffers", Mode::NoValue, Image::OneByteDiffers, 1},
                      CheckCase{"AutoDiffers", Mode::Auto, Image::OneByteDiffers, 1},
                      CheckCase{"AutoSame", Mode::Auto, Image::Same, 0},
                      CheckCase{"LowerCaseAutoDiffers", Mode::LowerCaseAuto, Image::OneByteDiffers, 0},
                      CheckCase{"ManualDiffers", Mode::Manual, Image::OneByteDiffers, 0},
                      CheckCase{"AutoShortImage", Mode::Auto, Image::Short, 0},
                      CheckCase{"AutoNoImage", Mode::Auto, Image::None, 0}),
    [](const ::testing::TestParamInfo<CheckCase> &info) { return info.param.name; });

}  // namespace
