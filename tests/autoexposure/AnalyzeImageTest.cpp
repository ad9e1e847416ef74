#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "SimulatedSensor.h"
#include "autoexposure/AutoExposure.h"

using autoexposure::AutoExposure;
using autoexposure::Image;

namespace {

struct ScoreCase {
    const char* name;
    std::int32_t firstCount;  // of 256 pixels
    std::uint8_t first;
    std::uint8_t rest;
    std::uint32_t dark;
    std::uint32_t bright;
    float mean;
    float score;
};

class ScoreTest : public ::testing::TestWithParam<ScoreCase> {};

TEST_P(ScoreTest, StatisticsScoreAndDirection) {
    const ScoreCase& c = GetParam();
    AutoExposure engine;
    const aetest::OwnedImage frame = aetest::SplitImage(16, 16, c.firstCount, c.first, c.rest);
    float target = 0.0f;
    ASSERT_TRUE(engine.AnalyzeImage(frame.View(), target));

    const autoexposure::Statistics& s = engine.LastStatistics();
    EXPECT_EQ(s.total, 256u);
    EXPECT_EQ(s.dark, c.dark);
    EXPECT_EQ(s.bright, c.bright);
    EXPECT_NEAR(s.mean, c.mean, 1e-4);
    EXPECT_NEAR(s.score, c.score, 1e-5);

    // The score is the relative change of the total exposure, capped by the limits.
    const float current = 10.0f * 2.0f;
    if (c.score > 0.0f) {
        EXPECT_EQ(engine.direction, 1);
        EXPECT_NEAR(target, std::fmin(current * (1.0f + c.score), 20.0f * 15.0f), 1e-3);
    } else {
        EXPECT_EQ(engine.direction, -1);
        EXPECT_NEAR(target, std::fmax(current * (1.0f + c.score), 0.25f * 2.0f), 1e-3);
    }
}

INSTANTIATE_TEST_SUITE_P(
    ConstructedFrames, ScoreTest,
    ::testing::Values(
        // Exactly 0 counts as too bright.
        ScoreCase{"all128", 0, 0, 128, 0, 0, 128.0f, 0.0f},
        // Nothing in the middle bins: the mean is taken over all bins.
        ScoreCase{"allBlack", 0, 0, 0, 256, 0, 0.0f, 1.6505882f},
        ScoreCase{"allAtDarkLimit", 0, 0, 5, 256, 0, 5.0f, 1.6447059f},
        ScoreCase{"allWhite", 0, 0, 250, 0, 256, 250.0f, -1.6435294f},
        // The first bin above each limit is a middle bin.
        ScoreCase{"justAboveDark", 0, 0, 6, 0, 0, 6.0f, 0.1435294f},
        ScoreCase{"justBelowBright", 0, 0, 249, 0, 0, 249.0f, -0.1423529f},
        // Mixed: dark or bright pixels shift the score, the mean covers the middle only.
        ScoreCase{"halfBlackHalf200", 128, 0, 200, 128, 0, 200.0f, 0.6652941f},
        ScoreCase{"halfWhiteHalf100", 128, 255, 100, 0, 128, 100.0f, -0.7170588f},
        ScoreCase{"quarter64Rest192", 64, 64, 192, 0, 0, 160.0f, -0.0376471f}),
    [](const ::testing::TestParamInfo<ScoreCase>& info) { return std::string(info.param.name); });

// The unrolled histogram must count every pixel of odd widths exactly once and
// never read the padding between rows; a weighted one adds each pixel's weight
// (zero weights included, which leave their pixels out).
TEST(AnalyzeImageTest, HistogramMatchesDirectCountWithPaddingAndOddWidths) {
    std::mt19937 random(7);
    for (std::int32_t columns : {1, 3, 7, 8, 13, 31}) {
        const std::int32_t rows = 5;
        const std::int32_t stride = columns + 3;
        std::vector<std::uint8_t> pixels(static_cast<std::size_t>(rows * stride), 255);
        std::vector<std::uint8_t> weights(static_cast<std::size_t>(rows * columns));
        std::vector<std::uint32_t> plain(256, 0), weighted(256, 0);
        for (std::int32_t r = 0; r < rows; ++r) {
            for (std::int32_t c = 0; c < columns; ++c) {
                const auto value = static_cast<std::uint8_t>(random() % 200);
                const auto weight = static_cast<std::uint8_t>(random() % 4);
                pixels[static_cast<std::size_t>(r * stride + c)] = value;
                weights[static_cast<std::size_t>(r * columns + c)] = weight;
                ++plain[value];
                weighted[value] += weight;
            }
        }
        const Image frame{pixels.data(), rows, columns, stride};

        AutoExposure engine;
        float target = 0.0f;
        ASSERT_TRUE(engine.AnalyzeImage(frame, target));
        EXPECT_EQ(std::vector<std::uint32_t>(engine.Histogram(), engine.Histogram() + 256), plain)
            << "columns " << columns;

        engine.useWeights = 1;
        ASSERT_TRUE(engine.SetWeights(Image{weights.data(), rows, columns, columns}));
        std::uint32_t weightSum = 0;
        for (std::uint32_t w : weighted) weightSum += w;
        if (weightSum == 0) continue;
        engine.AnalyzeImage(frame, target);
        EXPECT_EQ(std::vector<std::uint32_t>(engine.Histogram(), engine.Histogram() + 256), weighted)
            << "columns " << columns;
        EXPECT_EQ(engine.LastStatistics().total, weightSum);
    }
}

// A fisheye mask: zero margins of every width (a whole zero row too), zero
// holes inside a row, padded rows. Replacing the mask must forget its margins.
TEST(AnalyzeImageTest, WeightedHistogramOfMaskWithZeroMarginsMatchesDirectCount) {
    const std::int32_t rows = 11, columns = 37, stride = columns + 5;
    std::mt19937 random(11);
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(rows * stride), 255);
    std::vector<std::uint8_t> mask(static_cast<std::size_t>(rows * columns), 0);
    std::vector<std::uint32_t> plain(256, 0), weighted(256, 0);
    for (std::int32_t r = 0; r < rows; ++r) {
        // Row 0 is all zero; the others keep columns [r, columns - 2r) with a hole at r + 9.
        for (std::int32_t c = 0; c < columns; ++c) {
            const auto value = static_cast<std::uint8_t>(random() % 256);
            const bool inside = r > 0 && c >= r && c < columns - 2 * r && c != r + 9;
            const auto weight = static_cast<std::uint8_t>(inside ? 1 + random() % 255 : 0);
            pixels[static_cast<std::size_t>(r * stride + c)] = value;
            mask[static_cast<std::size_t>(r * columns + c)] = weight;
            ++plain[value];
            weighted[value] += weight;
        }
    }
    const Image frame{pixels.data(), rows, columns, stride};
    const auto histogram = [](const AutoExposure& engine) {
        return std::vector<std::uint32_t>(engine.Histogram(), engine.Histogram() + 256);
    };

