#include <gtest/gtest.h>

#include <string>

#include "common/MediaTypes.h"
#include "mft_core/streams/Topology.h"
#include "mft_core_streams/StreamTestSupport.h"

namespace {

using Microsoft::WRL::ComPtr;
using mft_core::ITopologyNode;
using mft_core::PropagateOrder;
using test_support::FrameServerStandIn;
using test_support::MakeSample;
using test_support::MakeVideoType;
using test_support::TestEventGenerator;

class NamedNode : public ITopologyNode {
 public:
  explicit NamedNode(std::string name) : name(std::move(name)) {}
  HRESULT ProcessSample(IMFSample *sample) override {
    trail += name;
    return PassToNextNodes(sample);
  }
  const char *GetTraceName() const override { return name.c_str(); }
  std::string name;
  static std::string trail;
};
std::string NamedNode::trail;

// a -> (b -> d), c
struct Graph {
  std::shared_ptr<NamedNode> a = std::make_shared<NamedNode>("a"), b = std::make_shared<NamedNode>("b"),
                             c = std::make_shared<NamedNode>("c"), d = std::make_shared<NamedNode>("d");
  Graph() {
    a->AddNextNode(b);
    a->AddNextNode(c);
    b->AddNextNode(d);
  }
};

struct PropagateCase {
  const char *name;
  PropagateOrder order;
  const char *failingNode;  // "" for none
  const char *visited;
  HRESULT result;
};

class PropagateTest : public ::testing::TestWithParam<PropagateCase> {};

TEST_P(PropagateTest, WalksDepthFirstAndStopsAtTheFirstFailure) {
  const PropagateCase &c = GetParam();
  Graph graph;
  std::string visited;
  const HRESULT hr = graph.a->Propagate(c.order, [&](ITopologyNode *node) -> HRESULT {
    const std::string name = node->GetTraceName();
    visited += name;
    return name == c.failingNode ? E_ACCESSDENIED : S_OK;
  });
  EXPECT_EQ(c.result, hr);
  EXPECT_EQ(c.visited, visited);
}

const PropagateCase kPropagateCases[] = {
    {"call_then_propagate", PropagateOrder::CallLambdaAndPropagate, "", "abdc", S_OK},
    {"propagate_then_call", PropagateOrder::PropagateAndCallLambda, "", "dbca", S_OK},
    {"failure_skips_later_siblings", PropagateOrder::CallLambdaAndPropagate, "b", "ab", E_ACCESSDENIED},
    {"failure_below_skips_the_caller", PropagateOrder::PropagateAndCallLambda, "d", "d", E_ACCESSDENIED},
};

INSTANTIATE_TEST_SUITE_P(Orders, PropagateTest, ::testing::ValuesIn(kPropagateCases),
                         [](const auto &info) { return std::string(info.param.name); });

class SeenBy : public mft_core::SampleObserver {
 public:
  SeenBy(std::string name, std::string &log) : name(std::move(name)), log(log) {}
  void Invoke(IMFSample *) override { log += name; }
  std::string name;
  std::string &log;
};

TEST(ObserverTest, ObserversSeeTheSampleBeforeTheNodeInRegistrationOrder) {
  Graph graph;
  auto first = std::make_shared<SeenBy>("1", NamedNode::trail);
  auto gone = std::make_shared<SeenBy>("x", NamedNode::trail);
  auto second = std::make_shared<SeenBy>("2", NamedNode::trail);
  graph.a->RegisterPreProcessObserver(first);
  graph.a->RegisterPreProcessObserver(gone);
  graph.a->RegisterPreProcessObserver(second);
  gone.reset();  // the owner let it go: skipped
  NamedNode::trail.clear();
  ASSERT_EQ(S_OK, graph.a->Process(MakeSample().Get()));
  EXPECT_EQ("12abdc", NamedNode::trail);

  graph.a->UnregisterPreProcessObserver(first);
  NamedNode::trail.clear();
  ASSERT_EQ(S_OK, graph.a->Process(MakeSample().Get()));
  EXPECT_EQ("2abdc", NamedNode::trail);

  // Held at most once: a second registration changes nothing, and one unregister removes it.
  graph.a->RegisterPreProcessObserver(second);
  NamedNode::trail.clear();
  ASSERT_EQ(S_OK, graph.a->Process(MakeSample().Get()));
  EXPECT_EQ("2abdc", NamedNode::trail);
  graph.a->UnregisterPreProcessObserver(second);
  NamedNode::trail.clear();
  ASSERT_EQ(S_OK, graph.a->Process(MakeSample().Get()));
  EXPECT_EQ("abdc", NamedNode::trail);
}

class TopologyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    generator = user_space_frameworks::MakeComObject<TestEventGenerator>();
    filter = user_space_frameworks::MakeComObject<test_support::FakeDriverFilter>();
    filter->types[0] = {MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30)};
    inputStream = std::make_shared<mft_core::InputStream>(0, generator.Get(), 2000);
    ASSERT_EQ(S_OK, inputStream->Init(filter.Get(), {}));
    mft_core::OutputStreamConfiguration configuration;
    ASSERT_EQ(S_OK, inputStream->GetSupportedMediaTypes(*configuration.mtList));
    outputStream = std::make_shared<mft_core::OutputStream>(0, generator.Get(), configuration);
    ASSERT_EQ(S_OK, outputStream->Init());
  }
  void TearDown() override { generator->Shutdown(); }

  ComPtr<TestEventGenerator> generator;
  ComPtr<test_support::FakeDriverFilter> filter;
  std::shared_ptr<mft_core::InputStream> inputStream;
  std::shared_ptr<mft_core::OutputStream> outputStream;
};

