#include <gtest/gtest.h>

#include <deque>

#include "common/MediaTypes.h"
#include "mft_core_streams/StreamTestSupport.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "mft_core/streams/InputStream.h"

namespace {

using Microsoft::WRL::ComPtr;
using mft_core::InputStream;
using test_support::DrainEvents;
using test_support::FakeDriverFilter;
using test_support::FrameServerStandIn;
using test_support::MakeSample;
using test_support::MakeVideoType;
using test_support::TestEventGenerator;

class InputStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    generator = user_space_frameworks::MakeComObject<TestEventGenerator>();
    filter = user_space_frameworks::MakeComObject<FakeDriverFilter>();
    filter->types[2] = {MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30), MakeVideoType(MFVideoFormat_NV12, 640, 480, 30),
                        MakeVideoType(MFVideoFormat_YUY2, 320, 240, 15)};
    ComPtr<IMFAttributes> driverAttributes;
    ASSERT_EQ(S_OK, MFCreateAttributes(driverAttributes.GetAddressOf(), 2));
    ASSERT_EQ(S_OK, driverAttributes->SetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, MFFrameSourceTypes_Infrared));
    filter->streamAttributes[2] = driverAttributes;
  }
  void TearDown() override { generator->Shutdown(); }

  std::shared_ptr<InputStream> MakeStream(DWORD timeoutMs = InputStream::kStateChangeTimeoutMs) {
    auto stream = std::make_shared<InputStream>(2, generator.Get(), timeoutMs);
    EXPECT_EQ(S_OK, stream->Init(filter.Get(), {MFVideoFormat_NV12}));
    return stream;
  }

  ComPtr<TestEventGenerator> generator;
  ComPtr<FakeDriverFilter> filter;
};

TEST_F(InputStreamTest, InitTakesTheDriverTypesLessExcludedAndACopyOfItsAttributes) {
  auto stream = MakeStream();
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(S_OK, stream->GetMediaTypeAt(1, type.GetAddressOf()));
  EXPECT_EQ(filter->types[2][2].Get(), type.Get());
  EXPECT_EQ(MF_E_NO_MORE_TYPES, stream->GetMediaTypeAt(2, type.ReleaseAndGetAddressOf()));
  EXPECT_EQ(static_cast<UINT32>(MFFrameSourceTypes_Infrared), stream->GetFrameSourceType());

  ComPtr<IMFAttributes> attributes;
  ASSERT_EQ(S_OK, stream->GetAttributes(attributes.GetAddressOf()));
  EXPECT_NE(filter->streamAttributes[2].Get(), attributes.Get());
  EXPECT_EQ(E_POINTER, stream->GetAttributes(nullptr));

  filter->types[4] = {};
  auto failing = std::make_shared<InputStream>(5, generator.Get());
  EXPECT_EQ(MF_E_INVALIDSTREAMNUMBER, failing->Init(filter.Get(), {}));
}

TEST_F(InputStreamTest, PreferredStateIsAnsweredByTheFrameServer) {
  auto stream = MakeStream();
  DeviceStreamState state = DeviceStreamState_Disabled;
  ComPtr<IMFMediaType> preferred;
  EXPECT_EQ(E_POINTER, stream->GetPreferredState(nullptr, preferred.GetAddressOf()));
  EXPECT_EQ(E_POINTER, stream->GetPreferredState(&state, nullptr));
  ASSERT_EQ(S_OK, stream->GetPreferredState(&state, preferred.GetAddressOf()));
  EXPECT_EQ(DeviceStreamState_Stop, state);
  EXPECT_FALSE(preferred);

  auto wanted = MakeVideoType(MFVideoFormat_YUY2, 320, 240, 15);
  {
    FrameServerStandIn frameServer(*generator.Get(), stream);
    ASSERT_EQ(S_OK, stream->SetPreferredState(DeviceStreamState_Run, wanted.Get()));
    EXPECT_EQ(1, frameServer.Answered());
    EXPECT_EQ(DeviceStreamState_Run, stream->GetState());
    EXPECT_TRUE(stream->WasStarted());
    EXPECT_EQ(15.0, stream->GetCurrentFps());
    ComPtr<IMFMediaType> current;
    ASSERT_EQ(S_OK, stream->GetCurrentMediaType(current.GetAddressOf()));
    EXPECT_EQ(wanted.Get(), current.Get());
  }
}

