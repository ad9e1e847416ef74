// The firmware command pipe against the simulated camera's firmware property.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/FirmwareCommandPipe.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using mft_core::FirmwareCommandPipe;

namespace {

std::vector<BYTE> Reply(uint32_t opcode, size_t dataBytes, BYTE fill) {
  std::vector<BYTE> reply(4 + dataBytes, fill);
  std::memcpy(reply.data(), &opcode, 4);
  return reply;
}

class FirmwareCommandPipeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
    ASSERT_TRUE(filter);
    ComPtr<IMFTransform> transform;
    ComPtr<IKsControl> ksControl;
    ASSERT_EQ(S_OK, filter.As(&transform));
    ASSERT_EQ(S_OK, filter.As(&ksControl));
    xu = user_space_frameworks::MakeComObject<mft_core::ExtensionUnitKsControl>(sim::kDepthXuSet, "Depth ");
    ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 1));
    pipe = std::make_unique<FirmwareCommandPipe>(ComPtr<IKsControl>(xu.Get()), sim::kDepthXuSet, 1, "Depth");
    filter->ClearRequests();
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<mft_core::ExtensionUnitKsControl> xu;
  std::unique_ptr<FirmwareCommandPipe> pipe;
};

TEST_F(FirmwareCommandPipeTest, FramesCommandsWithLengthMagicOpcodeParametersAndData) {
  for (size_t dataLength : {size_t{0}, size_t{7}, size_t{1000}}) {
    SCOPED_TRACE(dataLength);
    std::vector<BYTE> data(dataLength);
    for (size_t i = 0; i < dataLength; ++i) data[i] = static_cast<BYTE>(i * 7);
    ASSERT_EQ(S_OK, pipe->Set(0x1E, data.data(), data.size(), 1, 2, 3, 0xFFFFFFFF));
    const sim::FirmwareCommand command = filter->FirmwareCommands().back();
    EXPECT_EQ(20 + dataLength, command.length);
    EXPECT_EQ(0xCDAB, command.magic);
    EXPECT_EQ(0x1Eu, command.opcode);
    EXPECT_EQ(1u, command.params[0]);
    EXPECT_EQ(2u, command.params[1]);
    EXPECT_EQ(3u, command.params[2]);
    EXPECT_EQ(0xFFFFFFFFu, command.params[3]);
    EXPECT_EQ(data, command.data);
    EXPECT_EQ(1024u, command.bytesWritten);
  }
  // Written as one property set and read back as one get, both on the unit's node.
  EXPECT_EQ("SGSGSG", filter->FirmwareAccessOrder());
  EXPECT_EQ(3u, filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, 1,
                                      KSPROPERTY_TYPE_TOPOLOGY | KSPROPERTY_TYPE_SET));
}

TEST_F(FirmwareCommandPipeTest, RefusesMoreThanAThousandDataBytesBeforeSendingAnything) {
  std::vector<BYTE> data(1001, 0xAA);
  try {
    pipe->Set(0x10, data.data(), data.size(), 0, 0, 0, 0);
    FAIL() << "expected an exception";
  } catch (const std::invalid_argument &error) {
    EXPECT_STREQ("failed to copy data", error.what());
  }
  EXPECT_TRUE(filter->FirmwareCommands().empty());
}

TEST_F(FirmwareCommandPipeTest, ReadsUpToOneThousandTwentyReplyBytes) {
  filter->SetFirmwareResponder([](const sim::FirmwareCommand &command) { return Reply(command.opcode, 1020, 0x5A); });
  std::vector<BYTE> readBuffer(1020, 0);
  ASSERT_EQ(S_OK, pipe->Get(readBuffer.data(), 0x14, readBuffer.size(), 9, 8, 7, 6));
  EXPECT_EQ(std::vector<BYTE>(1020, 0x5A), readBuffer);
  const sim::FirmwareCommand command = filter->FirmwareCommands().back();
  EXPECT_EQ(20u, command.length);
  EXPECT_EQ(0xCDAB, command.magic);
  EXPECT_EQ(9u, command.params[0]);
  EXPECT_EQ(6u, command.params[3]);

  std::vector<BYTE> tooLong(1021, 0);
  EXPECT_EQ(E_INVALIDARG, pipe->Get(tooLong.data(), 0x14, tooLong.size(), 0, 0, 0, 0));
  EXPECT_EQ(1u, filter->FirmwareCommands().size());

  // Nothing to copy: a zero-length read only checks the echo.
  EXPECT_EQ(S_OK, pipe->Get(nullptr, 0x14, 0, 0, 0, 0, 0));
  // A missing buffer for a non-zero read is refused after the exchange.
  EXPECT_EQ(E_FAIL, pipe->Get(nullptr, 0x14, 8, 0, 0, 0, 0));
}

