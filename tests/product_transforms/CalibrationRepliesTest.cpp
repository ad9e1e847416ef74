// Intrinsics records that are short or lie about their model count: nothing may be read past what the
// driver returned. (Reading the calibration controls themselves is checked through the transforms.)
#include <gtest/gtest.h>

#include <cstring>

#include "product/transforms/WQ400CalibrationReplies.h"
#include "sim/CalibrationReplies.h"

using namespace mft_core;

namespace {

TEST(IntrinsicsRecord, CopiesExactlyTheModelsTheCountClaimsWhenTheyAreThere) {
  std::vector<BYTE> twoModels = sim::IntrinsicsBody(640, 480, 320.0f, 2);
  const std::vector<BYTE> second = sim::IntrinsicsBody(320, 240, 160.0f);
  twoModels.insert(twoModels.end(), second.begin() + 4, second.end());
  twoModels.resize(twoModels.size() + 10, 0xAB);  // trailing bytes are not part of the record

  struct Case {
    const char *name;
    UINT32 count;
    size_t size;
    size_t expected;
  };
  const Case cases[] = {
      {"two models", 2, twoModels.size(), 4 + 2 * 44},
      {"one of two", 1, twoModels.size(), 4 + 44},
      {"no model", 0, twoModels.size(), 0},
      {"one byte short", 2, 4 + 2 * 44 - 1, 0},
      {"count only", 1, 4, 0},
      {"shorter than the count", 1, 3, 0},
      {"count that would overflow", 0xFFFFFFFF, twoModels.size(), 0},
  };
  for (const Case &c : cases) {
    std::vector<BYTE> body = twoModels;
    std::memcpy(body.data(), &c.count, sizeof(c.count));
    std::vector<BYTE> intrinsics{1};
    EXPECT_EQ(c.expected != 0, CopyIntrinsicsRecord(body.data(), c.size, intrinsics)) << c.name;
    ASSERT_EQ(c.expected, intrinsics.size()) << c.name;
    EXPECT_TRUE(std::equal(intrinsics.begin(), intrinsics.end(), body.begin())) << c.name;
  }
}

}  // namespace
