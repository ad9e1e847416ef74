#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "autoexposure/AutoExposure.h"

using autoexposure::AutoExposure;
using autoexposure::AutoExposureAntiFlicker;
using autoexposure::HybridAutoExposure;

namespace {

// Exposure of a whole number of sensor lines, as the engine computes it.
float Lines(float lines) { return lines * autoexposure::kLineTimeUs / 1000.0f; }

struct SplitCase {
    float total;
    float exposure;
    float gain;
};

TEST(PlainSplitTest, ExposureFirstThenGain) {
    const SplitCase cases[] = {
        {8.0f, 4.0f, 2.0f},      // within range: lowest gain
        {100.0f, 20.0f, 5.0f},   // exposure at its limit, gain makes up the rest
        {1000.0f, 20.0f, 15.0f}, // both at their limits
        {0.1f, 0.25f, 2.0f},     // below the range: both at their minimum
    };
    AutoExposure engine;
    for (const SplitCase& c : cases) {
        float e = 0.0f, g = 0.0f;
        engine.IncreaseExposureGain(c.total, e, g);
        EXPECT_FLOAT_EQ(e, c.exposure) << c.total;
        EXPECT_FLOAT_EQ(g, c.gain) << c.total;
        float e2 = 0.0f, g2 = 0.0f;
        engine.DecreaseExposureGain(c.total, e2, g2);
        EXPECT_EQ(e2, e);
        EXPECT_EQ(g2, g);
    }
}

struct AntiFlickerCase {
    float period;
    float total;
    float exposure;
    float gain;
};

class AntiFlickerSplitTest : public ::testing::TestWithParam<AntiFlickerCase> {};

TEST_P(AntiFlickerSplitTest, ChoosesBestCandidate) {
    const AntiFlickerCase& c = GetParam();
    AutoExposureAntiFlicker engine(c.period);
    float e = 0.0f, g = 0.0f;
    engine.IncreaseExposureGain(c.total, e, g);
    EXPECT_FLOAT_EQ(e, c.exposure);
    EXPECT_FLOAT_EQ(g, c.gain);
    float e2 = 0.0f, g2 = 0.0f;
    engine.DecreaseExposureGain(c.total, e2, g2);
    EXPECT_EQ(e2, e);
    EXPECT_EQ(g2, g);
}

INSTANTIATE_TEST_SUITE_P(
    Candidates, AntiFlickerSplitTest,
    ::testing::Values(
        AntiFlickerCase{10.0f, 20.0f, 10.0f, 2.0f},    // exact at the lowest gain
        AntiFlickerCase{10.0f, 40.0f, 10.0f, 4.0f},    // tie with 20 x 2: shorter exposure wins
        AntiFlickerCase{10.0f, 152.0f, 20.0f, 7.6f},   // one period would need gain above 15
        AntiFlickerCase{10.0f, 10.0f, 10.0f, 2.0f},    // too bright even for one period
        AntiFlickerCase{10.0f, 400.0f, 20.0f, 15.0f},  // too dark even for the limits
        AntiFlickerCase{7.0f, 42.0f, 7.0f, 6.0f},      // three exact candidates
        AntiFlickerCase{7.0f, 140.0f, 14.0f, 10.0f},    // 14 and 20 exact: 14 wins
        AntiFlickerCase{25.0f, 100.0f, 25.0f, 4.0f})); // period above maxExposure

TEST(ModifyExposureTest, TwiceTheTotalIsReachedInStepsOfFivePercent) {
    // 1.05^14 = 1.98: fourteen full steps, each 5 % up to the rounding to lines.
    for (float factor : {2.0f, 0.5f}) {
        // Steps of 5 % stay above the snap step between 4 and 8 ms.
        AutoExposure engine;
        engine.exposure = factor > 1.0f ? 4.0f : 8.0f;
        engine.direction = factor > 1.0f ? 1 : -1;
        const float target = engine.exposure * engine.gain * factor;
        float previous = engine.exposure * engine.gain;
        for (int step = 0; step < 14; ++step) {
            engine.ModifyExposure(target, 0);
            const float now = engine.exposure * engine.gain;
            const float ratio = factor > 1.0f ? now / previous : previous / now;
            const float rounding = Lines(0.5f) / engine.exposure;
            EXPECT_GE(ratio, 1.05f * (1.0f - rounding) - 1e-5f) << "step " << step;
            EXPECT_LE(ratio, 1.05f * (1.0f + rounding) + 1e-5f) << "step " << step;
            previous = now;
        }
        EXPECT_NEAR(previous / target, 1.0f, 0.05f);
        engine.ModifyExposure(target, 0);
        EXPECT_NEAR(engine.exposure * engine.gain / target, 1.0f, 0.04f);
    }
}

TEST(ModifyExposureTest, ChangesBelowMinChangeAreIgnored) {
    AutoExposure engine;
    engine.ModifyExposure(20.00005f, 0);
    EXPECT_EQ(engine.exposure, 10.0f);
    EXPECT_EQ(engine.gain, 2.0f);
}

struct QuantiseCase {
    std::int32_t mode;
    float lines;  // expected exposure in sensor lines
    float gain;
};

// From 4 ms at gain 2, 5 % up gives 4.2 ms = 217.24 lines. At the exposure
// limit, 5 % up from gain 3 gives 3.15 = 25.2 eighths.
TEST(ModifyExposureTest, QuantisesExposureToLinesAndGainToEighths) {
    const QuantiseCase exposureCases[] = {{1, 218.0f, 2.0f}, {2, 217.0f, 2.0f}, {0, 217.0f, 2.0f}};
    for (const QuantiseCase& c : exposureCases) {
        AutoExposure engine;
        engine.exposure = 4.0f;
        engine.direction = 1;
        engine.ModifyExposure(100.0f, c.mode);
        EXPECT_FLOAT_EQ(engine.exposure, Lines(c.lines)) << "mode " << c.mode;
        EXPECT_EQ(engine.gain, c.gain);
    }
    const float atLimit = Lines(1034.0f);  // nearest line to 20 ms
    const float gainCases[][2] = {{1, 3.25f}, {2, 3.125f}, {0, 3.125f}};
    for (const auto& c : gainCases) {
        AutoExposure engine;
        engine.exposure = atLimit;
        engine.gain = 3.0f;
        engine.direction = 1;
        engine.ModifyExposure(1000.0f, static_cast<std::int32_t>(c[0]));
        EXPECT_EQ(engine.gain, c[1]) << "mode " << c[0];
        // The split asked for exactly 20 ms: only rounding moves it.
        EXPECT_NEAR(engine.exposure, 20.0f, Lines(1.0f));
    }
}

TEST(ModifyExposureTest, GainOutsideGridRangeIsKept) {
    AutoExposure engine;
    engine.maxGain = 40.0f;
    engine.exposure = Lines(1034.0f);
    engine.gain = 33.0f;
    engine.direction = 1;
    engine.ModifyExposure(10000.0f, 0);
    EXPECT_FLOAT_EQ(engine.gain, engine.exposure * 33.0f * 1.05f / 20.0f);
    EXPECT_NE(engine.gain * 8.0f, std::floor(engine.gain * 8.0f));
}

struct SnapCase {
    const char* name;
    bool antiFlicker;
    float exposure;
    float gain;
    std::int32_t direction;
    float factor;    // target = current total x factor
    float expected;  // exposure afterwards
};

class SnapTest : public ::testing::TestWithParam<SnapCase> {};

TEST_P(SnapTest, SmallExposureStepsBecomeTheSnapStep) {
    const SnapCase& c = GetParam();
    std::unique_ptr<AutoExposure> engine;
    if (c.antiFlicker) {
        engine.reset(new AutoExposureAntiFlicker(10.0f));
    } else {
        engine.reset(new AutoExposure());
    }
    engine->exposure = c.exposure;
    engine->gain = c.gain;
    engine->direction = c.direction;
    engine->ModifyExposure(c.exposure * c.gain * c.factor, 0);
    EXPECT_NEAR(engine->exposure, c.expected, 1e-5);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, SnapTest,
    ::testing::Values(
        SnapCase{"smallIncrease", false, 1.0f, 2.0f, 1, 1.05f, 1.15f},
        SnapCase{"smallDecrease", false, 1.0f, 2.0f, -1, 0.9f, 0.85f},
        // One line is far below the snap step at the lowest exposures.
        SnapCase{"atLowestExposure", false, Lines(13.0f), 2.0f, 1, 1.05f, Lines(13.0f) + 0.15f},
        SnapCase{"largeStepUnchanged", false, 10.0f, 2.0f, 1, 1.05f, Lines(543.0f)},
        // The snapped value would pass the limit: the rounded one stays.
        SnapCase{"nearUpperLimit", false, Lines(1030.0f), 2.0f, 1, 1.05f, Lines(1034.0f)},
        SnapCase{"nearLowerLimit", false, Lines(14.0f), 2.0f, -1, 0.9f, Lines(13.0f)},
        // Gain-only change at the limit: exposure stays on its line.
        SnapCase{"gainOnlyAtLimit", false, Lines(1034.0f), 4.0f, 1, 1.05f, Lines(1034.0f)},
        // Whole flicker periods are never snapped.
        SnapCase{"antiFlickerPeriod", true, Lines(517.0f), 4.0f, 1, 1.05f, Lines(517.0f)}),
    [](const ::testing::TestParamInfo<SnapCase>& info) { return std::string(info.param.name); });

struct HybridCase {
    const char* name;
    std::uint8_t modeBefore;
    float exposure;
    float gain;
    std::int32_t direction;
    float factor;
    std::uint8_t modeAfter;
    bool wholePeriod;  // exposure afterwards within a line of 10 or 20
};

class HybridTest : public ::testing::TestWithParam<HybridCase> {};

TEST_P(HybridTest, SwitchesOnTheTotalItHasToReach) {
    const HybridCase& c = GetParam();
    std::ostringstream log;
    autoexposure::LogSettings settings;
    settings.stream = &log;
    HybridAutoExposure engine(10.0f, settings);
    engine.antiFlickerMode = c.modeBefore;
    engine.exposure = c.exposure;
    engine.gain = c.gain;
    engine.direction = c.direction;
    engine.ModifyExposure(c.exposure * c.gain * c.factor, 0);

    EXPECT_EQ(engine.antiFlickerMode, c.modeAfter);
    const bool switched = c.modeBefore != c.modeAfter;
    EXPECT_EQ(log.str().find(c.modeAfter ? "AntiFlickerMode = true" : "AntiFlickerMode = false") !=
                  std::string::npos,
              switched);
    const float e = engine.exposure;
    const bool whole = std::fabs(e - 10.0f) <= Lines(1.0f) || std::fabs(e - 20.0f) <= Lines(1.0f);
    EXPECT_EQ(whole, c.wholePeriod) << e;
}

INSTANTIATE_TEST_SUITE_P(
    Modes, HybridTest,
    ::testing::Values(
        // One period at gain 2 (total 20) would be too bright: plain.
        HybridCase{"brightSceneLeavesAntiFlicker", 1, 10.0f, 2.0f, -1, 0.9f, 0, false},
        HybridCase{"brightSceneStaysPlain", 0, 5.0f, 2.0f, 1, 1.05f, 0, false},
        HybridCase{"darkerSceneReturns", 0, 12.0f, 2.0f, 1, 1.05f, 1, true},
        HybridCase{"darkSceneStaysAntiFlicker", 1, 10.0f, 4.0f, -1, 0.9f, 1, true}),
    [](const ::testing::TestParamInfo<HybridCase>& info) { return std::string(info.param.name); });

TEST(LogTest, WordsAndNumbersOfOneModification) {
    std::ostringstream log;
    autoexposure::LogSettings settings;
    settings.stream = &log;
    AutoExposure engine(settings);
    engine.direction = 1;
    engine.ModifyExposure(21.0f, 0);
    const std::string text = log.str();
    EXPECT_EQ(text.rfind("AutoExposure: Constructor v3\n", 0), 0u);
    EXPECT_NE(text.find("TotalExposure 20, TargetExposure 21\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" ModifyExposure: IncreaseExposureGain: Exposure 10.5, Gain 2\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("ExposureModified: Exposure = 10.5 rounded to: 10.498"), std::string::npos) << text;
    EXPECT_NE(text.find("GainModified: Gain = 2 rounded to: 2\n"), std::string::npos) << text;
}

}  // namespace
