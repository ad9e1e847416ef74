#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "common/MediaTypes.h"
#include "mft_core/transform/MFDeviceTransform.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;

ComPtr<IMFMediaType> MakeType(UINT32 width, UINT32 height) {
  return test_support::MakeVideoType(MFVideoFormat_YUY2, width, height, 30);
}

// Streams are made directly (no driver filter): input streams 7 and 9, output streams 0 and 1 offering
// one type each. Starting and stopping an output stream only sets its type and state.
class TestTransform : public MFDeviceTransform {
 public:
  HRESULT AddStreams() {
    for (DWORD id : {7u, 9u}) inputStreams.push_back(std::make_shared<InputStream>(id, this));
    for (DWORD id : {0u, 1u}) {
      OutputStreamConfiguration configuration;
      configuration.mtList->push_back(MakeType(640, 480));
      auto stream = std::make_shared<OutputStream>(id, this, configuration);
      RETURN_IF_FAILED(stream->Init());
      outputStreams.push_back(stream);
    }
    return S_OK;
  }
  std::shared_ptr<OutputStream> Output(size_t index) { return outputStreams.at(index); }
  void SetAttributes(IMFAttributes *value) { attributes = value; }

  std::function<void()> onGetStreamCount;
  int starts = 0;
  int stops = 0;

 protected:
  HRESULT OnGetStreamCount(DWORD *in, DWORD *out) override {
    if (onGetStreamCount) onGetStreamCount();
    return MFDeviceTransform::OnGetStreamCount(in, out);
  }
  HRESULT StartOutputStream(const std::shared_ptr<OutputStream> &stream, IMFMediaType *type) override {
    ++starts;
    RETURN_IF_FAILED(stream->SetCurrentMediaType(type));
    return stream->SetState(DeviceStreamState_Run);
  }
  HRESULT StopOutputStream(const std::shared_ptr<OutputStream> &stream, IMFMediaType *type) override {
    ++stops;
    RETURN_IF_FAILED(stream->SetState(DeviceStreamState_Stop));
    return stream->SetCurrentMediaType(type);
  }
  HRESULT UninitializeMembers() override { return S_OK; }
  HRESULT CreateAttributes() override { return S_OK; }
  HRESULT CreateInputStreams() override { return S_OK; }
  HRESULT CreateIntrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &) override { return S_OK; }
  HRESULT CreateExtrinsics(const std::shared_ptr<InputStream> &, std::vector<BYTE> &) override { return S_OK; }
  HRESULT CreateOutputStream(const std::shared_ptr<InputStream> &) override { return E_NOTIMPL; }
  HRESULT InitOutputStreamConfiguration(OutputStreamConfiguration &, const std::shared_ptr<InputStream> &) override {
    return E_NOTIMPL;
  }
  HRESULT BuildTopology(const std::shared_ptr<OutputStream> &, IMFMediaType *, std::shared_ptr<Topology> &) override {
    return E_NOTIMPL;
  }
  HRESULT InitializeMembers() override { return S_OK; }
  HRESULT CreateFilterKsControl() override { return S_OK; }
  HRESULT RegisterKsControlHandlres() override { return S_OK; }
};

class MFDeviceTransformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    object = user_space_frameworks::MakeComObject<TestTransform>();
    ASSERT_EQ(S_OK, object->AddStreams());
    ASSERT_EQ(S_OK, object.As(&device));
    ASSERT_EQ(S_OK, object.As(&transform));
    ASSERT_EQ(S_OK, object.As(&shutdown));
  }
  void TearDown() override { shutdown->Shutdown(); }

  ComPtr<TestTransform> object;
  ComPtr<IMFDeviceTransform> device;
  ComPtr<IMFTransform> transform;
  ComPtr<IMFShutdown> shutdown;
};

