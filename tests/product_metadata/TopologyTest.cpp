// The timestamp node and the product chains.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "common/CaptureMetadataSamples.h"
#include "common/MediaTypes.h"
#include "mft_core/streams/InputStream.h"
#include "mft_core/streams/OutputStream.h"
#include "product/topology/WQ400TimestampAdjustTopologyNode.h"
#include "product/topology/WQ400Topologies.h"
#include "user_space_frameworks/EtwProviders.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using user_space_frameworks::CapturingTraceSink;
using user_space_frameworks::TraceLevel;

class RecordingNode : public ITopologyNode {
 public:
  HRESULT ProcessSample(IMFSample *sample) override {
    samples.emplace_back(sample);
    return S_OK;
  }
  std::vector<ComPtr<IMFSample>> samples;
};

// An input stream that lists the types a test gives it, without a driver behind it.
class ListedInputStream : public InputStream {
 public:
  explicit ListedInputStream(DWORD id) : InputStream(id, nullptr) {}
  using Stream::AddMediaType;
};

ComPtr<IMFMediaType> VideoType(UINT32 width, UINT32 height, UINT32 fps) {
  return test_support::MakeVideoType(MFVideoFormat_YUY2, width, height, fps);
}

std::vector<std::string> SampleTimeEvents(const CapturingTraceSink &sink) {
  std::vector<std::string> events;
  for (const auto &event : sink.Events()) {
    if (event.find("mft_core::WQ400TimestampAdjustTopologyNode::ProcessSample") != std::string::npos) {
      events.push_back(event);
    }
  }
  return events;
}

TEST(WQ400TimestampAdjustTopologyNode, TracesStartAndStopAndPassesTheSampleOnUnchanged) {
  auto sink = std::make_shared<CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink scoped(sink, TraceLevel::Error);
  auto next = std::make_shared<RecordingNode>();
  WQ400TimestampAdjustTopologyNode node({next});

  for (const LONGLONG time : {LONGLONG{123456789}, LONGLONG{-5}}) {
    sink->Clear();
    next->samples.clear();
    ComPtr<IMFSample> sample = test_samples::MakeSample(time);
    ASSERT_EQ(S_OK, node.Process(sample.Get()));
    ASSERT_EQ(1u, next->samples.size());
    EXPECT_EQ(sample.Get(), next->samples[0].Get());
    LONGLONG passed = 0;
    ASSERT_EQ(S_OK, sample->GetSampleTime(&passed));
    EXPECT_EQ(time, passed);
    EXPECT_EQ(0u, test_samples::AttributeCount(sample.Get()));

    const auto events = SampleTimeEvents(*sink);
    ASSERT_EQ(2u, events.size());
    const std::string field = "SampleTime=" + std::to_string(time);
    EXPECT_NE(std::string::npos, events[0].find("Start"));
    EXPECT_NE(std::string::npos, events[1].find("Stop"));
    for (const auto &event : events) EXPECT_NE(std::string::npos, event.find(field)) << event;
  }
}

struct PlatformEvent {
  UCHAR opcode;
  GUID activity;
  std::vector<uint8_t> metadata;
  int64_t sampleTime;
};
std::vector<PlatformEvent> platformEvents;

ULONG WINAPI CapturePlatformEvent(REGHANDLE, PCEVENT_DESCRIPTOR descriptor, LPCGUID activity, LPCGUID, ULONG count,
                                  PEVENT_DATA_DESCRIPTOR data) {
  PlatformEvent event{descriptor->Opcode, activity ? *activity : GUID_NULL, {}, 0};
  const auto *metadata = reinterpret_cast<const uint8_t *>(static_cast<uintptr_t>(data[1].Ptr));
  event.metadata.assign(metadata, metadata + data[1].Size);
  if (count == 3 && data[2].Size == sizeof(int64_t)) {
    std::memcpy(&event.sampleTime, reinterpret_cast<const void *>(static_cast<uintptr_t>(data[2].Ptr)), 8);
  }
  platformEvents.push_back(event);
  return ERROR_SUCCESS;
}

