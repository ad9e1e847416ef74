#include <gtest/gtest.h>

#include "common/MediaTypes.h"
#include "mft_core_streams/StreamTestSupport.h"
#include "mft_core/streams/OutputStream.h"

namespace {

using Microsoft::WRL::ComPtr;
using mft_core::OutputStream;
using mft_core::OutputStreamConfiguration;
using test_support::MakeVideoType;

std::shared_ptr<OutputStream> MakeStream(std::vector<ComPtr<IMFMediaType>> types) {
  OutputStreamConfiguration configuration;
  *configuration.mtList = std::move(types);
  auto stream = std::make_shared<OutputStream>(0, nullptr, configuration);
  EXPECT_EQ(S_OK, stream->Init());
  return stream;
}

struct SupportCase {
  const char *name;
  GUID subtype;
  UINT32 fps;
  DWORD mask;
  bool supported;
};

const SupportCase kSupportCases[] = {
    {"exact", MFVideoFormat_YUY2, 30, 0, true},
    {"other_rate_exact_only", MFVideoFormat_YUY2, 15, 0, false},
    {"other_rate_same_subtype", MFVideoFormat_YUY2, 15, MF_MEDIATYPE_EQUAL_MAJOR_TYPES | MF_MEDIATYPE_EQUAL_FORMAT_TYPES, true},
    {"other_rate_same_data", MFVideoFormat_YUY2, 15, MF_MEDIATYPE_EQUAL_FORMAT_TYPES | MF_MEDIATYPE_EQUAL_FORMAT_DATA, false},
    {"other_subtype_same_major", MFVideoFormat_NV12, 30, MF_MEDIATYPE_EQUAL_MAJOR_TYPES, true},
    {"other_subtype_same_subtype", MFVideoFormat_NV12, 30, MF_MEDIATYPE_EQUAL_FORMAT_TYPES, false},
};

class StreamSupportTest : public ::testing::TestWithParam<SupportCase> {};

TEST_P(StreamSupportTest, MaskSelectsWhichPartialMatchesCount) {
  auto stream = MakeStream({MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30)});
  const SupportCase &c = GetParam();
  EXPECT_EQ(c.supported, stream->IsSupported(MakeVideoType(c.subtype, 640, 480, c.fps).Get(), c.mask));
}

INSTANTIATE_TEST_SUITE_P(Masks, StreamSupportTest, ::testing::ValuesIn(kSupportCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(StreamMediaTypesTest, MatchingComparesSubtypeSizeAndRateOnly) {
  auto stream = MakeStream({MakeVideoType(MFVideoFormat_YUY2, 640, 480, 15), MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30)});
  ComPtr<IMFMediaType> result;

  auto request = MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30);
  ASSERT_EQ(S_OK, request->SetUINT32(MF_MT_DEFAULT_STRIDE, 1234));
  ASSERT_EQ(S_OK, request->SetUINT32(MF_MT_INTERLACE_MODE, MFVideoInterlace_FieldInterleavedUpperFirst));
  ASSERT_EQ(S_OK, stream->FindMatchingMediaType(result, request.Get()));
  ComPtr<IMFMediaType> second;
  ASSERT_EQ(S_OK, stream->GetMediaTypeAt(1, second.GetAddressOf()));
  EXPECT_EQ(second.Get(), result.Get());

  ComPtr<IMFMediaType> none;
  EXPECT_EQ(E_FAIL, stream->FindMatchingMediaType(none, MakeVideoType(MFVideoFormat_YUY2, 640, 360, 30).Get()));
  EXPECT_EQ(E_FAIL, stream->FindMatchingMediaType(none, MakeVideoType(MFVideoFormat_NV12, 640, 480, 30).Get()));
  auto noRate = MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30);
  ASSERT_EQ(S_OK, noRate->DeleteItem(MF_MT_FRAME_RATE));
  EXPECT_EQ(E_FAIL, stream->FindMatchingMediaType(none, noRate.Get()));
  EXPECT_FALSE(none);
}

struct Mode {
  UINT32 width, height, fps;
};

struct ClosestCase {
  const char *name;
  std::vector<Mode> modes;  // YUY2, in list order; an NV12 640x480@30 is listed first in every case
  UINT32 minFps, minWidth, minHeight;
  int expected;  // index into modes, -1 for none
};

class StreamClosestTest : public ::testing::TestWithParam<ClosestCase> {};

TEST_P(StreamClosestTest, PicksBySizeThenRateInListOrder) {
  const ClosestCase &c = GetParam();
  std::vector<ComPtr<IMFMediaType>> types{MakeVideoType(MFVideoFormat_NV12, 160, 120, 60)};
  for (const Mode &m : c.modes) types.push_back(MakeVideoType(MFVideoFormat_YUY2, m.width, m.height, m.fps));
  auto stream = MakeStream(types);
  ComPtr<IMFMediaType> result;
  const HRESULT hr = stream->FindClosestMediaType(result, MFVideoFormat_YUY2, c.minFps, c.minWidth, c.minHeight);
  if (c.expected < 0) {
    EXPECT_EQ(E_FAIL, hr);
    return;
  }
  ASSERT_EQ(S_OK, hr);
  ComPtr<IMFMediaType> expected;
  ASSERT_EQ(S_OK, stream->GetMediaTypeAt(c.expected + 1, expected.GetAddressOf()));
  EXPECT_EQ(expected.Get(), result.Get());
}

const ClosestCase kClosestCases[] = {
    {"smallest_frame", {{640, 480, 30}, {320, 240, 30}, {640, 360, 30}}, 0, 0, 0, 1},
    {"lowest_qualifying_rate", {{640, 480, 30}, {640, 480, 15}}, 10, 0, 0, 1},
    {"rate_below_minimum_skipped", {{640, 480, 30}, {640, 480, 5}}, 10, 0, 0, 0},
    {"size_minimums", {{320, 240, 30}, {640, 480, 30}, {1280, 720, 30}}, 0, 600, 400, 1},
    // A lower frame replaces a narrower one: the rule looks at height once width is not smaller.
    {"lower_but_wider_replaces", {{640, 480, 30}, {1280, 400, 30}}, 0, 0, 0, 1},
    {"none_qualifies", {{640, 480, 30}}, 60, 0, 0, -1},
};

INSTANTIATE_TEST_SUITE_P(Lists, StreamClosestTest, ::testing::ValuesIn(kClosestCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