TEST_F(MFDeviceTransformTest, TransformViewForwardsOnlyItsListedMethods) {
  DWORD in = 0, out = 0;
  ASSERT_EQ(S_OK, transform->GetStreamCount(&in, &out));
  EXPECT_EQ(2u, in);
  EXPECT_EQ(2u, out);
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(S_OK, transform->GetOutputAvailableType(1, 0, &type));
  EXPECT_EQ(MF_E_TRANSFORM_TYPE_NOT_SET, transform->GetOutputCurrentType(1, &type));
  EXPECT_EQ(S_OK, transform->ProcessEvent(7, nullptr));

  // The device view answers the input current type; the transform view does not.
  EXPECT_EQ(MF_E_TRANSFORM_TYPE_NOT_SET, device->GetInputCurrentType(7, &type));
  EXPECT_EQ(E_NOTIMPL, transform->GetInputCurrentType(7, &type));
  DWORD status = 5;
  MFT_OUTPUT_DATA_BUFFER buffer{};
  EXPECT_EQ(E_NOTIMPL, transform->ProcessOutput(0, 1, &buffer, &status));
  EXPECT_EQ(5u, status);
  EXPECT_EQ(E_NOTIMPL, transform->ProcessInput(7, nullptr, 0));
  EXPECT_EQ(E_NOTIMPL, transform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0));
  EXPECT_EQ(E_NOTIMPL, transform->GetStreamLimits(&in, &out, &in, &out));
  EXPECT_EQ(E_NOTIMPL, transform->SetOutputType(0, type.Get(), 0));
  EXPECT_EQ(E_NOTIMPL, transform->SetOutputBounds(0, 1));
  // Refused without the shutdown check.
  ASSERT_EQ(S_OK, shutdown->Shutdown());
  EXPECT_EQ(E_NOTIMPL, transform->GetInputStatus(7, &status));
  EXPECT_EQ(MF_E_SHUTDOWN, transform->GetStreamCount(&in, &out));
}

TEST_F(MFDeviceTransformTest, EveryGuardedCallFailsAfterShutdown) {
  MFSHUTDOWN_STATUS status = MFSHUTDOWN_COMPLETED;
  ASSERT_EQ(S_OK, shutdown->GetShutdownStatus(&status));
  EXPECT_EQ(MFSHUTDOWN_INITIATED, status);
  ASSERT_EQ(S_OK, shutdown->Shutdown());
  EXPECT_EQ(MF_E_SHUTDOWN, shutdown->Shutdown());
  ASSERT_EQ(S_OK, shutdown->GetShutdownStatus(&status));
  EXPECT_EQ(MFSHUTDOWN_COMPLETED, status);
  EXPECT_EQ(E_POINTER, shutdown->GetShutdownStatus(nullptr));

  ComPtr<IMFMediaType> type = MakeType(640, 480);
  ComPtr<IMFMediaType> outType;
  ComPtr<IMFAttributes> attributes;
  DWORD ids[4] = {};
  DWORD status32 = 0;
  DeviceStreamState state = DeviceStreamState_Stop;
  MFT_OUTPUT_DATA_BUFFER buffer{};
  const HRESULT results[] = {
      device->InitializeTransform(nullptr),
      device->GetInputAvailableType(7, 0, &outType),
      device->GetInputCurrentType(7, &outType),
      device->GetInputStreamAttributes(7, &attributes),
      device->GetOutputAvailableType(0, 0, &outType),
      device->GetOutputCurrentType(0, &outType),
      device->GetOutputStreamAttributes(0, &attributes),
      device->GetStreamCount(&status32, &status32),
      device->GetStreamIDs(2, ids, 2, ids + 2),
      device->ProcessEvent(7, nullptr),
      device->ProcessInput(7, nullptr, 0),
      device->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0),
      device->ProcessOutput(0, 1, &buffer, &status32),
      device->SetInputStreamState(7, type.Get(), DeviceStreamState_Run, 0),
      device->GetInputStreamState(7, &state),
      device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0),
      device->GetOutputStreamState(0, &state),
      device->GetInputStreamPreferredState(7, &state, &outType),
      device->FlushInputStream(7, 0),
      device->FlushOutputStream(0, 0),
      transform->GetAttributes(&attributes),
  };
  for (size_t i = 0; i < sizeof(results) / sizeof(results[0]); ++i) {
    EXPECT_EQ(MF_E_SHUTDOWN, results[i]) << "call " << i;
  }
  EXPECT_EQ(0, object->starts);
}

// Which code each kind of exception becomes is the guard's own concern; here: both views run guarded.
TEST_F(MFDeviceTransformTest, HandlerExceptionsBecomeCodes) {
  object->onGetStreamCount = [] { throw std::bad_alloc(); };
  DWORD in = 0, out = 0;
  EXPECT_EQ(E_OUTOFMEMORY, device->GetStreamCount(&in, &out));
  EXPECT_EQ(E_OUTOFMEMORY, transform->GetStreamCount(&in, &out));
}