    AutoExposure engine;
    engine.useWeights = 1;
    float target = 0.0f;
    ASSERT_TRUE(engine.SetWeights(Image{mask.data(), rows, columns, columns}));
    ASSERT_TRUE(engine.AnalyzeImage(frame, target));
    EXPECT_EQ(histogram(engine), weighted);

    const std::vector<std::uint8_t> ones(mask.size(), 1);
    ASSERT_TRUE(engine.SetWeights(Image{ones.data(), rows, columns, columns}));
    ASSERT_TRUE(engine.AnalyzeImage(frame, target));
    EXPECT_EQ(histogram(engine), plain);

    // A refused geometry keeps the mask that was there, margins included.
    ASSERT_TRUE(engine.SetWeights(Image{mask.data(), rows, columns, columns}));
    EXPECT_FALSE(engine.SetWeights(Image{ones.data(), rows, columns, columns - 1}));
    ASSERT_TRUE(engine.AnalyzeImage(frame, target));
    EXPECT_EQ(histogram(engine), weighted);
}

struct HysteresisCase {
    const char* name;
    std::uint8_t value;
    std::int32_t lastDirection;
    bool modifies;
};

class HysteresisTest : public ::testing::TestWithParam<HysteresisCase> {};

TEST_P(HysteresisTest, ReversalBelowThresholdIsRefused) {
    const HysteresisCase& c = GetParam();
    AutoExposure engine;
    engine.lastDirection = c.lastDirection;
    const bool modified = engine.AddImage(aetest::UniformImage(8, 8, c.value).View());
    EXPECT_EQ(modified, c.modifies);
    if (c.modifies) {
        EXPECT_EQ(engine.lastDirection, engine.direction);
        EXPECT_NE(engine.exposure * engine.gain, 20.0f);
    } else {
        EXPECT_EQ(engine.lastDirection, c.lastDirection);
        EXPECT_EQ(engine.exposure, 10.0f);
        EXPECT_EQ(engine.gain, 2.0f);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Reversals, HysteresisTest,
    ::testing::Values(
        // 140: 1.4 % too bright; 200: 9.3 %; 100: 3.2 % too dark; 40: 9.4 %.
        HysteresisCase{"slightlyBrightAfterIncrease", 140, 1, false},
        HysteresisCase{"muchBrighterAfterIncrease", 200, 1, true},
        HysteresisCase{"slightlyDarkAfterDecrease", 100, -1, false},
        HysteresisCase{"muchDarkerAfterDecrease", 40, -1, true},
        HysteresisCase{"sameDirectionAlwaysModifies", 140, -1, true},
        HysteresisCase{"firstDecisionAlwaysModifies", 140, 0, true}),
    [](const ::testing::TestParamInfo<HysteresisCase>& info) { return std::string(info.param.name); });

// Frames that must change nothing: no modification, state untouched, no crash.
TEST(AnalyzeImageTest, RefusedFramesLeaveStateUntouched) {
    std::vector<std::uint8_t> pixels(64, 0);
    std::vector<std::uint8_t> zeroWeights(64, 0);
    std::vector<std::uint8_t> otherWeights(6 * 8, 1);
    struct Case {
        const char* name;
        Image frame;
        const std::vector<std::uint8_t>* weights;
        std::int32_t weightRows;
    } cases[] = {
        {"noRows", Image{pixels.data(), 0, 8, 8}, nullptr, 0},
        {"noColumns", Image{pixels.data(), 8, 0, 8}, nullptr, 0},
        {"negativeRows", Image{pixels.data(), -8, 8, 8}, nullptr, 0},
        {"nullData", Image{nullptr, 8, 8, 8}, nullptr, 0},
        {"strideBelowRow", Image{pixels.data(), 8, 8, 7}, nullptr, 0},
        {"tooManyPixels", Image{pixels.data(), 1 << 13, 1 << 12, 1 << 12}, nullptr, 0},
        {"allZeroWeights", Image{pixels.data(), 8, 8, 8}, &zeroWeights, 8},
        {"weightsOfOtherGeometry", Image{pixels.data(), 8, 8, 8}, &otherWeights, 6},
    };
    for (const Case& c : cases) {
        AutoExposure engine;
        engine.lastDirection = 1;
        if (c.weights != nullptr) {
            engine.useWeights = 1;
            ASSERT_TRUE(engine.SetWeights(Image{c.weights->data(), c.weightRows, 8, 8}));
        }
        EXPECT_FALSE(engine.AddImage(c.frame)) << c.name;
        EXPECT_EQ(engine.exposure, 10.0f) << c.name;
        EXPECT_EQ(engine.gain, 2.0f) << c.name;
        EXPECT_EQ(engine.direction, 0) << c.name;
        EXPECT_EQ(engine.lastDirection, 1) << c.name;
    }
}

TEST(AnalyzeImageTest, WeightsAreIgnoredUnlessEnabledAndCanBeRemoved) {
    std::vector<std::uint8_t> weights(6 * 8, 1);
    AutoExposure engine;
    ASSERT_TRUE(engine.SetWeights(Image{weights.data(), 6, 8, 8}));
    float target = 0.0f;
    // Another geometry, but weights are off.
    EXPECT_TRUE(engine.AnalyzeImage(aetest::UniformImage(8, 8, 128).View(), target));
    engine.useWeights = 1;
    EXPECT_FALSE(engine.AnalyzeImage(aetest::UniformImage(8, 8, 128).View(), target));
    ASSERT_TRUE(engine.SetWeights(Image{}));
    EXPECT_TRUE(engine.AnalyzeImage(aetest::UniformImage(8, 8, 128).View(), target));
    // Invalid weight geometry is refused and keeps what was there.
    EXPECT_FALSE(engine.SetWeights(Image{weights.data(), 6, 8, 4}));
}

}  // namespace