TEST_F(TopologyTest, InitAcceptsOnlyATypeTheInputStreamListsExactly) {
  mft_core::PassThroughTopology topology;
  EXPECT_EQ(E_INVALIDARG, topology.Init(inputStream, outputStream, MakeVideoType(MFVideoFormat_YUY2, 640, 480, 15).Get()));
  EXPECT_TRUE(topology.GetItems().empty());
  EXPECT_EQ(S_OK, topology.Init(inputStream, outputStream, MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30).Get()));
  EXPECT_EQ(1u, topology.GetItems().size());

  mft_core::TopologySettings settings;
  settings.Add(inputStream, MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30));
  EXPECT_EQ(S_OK, settings.Validate());
  settings.Add(inputStream, MakeVideoType(MFVideoFormat_YUY2, 320, 240, 30));
  EXPECT_EQ(E_FAIL, settings.Validate());
}

TEST_F(TopologyTest, ActivateConnectsBeforeStartingAndDeactivateStopsBeforeFlushing) {
  auto topology = std::make_shared<mft_core::PassThroughTopology>();
  ASSERT_EQ(S_OK, topology->Init(inputStream, outputStream, MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30).Get()));
  EXPECT_EQ(E_UNEXPECTED, topology->Deactivate());

  std::vector<std::string> seen;  // what the frame server finds when asked
  FrameServerStandIn frameServer(*generator.Get(), inputStream, [&](UINT32) {
    seen.push_back(std::string(inputStream->IsConnected() ? "connected" : "unconnected") + "/" +
                   std::to_string(outputStream->GetQueueLength()));
  });
  ASSERT_EQ(S_OK, outputStream->SetState(DeviceStreamState_Run));
  ASSERT_EQ(S_OK, topology->Activate());
  EXPECT_TRUE(topology->IsActive());
  EXPECT_EQ(E_UNEXPECTED, topology->Activate());
  EXPECT_EQ(DeviceStreamState_Run, inputStream->GetState());

  auto sample = MakeSample(42);
  ASSERT_EQ(S_OK, inputStream->Process(sample.Get()));
  ASSERT_EQ(S_OK, inputStream->Process(MakeSample(43).Get()));
  MFT_OUTPUT_DATA_BUFFER buffer{};
  ASSERT_EQ(S_OK, outputStream->ProcessOutput(buffer, 0));
  EXPECT_EQ(sample.Get(), buffer.pSample);
  buffer.pSample->Release();

  ASSERT_EQ(S_OK, topology->Deactivate());
  EXPECT_FALSE(topology->IsActive());
  EXPECT_EQ(DeviceStreamState_Stop, inputStream->GetState());
  EXPECT_FALSE(inputStream->IsConnected());
  EXPECT_EQ(0u, outputStream->GetQueueLength());
  EXPECT_EQ((std::vector<std::string>{"connected/0", "connected/1"}), seen);
  EXPECT_EQ((std::vector<DeviceStreamState>{DeviceStreamState_Run, DeviceStreamState_Stop}), frameServer.States());
}

TEST_F(TopologyTest, UnansweredStartFailsActivation) {
  auto quickInput = std::make_shared<mft_core::InputStream>(0, generator.Get(), 50);
  ASSERT_EQ(S_OK, quickInput->Init(filter.Get(), {}));
  mft_core::PassThroughTopology topology;
  ASSERT_EQ(S_OK, topology.Init(quickInput, outputStream, MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30).Get()));
  EXPECT_EQ(E_FAIL, topology.Activate());
  EXPECT_FALSE(topology.IsActive());
  EXPECT_EQ(E_UNEXPECTED, topology.Deactivate());
}

}  // namespace
