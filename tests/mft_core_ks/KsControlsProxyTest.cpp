#include <gtest/gtest.h>

#include <cstring>

#include "common/FakeKsControl.h"
#include "common/RecordingKsControlsObserver.h"
#include "mft_core/ks/KsControlsProxy.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using test_support::FakeKsControl;
using test_support::RecordingKsControlsObserver;

constexpr HRESULT kNotReady = HRESULT_FROM_WIN32(ERROR_NOT_READY);

class KsControlsProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver = user_space_frameworks::MakeComObject<FakeKsControl>();
    proxy = user_space_frameworks::MakeComObject<KsControlsProxy>(driver.Get());
    proxy->AddKsControlsObserver(observer);
  }
  ComPtr<FakeKsControl> driver;
  ComPtr<KsControlsProxy> proxy;
  std::shared_ptr<RecordingKsControlsObserver> observer = std::make_shared<RecordingKsControlsObserver>();
};

struct RetryCase {
  const char *name;
  std::vector<HRESULT> script;
  HRESULT expected;
  size_t calls;
};

class ProxyRetryTest : public KsControlsProxyTest, public ::testing::WithParamInterface<RetryCase> {};

TEST_P(ProxyRetryTest, RetriesOnlyNotReadyAndObservesEveryAttempt) {
  const RetryCase &c = GetParam();
  for (KsControlType type : {KsControlType::Property, KsControlType::Event, KsControlType::Method}) {
    driver->Script(c.script);
    KSIDENTIFIER identifier{};
    identifier.Id = 3;
    ULONG bytes = 0;
    HRESULT hr = E_UNEXPECTED;
    switch (type) {
      case KsControlType::Property: hr = proxy->KsProperty(&identifier, sizeof(identifier), nullptr, 0, &bytes); break;
      case KsControlType::Event: hr = proxy->KsEvent(&identifier, sizeof(identifier), nullptr, 0, &bytes); break;
      case KsControlType::Method: hr = proxy->KsMethod(&identifier, sizeof(identifier), nullptr, 0, &bytes); break;
    }
    EXPECT_EQ(c.expected, hr);
    EXPECT_EQ(c.calls, driver->Count(type));
  }
  const auto entries = observer->Entries();
  ASSERT_EQ(c.calls * 2 * 3, entries.size());
  for (size_t i = 0; i < entries.size(); i += 2) {
    EXPECT_FALSE(entries[i].exit);
    EXPECT_TRUE(entries[i + 1].exit);
    EXPECT_EQ(entries[i].type, entries[i + 1].type);
  }
  EXPECT_EQ(c.expected, entries.back().result);
}

const RetryCase kRetryCases[] = {
    {"ReadyAfterThree", {kNotReady, kNotReady, kNotReady, S_OK}, S_OK, 4},
    {"NeverReady", std::vector<HRESULT>(12, kNotReady), kNotReady, 10},
    {"OtherFailure", {E_ACCESSDENIED, S_OK}, E_ACCESSDENIED, 1},
    {"FirstTime", {}, S_OK, 1},
};
INSTANTIATE_TEST_SUITE_P(Cases, ProxyRetryTest, ::testing::ValuesIn(kRetryCases),
                         [](const auto &info) { return std::string(info.param.name); });

// A driver describing a stepped range (delta, reserved, min, max) and a default, as VT_I4 values.
struct ProcAmpDriver {
  ULONG descriptionSize = 40 + 16 + 16;
  ULONG descriptionBytes = 40;
  LONG step = 2, minimum = -10, maximum = 90, defaultValue = 33;

  HRESULT operator()(const FakeKsControl::Request &request) const {
    const auto *property = reinterpret_cast<const KSPROPERTY_CAMERACONTROL_S *>(request.identifier);
    EXPECT_TRUE(IsEqualGUID(PROPSETID_VIDCAP_VIDEOPROCAMP, property->Property.Set));
    EXPECT_EQ(KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL, property->Flags);
    auto *out = static_cast<BYTE *>(request.data);
    if (request.dataLength == 40) {
      KSPROPERTY_DESCRIPTION description{};
      description.DescriptionSize = descriptionSize;
      description.PropTypeSet.Id = VT_I4;
      description.MembersListCount = 1;
      std::memcpy(out, &description, sizeof(description));
      *request.bytesReturned = descriptionBytes;
      return S_OK;
    }
    const bool defaults = property->Property.Flags == KSPROPERTY_TYPE_DEFAULTVALUES;
    KSPROPERTY_MEMBERSHEADER members{};
    members.MembersSize = defaults ? sizeof(LONG) : 16;
    std::memcpy(out + 40, &members, sizeof(members));
    const LONG values[4] = {defaults ? defaultValue : step, 0, minimum, maximum};
    std::memcpy(out + 56, values, std::min<size_t>(sizeof(values), request.dataLength - 56));
    *request.bytesReturned = request.dataLength;
    return S_OK;
  }
};

TEST_F(KsControlsProxyTest, VideoProcAmpInfoReadsRangeAndDefault) {
  driver->SetResponder(ProcAmpDriver{});
  LONG minimum = 0, maximum = 0, step = 0, defaultValue = 0;
  ASSERT_EQ(S_OK, proxy->QueryKsPropertyVideoProCampInfo(KSPROPERTY_VIDEOPROCAMP_GAIN, &minimum, &maximum, &step, &defaultValue));
  EXPECT_EQ(-10, minimum);
  EXPECT_EQ(90, maximum);
  EXPECT_EQ(2, step);
  EXPECT_EQ(33, defaultValue);
  const auto requests = driver->Requests();
  ASSERT_EQ(4u, requests.size());
  EXPECT_EQ(ULONG(KSPROPERTY_TYPE_BASICSUPPORT), requests[0].flags);
  EXPECT_EQ(ULONG(KSPROPERTY_VIDEOPROCAMP_GAIN), requests[0].id);
  EXPECT_EQ(72u, requests[1].dataLength);
  EXPECT_EQ(ULONG(KSPROPERTY_TYPE_DEFAULTVALUES), requests[3].flags);
}

TEST_F(KsControlsProxyTest, VideoProcAmpInfoKeepsOutputsOnOddDescriptions) {
  ProcAmpDriver shortDescription;
  shortDescription.descriptionBytes = 36;
  driver->SetResponder(shortDescription);
  LONG minimum = 1, maximum = 2, step = 3, defaultValue = 4;
  EXPECT_EQ(S_OK, proxy->QueryKsPropertyVideoProCampInfo(1, &minimum, &maximum, &step, &defaultValue));
  EXPECT_EQ(1, minimum);
  EXPECT_EQ(4, defaultValue);
  EXPECT_EQ(1u, driver->Requests().size());

  // A description too small for its own values is refused rather than read past.
  ProcAmpDriver lying;
  lying.descriptionSize = 44;
  driver->SetResponder(lying);
  EXPECT_EQ(E_UNEXPECTED, proxy->QueryKsPropertyVideoProCampInfo(1, &minimum, &maximum, &step, &defaultValue));
  EXPECT_EQ(1, minimum);

  EXPECT_EQ(E_POINTER, proxy->QueryKsPropertyVideoProCampInfo(1, nullptr, &maximum, &step, &defaultValue));
  driver->Script({E_ACCESSDENIED});
  EXPECT_EQ(E_ACCESSDENIED, proxy->QueryKsPropertyVideoProCampInfo(1, &minimum, &maximum, &step, &defaultValue));
}

}  // namespace
}  // namespace mft_core
