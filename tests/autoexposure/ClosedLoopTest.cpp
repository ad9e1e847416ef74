#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

#include "SimulatedSensor.h"
#include "autoexposure/AutoExposure.h"

using autoexposure::AutoExposure;

namespace {

enum class Kind { Plain, AntiFlicker, Hybrid };

struct LoopCase {
    const char* name;
    Kind kind;
    float idealTotal;  // exposure x gain that puts the scene's mean at 128
    float exposure;    // start
    float gain;
    bool wholePeriods;  // every exposure a whole number of 10 ms periods
    int endMode;        // hybrid: the anti-flicker mode it settles in (-1: not hybrid)
};

class ClosedLoopTest : public ::testing::TestWithParam<LoopCase> {};

struct Periods {
    int offGrid = 0;
};

void CheckPeriod(float exposure, float, void* context) {
    const float line = autoexposure::kLineTimeUs / 1000.0f;
    if (std::fabs(exposure - 10.0f) > line && std::fabs(exposure - 20.0f) > line) {
        ++static_cast<Periods*>(context)->offGrid;
    }
}

TEST_P(ClosedLoopTest, SettlesWithoutOscillating) {
    const LoopCase& c = GetParam();
    std::unique_ptr<AutoExposure> engine;
    switch (c.kind) {
        case Kind::Plain: engine.reset(new AutoExposure()); break;
        case Kind::AntiFlicker: engine.reset(new autoexposure::AutoExposureAntiFlicker(10.0f)); break;
        case Kind::Hybrid: engine.reset(new autoexposure::HybridAutoExposure(10.0f)); break;
    }
    engine->exposure = c.exposure;
    engine->gain = c.gain;

    // Light chosen so that idealTotal gives a mean of 128.
    aetest::SimulatedSensor probe(120, 160, 1.0f);
    aetest::SimulatedSensor sensor(120, 160, probe.TotalForMean(128.0) / c.idealTotal);

    Periods periods;
    const int frames = 400;
    const aetest::LoopResult result =
        aetest::RunClosedLoop(*engine, sensor, frames, c.wholePeriods ? CheckPeriod : nullptr, &periods);

    EXPECT_GT(result.modifications, 20);  // it had a long way to go
    EXPECT_LT(result.lastChangeFrame, frames - 100) << "still moving";
    EXPECT_EQ(result.reversals, 0);
    EXPECT_GT(result.mean, 105.0);
    EXPECT_LT(result.mean, 160.0);
    EXPECT_GE(result.exposure, engine->minExposure);
    EXPECT_LE(result.exposure, engine->maxExposure + autoexposure::kLineTimeUs / 1000.0f);
    EXPECT_GE(result.gain, engine->minGain);
    EXPECT_LE(result.gain, engine->maxGain);
    EXPECT_EQ(periods.offGrid, 0);
    // A hybrid engine ends in the mode the scene allows: below one period when one is too bright.
    if (c.endMode >= 0) {
        const float line = autoexposure::kLineTimeUs / 1000.0f;
        EXPECT_EQ(static_cast<autoexposure::HybridAutoExposure&>(*engine).antiFlickerMode, c.endMode);
        if (c.endMode == 0) {
            EXPECT_LT(result.exposure, 10.0f - line);
        } else {
            EXPECT_NEAR(result.exposure, 10.0f, line);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, ClosedLoopTest,
    ::testing::Values(
        LoopCase{"plainFromFarTooDark", Kind::Plain, 12.0f, 0.25f, 2.0f, false, -1},
        LoopCase{"plainFromFarTooBright", Kind::Plain, 12.0f, 20.0f, 15.0f, false, -1},
        LoopCase{"plainNeedsGain", Kind::Plain, 90.0f, 0.25f, 2.0f, false, -1},
        LoopCase{"antiFlickerFromFarTooDark", Kind::AntiFlicker, 60.0f, 10.0f, 2.0f, true, -1},
        LoopCase{"antiFlickerFromFarTooBright", Kind::AntiFlicker, 60.0f, 20.0f, 15.0f, true, -1},
        LoopCase{"antiFlickerLongExposure", Kind::AntiFlicker, 200.0f, 10.0f, 2.0f, true, -1},
        LoopCase{"hybridDimSceneUsesPeriods", Kind::Hybrid, 60.0f, 0.25f, 2.0f, false, 1},
        LoopCase{"hybridBrightSceneGoesBelowOnePeriod", Kind::Hybrid, 4.0f, 20.0f, 15.0f, false, 0}),
    [](const ::testing::TestParamInfo<LoopCase>& info) { return std::string(info.param.name); });

}  // namespace
