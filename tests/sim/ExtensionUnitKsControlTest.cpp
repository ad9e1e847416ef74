// The extension-unit control against the simulated camera: node discovery, node addressing and ranges.
#include <gtest/gtest.h>

#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/UvcCommand.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using mft_core::ExtensionUnitKsControl;
using sim::KsRequestKind;

namespace {

const GUID kOtherXuSet = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};

// Three device-specific nodes: another unit first, then the depth unit at node 3 and again at node 4.
sim::CameraConfig CameraWithSeveralUnits() {
  sim::CameraConfig camera = sim::DepthCamera();
  camera.nodeTypes = {sim::kNodeCameraTerminal, KSNODETYPE_DEV_SPECIFIC, sim::kNodeProcessing,
                      KSNODETYPE_DEV_SPECIFIC, KSNODETYPE_DEV_SPECIFIC};
  sim::ExtensionUnitConfig depthUnit = camera.extensionUnits[0];
  camera.extensionUnits = {{kOtherXuSet, 1, "Other XU", {{1, {0}}}}, depthUnit, depthUnit};
  camera.extensionUnits[1].nodeId = 3;
  camera.extensionUnits[2].nodeId = 4;
  return camera;
}

struct Fixture : ::testing::Test {
  void Connect(const sim::CameraConfig &camera) {
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    ASSERT_EQ(S_OK, filter.As(&transform));
    ASSERT_EQ(S_OK, filter.As(&ksControl));
    xu = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(sim::kDepthXuSet, "Depth ");
  }
  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IMFTransform> transform;
  ComPtr<IKsControl> ksControl;
  ComPtr<ExtensionUnitKsControl> xu;
};

TEST_F(Fixture, FindsFirstDeviceSpecificNodeThatSupportsTheSetAndAddressesEveryRequestToIt) {
  Connect(CameraWithSeveralUnits());
  ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 3));
  EXPECT_EQ(3u, xu->GetNodeId());
  EXPECT_STREQ("Depth Extension Unit KS control", xu->GetTraceName());

  // Discovery asked only device-specific nodes, and stopped at the first that answered.
  std::vector<ULONG> askedNodes;
  for (const auto &request : filter->Requests()) {
    EXPECT_EQ(ULONG(KSPROPERTY_TYPE_TOPOLOGY | KSPROPERTY_TYPE_SETSUPPORT), request.flags);
    askedNodes.push_back(request.node);
  }
  EXPECT_EQ((std::vector<ULONG>{1, 3}), askedNodes);

  filter->ClearRequests();
  const uint32_t exposure = 5000;
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, xu->SendKsProperty(3, const_cast<uint32_t *>(&exposure), sizeof(exposure), KSPROPERTY_TYPE_SET,
                                     bytesReturned));
  EXPECT_EQ(5000, filter->SensorExposureUs());
  uint32_t readBack = 0;
  ASSERT_EQ(S_OK, xu->SendKsProperty(3, &readBack, sizeof(readBack), KSPROPERTY_TYPE_GET, bytesReturned));
  EXPECT_EQ(5000u, readBack);
  EXPECT_EQ(4u, bytesReturned);
  for (const auto &request : filter->Requests()) {
    EXPECT_EQ(3u, request.node);
    EXPECT_TRUE(request.flags & KSPROPERTY_TYPE_TOPOLOGY);
  }
}

TEST_F(Fixture, InitFailsWithoutTheUnitTopologyOrNodesAndRequestsBeforeItAreRefused) {
  Connect(sim::DepthCamera());
  KSPROPERTY property = {sim::kDepthXuSet, 3, KSPROPERTY_TYPE_GET};
  uint32_t value = 0;
  ULONG bytesReturned = 0;
  EXPECT_EQ(E_NOINTERFACE, xu->KsProperty(&property, sizeof(property), &value, sizeof(value), &bytesReturned));
  KSMETHOD method = {sim::kDepthXuSet, 1, KSMETHOD_TYPE_NONE};
  EXPECT_EQ(E_NOINTERFACE, xu->KsMethod(&method, sizeof(method), nullptr, 0, &bytesReturned));
  KSEVENT event = {sim::kDepthXuSet, 1, KSEVENT_TYPE_ENABLE};
  EXPECT_EQ(E_NOINTERFACE, xu->KsEvent(&event, sizeof(event), nullptr, 0, &bytesReturned));

  // A unit the camera lacks is never found, and the control stays unusable.
  auto missing = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(kOtherXuSet, "Missing ");
  EXPECT_EQ(E_NOINTERFACE, missing->Init(transform, ksControl, 1));
  EXPECT_EQ(E_NOINTERFACE, missing->SendKsProperty(1, &value, sizeof(value), KSPROPERTY_TYPE_GET, bytesReturned));
  EXPECT_EQ(0u, filter->CountRequests(KsRequestKind::Property, sim::kDepthXuSet, 3));

  // Nor is a unit found without topology information or nodes.
  sim::CameraConfig noTopology = sim::DepthCamera();
  noTopology.exposesTopologyInfo = false;
  Connect(noTopology);
  EXPECT_EQ(E_NOINTERFACE, xu->Init(transform, ksControl, 3));

  sim::CameraConfig noNodes = sim::DepthCamera();
  noNodes.nodeTypes.clear();
  Connect(noNodes);
  EXPECT_EQ(E_NOINTERFACE, xu->Init(transform, ksControl, 3));
  EXPECT_TRUE(filter->Requests().empty());
}