TEST_F(InputStreamTest, PreferredStateRefusesUnlistedTypesAndTimesOutWithoutAnswer) {
  auto stream = MakeStream(50);
  // The excluded subtype is not offered, so it cannot be preferred; nothing is asked of the frame server.
  EXPECT_EQ(E_FAIL, stream->SetPreferredState(DeviceStreamState_Run, MakeVideoType(MFVideoFormat_NV12, 640, 480, 30).Get()));
  EXPECT_TRUE(DrainEvents(*generator.Get()).empty());

  std::vector<ComPtr<IMFMediaEvent>> events;
  EXPECT_EQ(E_FAIL, stream->SetPreferredState(DeviceStreamState_Stop, nullptr));
  ASSERT_EQ(std::vector<MediaEventType>{METransformInputStreamStateChanged}, DrainEvents(*generator.Get(), &events));
  EXPECT_EQ(2u, MFGetAttributeUINT32(events[0].Get(), MF_EVENT_MFT_INPUT_STREAM_ID, 99));

  // An answer that came before the request does not satisfy it.
  ASSERT_EQ(S_OK, stream->SetState(DeviceStreamState_Stop));
  EXPECT_EQ(E_FAIL, stream->SetPreferredState(DeviceStreamState_Stop, nullptr));
}

// Writes the next frame counter, as the capture-timing metadata does.
class CounterParser : public mft_core::IMetadataParser {
 public:
  explicit CounterParser(std::deque<UINT32> counters) : IMetadataParser("counter"), counters(std::move(counters)) {}
  HRESULT Parse(IMFSample *sample) override {
    const UINT32 counter = counters.front();
    counters.pop_front();
    return sample->SetUINT32(mft_core::WQ400_MF_FRAME_COUNTER, counter);
  }
  std::deque<UINT32> counters;
};

class RecordingNode : public mft_core::ITopologyNode {
 public:
  HRESULT ProcessSample(IMFSample *sample) override {
    counters.push_back(MFGetAttributeUINT32(sample, mft_core::WQ400_MF_FRAME_COUNTER, 0));
    return S_OK;
  }
  std::vector<UINT32> counters;
};

TEST_F(InputStreamTest, FramePathParsesCountsThenHandsOn) {
  auto stream = MakeStream();
  stream->AttachMetadataParser(std::make_shared<CounterParser>(std::deque<UINT32>{1, 2, 5, 6, 7}));
  auto node = std::make_shared<RecordingNode>();
  ASSERT_EQ(S_OK, stream->Process(MakeSample().Get()));  // not connected: counted, not handed on
  EXPECT_TRUE(node->counters.empty());
  ASSERT_EQ(S_OK, stream->Connect(node));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, stream->Process(MakeSample().Get()));
  EXPECT_EQ((std::vector<UINT32>{2, 5, 6}), node->counters);
  EXPECT_EQ("Lost frames =2, Max consecutive lost frames =2, Received frames =4, Frame reorder =0",
            stream->GetFrameDropStatistics());
  // A state change starts counting afresh.
  ASSERT_EQ(S_OK, stream->SetState(DeviceStreamState_Stop));
  EXPECT_EQ(0u, stream->GetFrameDropMonitor().GetReceivedFrames());
  ASSERT_EQ(S_OK, stream->Disconnect());
  ASSERT_EQ(S_OK, stream->Process(MakeSample().Get()));
  EXPECT_EQ(3u, node->counters.size());
  EXPECT_EQ(E_POINTER, stream->Connect(nullptr));
}

struct DropCase {
  const char *name;
  std::vector<UINT32> counters;
  uint64_t received, lost, maxLost, reorder;
};

class FrameDropMonitorTest : public ::testing::TestWithParam<DropCase> {};

TEST_P(FrameDropMonitorTest, CountsFromTheFrameCounter) {
  const DropCase &c = GetParam();
  mft_core::FrameDropMonitor monitor;
  monitor.Reset(1);
  for (UINT32 counter : c.counters) {
    auto sample = MakeSample();
    ASSERT_EQ(S_OK, sample->SetUINT32(mft_core::WQ400_MF_FRAME_COUNTER, counter));
    monitor.OnSample(sample.Get());
  }
  monitor.OnSample(MakeSample().Get());  // no counter: only received
  EXPECT_EQ(c.received + 1, monitor.GetReceivedFrames());
  EXPECT_EQ(c.lost, monitor.GetLostFrames());
  EXPECT_EQ(c.maxLost, monitor.GetMaxConsecutiveLostFrames());
  EXPECT_EQ(c.reorder, monitor.GetFrameReorder());
}

const DropCase kDropCases[] = {
    {"gap", {1, 2, 5, 6}, 4, 2, 2, 0},
    {"repeat_and_step_back", {1, 2, 2, 1}, 4, 0, 0, 2},
    {"two_gaps_keep_the_longest", {1, 4, 6}, 3, 3, 2, 0},
    {"first_frame_late", {3}, 1, 2, 2, 0},
};

INSTANTIATE_TEST_SUITE_P(Sequences, FrameDropMonitorTest, ::testing::ValuesIn(kDropCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