TEST_F(MFDeviceTransformTest, StreamIdsFollowTheBufferRules) {
  DWORD in[2] = {}, out[3] = {0xAA, 0xAA, 0xAA};
  EXPECT_EQ(MF_E_BUFFERTOOSMALL, device->GetStreamIDs(1, in, 3, out));
  EXPECT_EQ(0xAAu, out[0]);
  ASSERT_EQ(S_OK, device->GetStreamIDs(2, in, 3, out));
  EXPECT_EQ(7u, in[0]);
  EXPECT_EQ(9u, in[1]);
  EXPECT_EQ(0u, out[0]);
  EXPECT_EQ(1u, out[1]);
  EXPECT_EQ(0xAAu, out[2]);
  EXPECT_EQ(S_OK, device->GetStreamIDs(0, nullptr, 2, out));
  EXPECT_EQ(MF_E_BUFFERTOOSMALL, device->GetStreamIDs(0, nullptr, 1, out));
  EXPECT_EQ(S_OK, device->GetStreamIDs(0, nullptr, 0, nullptr));
  DWORD onlyIn = 0;
  EXPECT_EQ(S_OK, device->GetStreamCount(&onlyIn, nullptr));
  EXPECT_EQ(2u, onlyIn);
}

TEST_F(MFDeviceTransformTest, UnknownStreamsAndNullPointersAreRefused) {
  ComPtr<IMFMediaType> type;
  ComPtr<IMFAttributes> attributes;
  DeviceStreamState state = DeviceStreamState_Stop;
  EXPECT_EQ(E_FAIL, device->GetInputAvailableType(0, 0, &type));  // 0 is an output id only
  EXPECT_EQ(E_FAIL, device->GetOutputAvailableType(7, 0, &type));
  EXPECT_EQ(E_FAIL, device->GetInputStreamAttributes(8, &attributes));
  EXPECT_EQ(E_FAIL, device->GetOutputStreamState(2, &state));
  EXPECT_EQ(E_FAIL, device->FlushOutputStream(5, 0));
  EXPECT_EQ(E_FAIL, device->SetOutputStreamState(5, nullptr, DeviceStreamState_Run, 0));
  EXPECT_EQ(E_POINTER, device->GetOutputStreamState(0, nullptr));
  EXPECT_EQ(E_POINTER, device->GetInputStreamState(7, nullptr));
  EXPECT_EQ(E_POINTER, device->InitializeTransform(nullptr));
  EXPECT_EQ(E_POINTER, transform->GetAttributes(nullptr));
  EXPECT_EQ(E_FAIL, transform->GetAttributes(&attributes));
  ComPtr<IMFAttributes> store;
  ASSERT_EQ(S_OK, MFCreateAttributes(&store, 1));
  object->SetAttributes(store.Get());
  ASSERT_EQ(S_OK, transform->GetAttributes(&attributes));
  EXPECT_EQ(store.Get(), attributes.Get());
  // Without the filter's control the initialisation fails with the attribute store's answer.
  EXPECT_EQ(MF_E_ATTRIBUTENOTFOUND, device->InitializeTransform(store.Get()));
  EXPECT_EQ(MF_E_NO_MORE_TYPES, device->GetOutputAvailableType(0, 1, &type));

  ComPtr<IMFSample> sample;
  ASSERT_EQ(S_OK, MFCreateSample(&sample));
  EXPECT_EQ(E_POINTER, device->ProcessInput(7, nullptr, 0));
  EXPECT_EQ(MF_E_NO_SAMPLE_TIMESTAMP, device->ProcessInput(7, sample.Get(), 0));
  sample->SetSampleTime(1000);
  EXPECT_EQ(E_FAIL, device->ProcessInput(8, sample.Get(), 0));
}

struct StateCase {
  const char *name;
  int state;
  HRESULT expected;
  int starts;
  int stops;
};

class OutputStateTest : public MFDeviceTransformTest, public ::testing::WithParamInterface<StateCase> {};