TEST_F(Fixture, DiscoveryRetriesNothingAndSkipsNodesThatRefuse) {
  Connect(CameraWithSeveralUnits());
  // The driver is busy for the first two set-support queries: those nodes are passed over, not retried.
  filter->InjectNotReady(2, sim::kDepthXuSet);
  ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 3));
  EXPECT_EQ(4u, xu->GetNodeId());
}

TEST_F(Fixture, QueriesRangeAndDefaultOfAControl) {
  Connect(sim::DepthCamera());
  ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 3));
  LONG minimum = -7, maximum = -7, step = -7, defaultValue = -7;
  ASSERT_EQ(S_OK, xu->QueryKsPropertyInfo(3, minimum, maximum, step, defaultValue));
  EXPECT_EQ(1, minimum);
  EXPECT_EQ(165000, maximum);
  EXPECT_EQ(1, step);
  EXPECT_EQ(8500, defaultValue);

  // The default query fails: the range is written, the default is not.
  sim::KsFault fault;
  fault.flagsMask = KSPROPERTY_TYPE_DEFAULTVALUES;
  fault.result = E_ACCESSDENIED;
  filter->InjectFault(fault);
  minimum = maximum = step = defaultValue = -7;
  EXPECT_EQ(E_ACCESSDENIED, xu->QueryKsPropertyInfo(11, minimum, maximum, step, defaultValue));
  EXPECT_EQ(0, minimum);
  EXPECT_EQ(1, maximum);
  EXPECT_EQ(-7, defaultValue);
}

TEST_F(Fixture, UvcCommandReadsAndWritesOneProperty) {
  Connect(sim::DepthCamera());
  ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 3));
  mft_core::UvcCommand mode(ComPtr<IKsControl>(xu.Get()), sim::kDepthXuSet, 11, "Exposure mode");
  const BYTE manual = 0;
  ASSERT_EQ(S_OK, mode.Set(&manual, 1));
  EXPECT_EQ(std::vector<BYTE>{0}, filter->GetControlValue(sim::kDepthXuSet, 11));
  BYTE value = 9;
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, mode.Get(&value, 1, bytesReturned));
  EXPECT_EQ(0, value);
  EXPECT_EQ(1u, bytesReturned);
  // Out of range for the control: the driver's code comes back unchanged.
  const BYTE invalid = 7;
  EXPECT_EQ(E_INVALIDARG, mode.Set(&invalid, 1));
}

// The driver answers only what a real one would: the set-support query for a property its unit has,
// at the unit's own node; a node that does not exist is refused; the unit's methods and events reach
// its node.
TEST_F(Fixture, TheDriverRoutesNodeRequestsAndRefusesWhatItDoesNotHave) {
  Connect(CameraWithSeveralUnits());
  ULONG bytesReturned = 0;
  auto setSupport = [&](ULONG id, ULONG node) {
    KSP_NODE query = {};
    query.Property = {sim::kDepthXuSet, id, KSPROPERTY_TYPE_TOPOLOGY | KSPROPERTY_TYPE_SETSUPPORT};
    query.NodeId = node;
    return ksControl->KsProperty(&query.Property, sizeof(query), nullptr, 0, &bytesReturned);
  };
  EXPECT_EQ(S_OK, setSupport(3, 3));
  EXPECT_EQ(S_OK, setSupport(1, 3));  // the firmware command property
  EXPECT_NE(S_OK, setSupport(0x77, 3));
  EXPECT_NE(S_OK, setSupport(3, 1));
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_FOUND), setSupport(3, 40));
  // Discovery with a property the unit lacks finds nothing.
  EXPECT_EQ(E_NOINTERFACE, xu->Init(transform, ksControl, 0x77));

  ASSERT_EQ(S_OK, xu->Init(transform, ksControl, 3));
  filter->ClearRequests();
  KSMETHOD method = {sim::kDepthXuSet, 1, KSMETHOD_TYPE_SEND};
  EXPECT_NE(S_OK, xu->KsMethod(&method, sizeof(method), nullptr, 0, &bytesReturned));
  KSEVENT event = {sim::kDepthXuSet, 1, KSEVENT_TYPE_BASICSUPPORT};
  EXPECT_NE(S_OK, xu->KsEvent(&event, sizeof(event), nullptr, 0, &bytesReturned));
  const auto requests = filter->Requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(KsRequestKind::Method, requests[0].kind);
  EXPECT_EQ(KsRequestKind::Event, requests[1].kind);
  for (const auto &request : requests) EXPECT_EQ(3u, request.node);
}

}  // namespace