TEST(WQ400TimestampAdjustTopologyNode, WritesAnActivityStartAndStopToTheListeningSession) {
  user_space_frameworks::trace::ScopedSink noSink(nullptr, TraceLevel::Off);
  auto &provider = user_space_frameworks::trace::EventProvider();
  provider.SetWriteTransfer(&CapturePlatformEvent);
  platformEvents.clear();
  auto next = std::make_shared<RecordingNode>();
  WQ400TimestampAdjustTopologyNode node({next});
  ComPtr<IMFSample> sample = test_samples::MakeSample(777);
  ASSERT_EQ(S_OK, node.Process(sample.Get()));
  EXPECT_TRUE(platformEvents.empty()) << "nobody listens";

  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_VERBOSE, 0, 0);
  ASSERT_EQ(S_OK, node.Process(sample.Get()));
  ASSERT_EQ(S_OK, node.Process(sample.Get()));
  provider.OnEnable(EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0);
  provider.SetWriteTransfer(&::EventWriteTransfer);

  ASSERT_EQ(4u, platformEvents.size());
  const std::string name = "mft_core::WQ400TimestampAdjustTopologyNode::ProcessSample";
  for (size_t i = 0; i < platformEvents.size(); ++i) {
    const PlatformEvent &event = platformEvents[i];
    EXPECT_EQ(i % 2 == 0 ? 1 : 2, event.opcode);
    EXPECT_EQ(777, event.sampleTime);
    const std::string metadata(event.metadata.begin() + 3, event.metadata.end());
    EXPECT_EQ(name + std::string("\0SampleTime\0\x09", 13), metadata.substr(0, name.size() + 13));
  }
  EXPECT_EQ(platformEvents[0].activity, platformEvents[1].activity);
  EXPECT_EQ(platformEvents[2].activity, platformEvents[3].activity);
  EXPECT_NE(platformEvents[0].activity, platformEvents[2].activity) << "each sample gets its own activity";
  EXPECT_NE(GUID_NULL, platformEvents[0].activity);
}

struct TopologyCase {
  const char *name;
  std::function<std::shared_ptr<WQ400Topology>()> make;
  bool timestampNode;
};

std::vector<TopologyCase> Topologies() {
  return {
      {"WQ400 Depth topology", [] { return std::make_shared<WQ400DepthTopology>(); }, true},
      {"WQ400 Color topology", [] { return std::make_shared<WQ400ColorTopology>(); }, true},
      {"WQ400 FishEye topology", [] { return std::make_shared<WQ400FishEyeTopology>(); }, false},
  };
}

TEST(WQ400Topologies, BuildOneChainForATypeTheInputStreamOffers) {
  for (const TopologyCase &c : Topologies()) {
    auto input = std::make_shared<ListedInputStream>(0);
    input->AddMediaType(VideoType(640, 480, 30));
    auto output = std::make_shared<OutputStream>(1, nullptr, OutputStreamConfiguration{});

    auto topology = c.make();
    EXPECT_EQ(c.name, topology->GetName());
    // Same size at another rate is not offered.
    EXPECT_EQ(E_INVALIDARG, topology->Init(input, output, VideoType(640, 480, 15).Get())) << c.name;
    // No type at all is not one the input stream offers either.
    EXPECT_EQ(E_INVALIDARG, topology->Init(input, output, nullptr)) << c.name;
    EXPECT_TRUE(topology->GetItems().empty()) << c.name;
    EXPECT_EQ(nullptr, topology->GetFirstNode()) << c.name;

    ComPtr<IMFMediaType> type = VideoType(640, 480, 30);
    ASSERT_EQ(S_OK, topology->Init(input, output, type.Get())) << c.name;
    ASSERT_EQ(1u, topology->GetItems().size());
    const TopologyItem &item = topology->GetItems().front();
    EXPECT_EQ(input, item.inputStream);
    EXPECT_EQ(type.Get(), item.mediaType.Get());
    EXPECT_EQ(item.firstNode, topology->GetFirstNode());
    auto timestampNode = std::dynamic_pointer_cast<WQ400TimestampAdjustTopologyNode>(item.firstNode);
    if (c.timestampNode) {
      ASSERT_NE(nullptr, timestampNode) << c.name;
      ASSERT_EQ(1u, timestampNode->GetNextNodes().size());
      EXPECT_EQ(output, timestampNode->GetNextNodes()[0]) << c.name;
    } else {
      EXPECT_EQ(std::shared_ptr<ITopologyNode>(output), item.firstNode) << c.name;
    }
  }
}

}  // namespace
}  // namespace mft_core