TEST_P(OutputStateTest, ActsOnlyOnStopAndRun) {
  ComPtr<IMFMediaType> type = MakeType(640, 480);
  EXPECT_EQ(GetParam().expected,
            device->SetOutputStreamState(1, type.Get(), static_cast<DeviceStreamState>(GetParam().state), 0));
  EXPECT_EQ(GetParam().starts, object->starts);
  EXPECT_EQ(GetParam().stops, object->stops);
}

const StateCase kStateCases[] = {
    {"Stop", 0, S_OK, 0, 1}, {"Pause", 1, E_NOTIMPL, 0, 0}, {"Run", 2, S_OK, 1, 0},
    {"Disabled", 3, E_NOTIMPL, 0, 0}, {"Four", 4, E_INVALIDARG, 0, 0}, {"Huge", 0x7fffffff, E_INVALIDARG, 0, 0},
};
INSTANTIATE_TEST_SUITE_P(States, OutputStateTest, ::testing::ValuesIn(kStateCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(MFDeviceTransformTest, RunningWithTheSameTypeIsANoOpButANewTypeRestarts) {
  ComPtr<IMFMediaType> type = MakeType(640, 480);
  ASSERT_EQ(S_OK, device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0));
  ComPtr<IMFMediaType> equal = MakeType(640, 480);
  ASSERT_EQ(S_OK, device->SetOutputStreamState(0, equal.Get(), DeviceStreamState_Run, 0));
  EXPECT_EQ(1, object->starts);
  ComPtr<IMFMediaType> other = MakeType(320, 240);
  ASSERT_EQ(S_OK, device->SetOutputStreamState(0, other.Get(), DeviceStreamState_Run, 0));
  EXPECT_EQ(2, object->starts);
  DeviceStreamState state = DeviceStreamState_Stop;
  ASSERT_EQ(S_OK, device->GetOutputStreamState(0, &state));
  EXPECT_EQ(DeviceStreamState_Run, state);
}

TEST_F(MFDeviceTransformTest, ProcessOutputSucceedsWhenAnyRequestedStreamDelivers) {
  DWORD status = 77;
  EXPECT_EQ(MF_E_TRANSFORM_NEED_MORE_INPUT, device->ProcessOutput(0, 0, nullptr, &status));
  EXPECT_EQ(0u, status);
  MFT_OUTPUT_DATA_BUFFER buffers[3] = {};
  EXPECT_EQ(E_INVALIDARG, device->ProcessOutput(0, 3, buffers, &status));
  EXPECT_EQ(E_POINTER, device->ProcessOutput(0, 1, buffers, nullptr));

  // Running stream 0 with an empty queue; unknown stream 5 is skipped.
  ComPtr<IMFMediaType> type = MakeType(640, 480);
  ASSERT_EQ(S_OK, device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0));
  ASSERT_EQ(S_OK, device->SetOutputStreamState(1, type.Get(), DeviceStreamState_Run, 0));
  buffers[0].dwStreamID = 5;
  buffers[1].dwStreamID = 0;
  EXPECT_EQ(MF_E_TRANSFORM_NEED_MORE_INPUT, device->ProcessOutput(0, 2, buffers, &status));
  EXPECT_EQ(DWORD(MFT_OUTPUT_DATA_BUFFER_NO_SAMPLE), buffers[1].dwStatus);

  ComPtr<IMFSample> sample;
  ASSERT_EQ(S_OK, MFCreateSample(&sample));
  sample->SetSampleTime(42);
  ASSERT_EQ(S_OK, object->Output(1)->ProcessSample(sample.Get()));
  buffers[0] = {};
  buffers[0].dwStreamID = 1;
  buffers[1] = {};
  buffers[1].dwStreamID = 0;
  EXPECT_EQ(S_OK, device->ProcessOutput(0, 2, buffers, &status));
  EXPECT_EQ(sample.Get(), buffers[0].pSample);
  EXPECT_EQ(nullptr, buffers[1].pSample);
  if (buffers[0].pSample) buffers[0].pSample->Release();

  // A stopped stream counts as served and leaves its buffer alone.
  ASSERT_EQ(S_OK, device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Stop, 0));
  buffers[1] = {};
  buffers[1].dwStreamID = 0;
  buffers[1].dwStatus = 0x1234;
  EXPECT_EQ(S_OK, device->ProcessOutput(0, 1, &buffers[1], &status));
  EXPECT_EQ(0x1234u, buffers[1].dwStatus);
}

}  // namespace
}  // namespace mft_core