struct MalformedReply {
  const char *name;
  std::vector<BYTE> reply;
  HRESULT setResult;
  HRESULT getResult;  // reading 16 bytes
};

TEST_F(FirmwareCommandPipeTest, MalformedRepliesFailAndThePipeKeepsWorking) {
  const MalformedReply cases[] = {
      {"wrong opcode", Reply(0x99, 16, 0), E_FAIL, E_FAIL},
      {"opcode only", Reply(0x20, 0, 0), S_OK, E_FAIL},
      {"three bytes", std::vector<BYTE>{0x20, 0, 0}, E_FAIL, E_FAIL},
      {"empty", std::vector<BYTE>{}, E_FAIL, E_FAIL},
      {"one byte short", Reply(0x20, 15, 0), S_OK, E_FAIL},
  };
  for (const auto &testCase : cases) {
    SCOPED_TRACE(testCase.name);
    filter->SetFirmwareResponder([&](const sim::FirmwareCommand &) { return testCase.reply; });
    EXPECT_EQ(testCase.setResult, pipe->Set(0x20, nullptr, 0, 0, 0, 0, 0));
    BYTE readBuffer[16];
    EXPECT_EQ(testCase.getResult, pipe->Get(readBuffer, 0x20, sizeof(readBuffer), 0, 0, 0, 0));
  }
  filter->SetFirmwareResponder([](const sim::FirmwareCommand &command) { return Reply(command.opcode, 16, 1); });
  BYTE readBuffer[16] = {};
  EXPECT_EQ(S_OK, pipe->Get(readBuffer, 0x20, sizeof(readBuffer), 0, 0, 0, 0));
  EXPECT_EQ(1, readBuffer[15]);
}

TEST_F(FirmwareCommandPipeTest, DriverFailuresPassThroughUnchanged) {
  sim::KsFault writeFault;
  writeFault.set = sim::kDepthXuSet;
  writeFault.id = 1;
  writeFault.flagsMask = KSPROPERTY_TYPE_SET;
  writeFault.result = HRESULT_FROM_WIN32(ERROR_GEN_FAILURE);
  writeFault.count = 1;
  filter->InjectFault(writeFault);
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), pipe->Set(0x30, nullptr, 0, 0, 0, 0, 0));
  // No read follows a failed write.
  EXPECT_EQ(0u, filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, 1, KSPROPERTY_TYPE_GET));

  sim::KsFault readFault = writeFault;
  readFault.flagsMask = KSPROPERTY_TYPE_GET;
  readFault.result = sim::kNotReady;
  filter->InjectFault(readFault);
  BYTE readBuffer[4];
  EXPECT_EQ(sim::kNotReady, pipe->Get(readBuffer, 0x30, sizeof(readBuffer), 0, 0, 0, 0));
  EXPECT_EQ(S_OK, pipe->Get(readBuffer, 0x30, sizeof(readBuffer), 0, 0, 0, 0));
}

TEST_F(FirmwareCommandPipeTest, ConcurrentCommandsDoNotInterleaveTheirExchanges) {
  // Each reply carries the opcode and the first parameter, so a reply meant for another command is seen.
  filter->SetFirmwareResponder([](const sim::FirmwareCommand &command) {
    std::vector<BYTE> reply = Reply(command.opcode, 4, 0);
    std::memcpy(reply.data() + 4, &command.params[0], 4);
    return reply;
  });
  filter->SetFirmwareLatencyMs(1);
  constexpr int kThreads = 4;
  constexpr int kCommands = 15;
  std::vector<std::thread> threads;
  std::vector<int> mismatches(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCommands; ++i) {
        const uint32_t opcode = 0x100 + t;
        const uint32_t tag = t * 1000 + i;
        uint32_t echoedTag = 0;
        if (pipe->Get(reinterpret_cast<BYTE *>(&echoedTag), opcode, 4, tag, 0, 0, 0) != S_OK || echoedTag != tag) {
          ++mismatches[t];
        }
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(kThreads, 0), mismatches);
  std::string alternating;
  for (int i = 0; i < kThreads * kCommands; ++i) alternating += "SG";
  EXPECT_EQ(alternating, filter->FirmwareAccessOrder());
}

}  // namespace
