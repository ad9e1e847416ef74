#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "PngReader.h"
#include "SimulatedSensor.h"
#include "autoexposure/AutoExposureAPI.h"

using autoexposure::AutoExposureAPI;
using autoexposure::AutoExposureSettings;
using autoexposure::CAutoExposure;
using autoexposure::EngineKind;
using autoexposure::Status;

namespace {

// What the fisheye control would see through its callbacks.
struct Recorder {
    struct Set {
        float exposure;
        float gain;
        std::uint32_t flags;
    };
    std::vector<Set> sets;
    std::vector<const std::uint8_t*> done;
    int setsBeforeLastDone = 0;

    static void OnSetExposure(void* context, float exposure, float gain, std::uint32_t flags) {
        static_cast<Recorder*>(context)->sets.push_back(Set{exposure, gain, flags});
    }
    static void OnImageDone(void* context, const std::uint8_t* pixelBuffer) {
        auto* self = static_cast<Recorder*>(context);
        self->done.push_back(pixelBuffer);
        self->setsBeforeLastDone = static_cast<int>(self->sets.size());
    }
};

AutoExposureSettings SettingsFor(Recorder& recorder, EngineKind kind = EngineKind::Plain, std::uint32_t flags = 0) {
    AutoExposureSettings settings;
    settings.kind = kind;
    settings.flags = flags;
    settings.onSetExposure = Recorder::OnSetExposure;
    settings.onImageDone = Recorder::OnImageDone;
    settings.context = &recorder;
    return settings;
}

std::unique_ptr<AutoExposureAPI> Make(const AutoExposureSettings& settings) {
    std::unique_ptr<AutoExposureAPI> api;
    EXPECT_EQ(AutoExposureAPI::Create(settings, api), Status::Ok);
    return api;
}

float Lines(float lines) { return lines * autoexposure::kLineTimeUs / 1000.0f; }

TEST(AutoExposureAPITest, CreateRefusesUnknownKindsFlagsAndPeriods) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        EngineKind kind;
        std::uint32_t flags;
        float period;
        bool valid;
    } cases[] = {
        {EngineKind::Plain, 0, 0.0f, true},          {EngineKind::Plain, 3, 10.0f, true},
        {EngineKind::AntiFlicker, 0, 10.0f, true},   {EngineKind::Hybrid, 0, 8.333f, true},
        {static_cast<EngineKind>(7), 0, 10.0f, false}, {EngineKind::Plain, 4, 10.0f, false},
        {EngineKind::AntiFlicker, 0, 0.0f, false},   {EngineKind::Hybrid, 0, -10.0f, false},
        {EngineKind::Hybrid, 0, nan, false},
    };
    for (const Case& c : cases) {
        AutoExposureSettings settings;
        settings.kind = c.kind;
        settings.flags = c.flags;
        settings.flickerPeriod = c.period;
        std::unique_ptr<AutoExposureAPI> api;
        EXPECT_EQ(AutoExposureAPI::Create(settings, api), c.valid ? Status::Ok : Status::InvalidArgument);
        EXPECT_EQ(api != nullptr, c.valid);
        if (c.valid) {
            EXPECT_EQ(api->Kind(), c.kind);
        } else {
            EXPECT_THROW(CAutoExposure engine(settings), std::invalid_argument);
        }
    }
}

TEST(AutoExposureAPITest, SettersRefuseBadValuesAndChangeNothing) {
    Recorder recorder;
    std::unique_ptr<AutoExposureAPI> api = Make(SettingsFor(recorder));
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(api->SetExposureLimits(0.0f, 1.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetExposureLimits(2.0f, 1.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetExposureLimits(1.0f, inf), Status::InvalidArgument);
    EXPECT_EQ(api->SetGainLimits(0.0f, 255.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetGainLimits(16.0f, 15.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetFlickerPeriod(0.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetExposureGain(-1.0f, 2.0f), Status::InvalidArgument);
    EXPECT_EQ(api->SetExposureGain(1.0f, std::nanf("")), Status::InvalidArgument);

    float exposure = 0.0f, gain = 0.0f;
    ASSERT_EQ(api->GetExposureGain(&exposure, &gain), Status::Ok);
    EXPECT_EQ(exposure, 10.0f);  // refused calls changed nothing
    EXPECT_EQ(gain, 2.0f);
    EXPECT_EQ(api->GetExposureGain(nullptr, &gain), Status::NullPointer);
    EXPECT_EQ(api->GetExposureGain(&exposure, nullptr), Status::NullPointer);

}

TEST(AutoExposureAPITest, DecisionsReachTheCallbacksWithTheirFlags) {
    Recorder recorder;
    std::unique_ptr<AutoExposureAPI> api = Make(SettingsFor(recorder));
    const aetest::OwnedImage dark = aetest::UniformImage(48, 64, 20);

    // Below the exposure limit only the exposure moves.
    ASSERT_EQ(api->AddImage(dark.pixels.data(), dark.rows, dark.columns, dark.stride), Status::Ok);
    ASSERT_EQ(recorder.sets.size(), 1u);
    EXPECT_EQ(recorder.sets[0].flags, autoexposure::kSetExposure);
    EXPECT_FLOAT_EQ(recorder.sets[0].exposure, Lines(543.0f));  // 10.5 ms to the nearest line
    EXPECT_EQ(recorder.sets[0].gain, 2.0f);
    ASSERT_EQ(recorder.done.size(), 1u);
    EXPECT_EQ(recorder.done[0], dark.pixels.data());
    EXPECT_EQ(recorder.setsBeforeLastDone, 1);  // the frame is released after the decision

    // At the exposure limit only the gain moves.
    ASSERT_EQ(api->SetExposureGain(Lines(1034.0f), 4.0f), Status::Ok);
    ASSERT_EQ(api->AddImage(dark.pixels.data(), dark.rows, dark.columns, dark.stride), Status::Ok);
    ASSERT_EQ(recorder.sets.size(), 2u);
    EXPECT_EQ(recorder.sets[1].flags, autoexposure::kSetGain);
    EXPECT_EQ(recorder.sets[1].gain, 4.25f);

    // A reversal refused by the hysteresis reports nothing but still releases the frame.
    const aetest::OwnedImage slightlyBright = aetest::UniformImage(48, 64, 140);
    ASSERT_EQ(api->AddImage(slightlyBright.pixels.data(), 48, 64, 64), Status::Ok);
    EXPECT_EQ(recorder.sets.size(), 2u);
    EXPECT_EQ(recorder.done.size(), 3u);
}

TEST(AutoExposureAPITest, BadFramesAreRefusedAndStillReleased) {
    Recorder recorder;
    std::unique_ptr<AutoExposureAPI> api = Make(SettingsFor(recorder, EngineKind::Plain, autoexposure::kFlagUseWeights));
    std::vector<std::uint8_t> pixels(64 * 48, 0);
    std::vector<std::uint8_t> weights(32 * 32, 1);
    struct Case {
        const char* name;
        const std::uint8_t* data;
        std::int32_t rows, columns, stride;
        bool withWeights;
        Status status;
    } cases[] = {
        {"null", nullptr, 48, 64, 64, false, Status::NullPointer},
        // An empty frame; one the engine finds invalid (each kind: AnalyzeImageTest).
        {"noRows", pixels.data(), 0, 64, 64, false, Status::InvalidArgument},
        {"strideBelowRow", pixels.data(), 48, 64, 63, false, Status::InvalidArgument},
        {"weightsOfOtherGeometry", pixels.data(), 48, 64, 64, true, Status::InvalidArgument},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(api->SetWeights(c.withWeights ? weights.data() : nullptr, 32, 32, 32), Status::Ok);
        const std::size_t doneBefore = recorder.done.size();
        EXPECT_EQ(api->AddImage(c.data, c.rows, c.columns, c.stride), c.status) << c.name;
        EXPECT_EQ(recorder.done.size(), doneBefore + (c.data != nullptr ? 1u : 0u)) << c.name;
        EXPECT_TRUE(recorder.sets.empty()) << c.name;
    }
    float exposure = 0.0f, gain = 0.0f;
    api->GetExposureGain(&exposure, &gain);
    EXPECT_EQ(exposure, 10.0f);
    EXPECT_EQ(gain, 2.0f);
    EXPECT_EQ(api->SetWeights(weights.data(), 32, 32, 16), Status::InvalidArgument);
}

TEST(AutoExposureAPITest, RoundingModeLimitsAndFlickerPeriodReachTheEngine) {
    const aetest::OwnedImage dark = aetest::UniformImage(16, 16, 20);
    // 5 % above 4 ms is 217.24 lines: rounded up only in mode 1 (each mode: ModifyExposureTest).
    Recorder rounding;
    std::unique_ptr<AutoExposureAPI> api = Make(SettingsFor(rounding));
    ASSERT_EQ(api->SetRoundingMode(1), Status::Ok);
    ASSERT_EQ(api->SetExposureGain(4.0f, 2.0f), Status::Ok);
    ASSERT_EQ(api->AddImage(dark.pixels.data(), 16, 16, 16), Status::Ok);
    ASSERT_EQ(rounding.sets.size(), 1u);
    EXPECT_FLOAT_EQ(rounding.sets[0].exposure, Lines(218.0f));
    ASSERT_EQ(api->SetExposureLimits(0.2f, 32.0f), Status::Ok);
    ASSERT_EQ(api->SetGainLimits(1.0f, 8.0f), Status::Ok);
    const auto& engine = static_cast<CAutoExposure&>(*api).Engine();
    EXPECT_TRUE(engine.minExposure == 0.2f && engine.maxExposure == 32.0f && engine.minGain == 1.0f &&
                engine.maxGain == 8.0f);

    Recorder flicker;
    api = Make(SettingsFor(flicker, EngineKind::AntiFlicker));
    ASSERT_EQ(api->SetFlickerPeriod(8.0f), Status::Ok);
    ASSERT_EQ(api->SetExposureGain(8.0f, 2.0f), Status::Ok);
    ASSERT_EQ(api->AddImage(dark.pixels.data(), 16, 16, 16), Status::Ok);
    ASSERT_EQ(flicker.sets.size(), 1u);
    EXPECT_NEAR(flicker.sets[0].exposure, 8.0f, Lines(0.5f));  // one period, more gain
    EXPECT_EQ(flicker.sets[0].gain, 2.125f);
}

TEST(AutoExposureAPITest, LogGoesToStreamOnlyWhenAskedAndAnUnopenableFileDoesNotStopTheEngine) {
    const aetest::OwnedImage frame = aetest::UniformImage(16, 16, 128);
    for (std::uint32_t flags : {0u, autoexposure::kFlagLog}) {
        std::ostringstream log;
        Recorder recorder;
        AutoExposureSettings settings = SettingsFor(recorder, EngineKind::Plain, flags);
        settings.logStream = &log;
        settings.logPath = "/nonexistent-folder/deeper/AEState.txt";
        std::unique_ptr<AutoExposureAPI> api = Make(settings);
        EXPECT_EQ(api->AddImage(frame.pixels.data(), 16, 16, 16), Status::Ok);
        EXPECT_EQ(recorder.done.size(), 1u);
        if (flags == 0) {
            EXPECT_TRUE(log.str().empty());
        } else {
            const std::string expected =
                "AutoExposure: Constructor v3\nAddImage:\n AnalyzeImage Score: 0\n AnalyzeImage: DecreaseExposure\n"
                " AnalyzeImage: Modify\nTotalExposure 20, TargetExposure 20\n";
            EXPECT_EQ(log.str(), expected);
        }
    }
}

TEST(AutoExposureAPITest, StateFileAndWeightsPicture) {
    const std::string folder = ::testing::TempDir();
    const std::string logPath = folder + "AEState.txt";
    const std::string pngPath = folder + "AE.Weights.png";
    std::remove(logPath.c_str());
    std::remove(pngPath.c_str());

    std::vector<std::uint8_t> weights(16 * 24);
    for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = static_cast<std::uint8_t>(i % 7);
    {
        Recorder recorder;
        AutoExposureSettings settings =
            SettingsFor(recorder, EngineKind::Hybrid, autoexposure::kFlagLog | autoexposure::kFlagUseWeights);
        settings.logPath = logPath;
        std::unique_ptr<AutoExposureAPI> api = Make(settings);
        ASSERT_EQ(api->SetWeights(weights.data(), 16, 24, 24), Status::Ok);
        const aetest::OwnedImage frame = aetest::UniformImage(16, 24, 60);
        ASSERT_EQ(api->AddImage(frame.pixels.data(), 16, 24, 24), Status::Ok);
    }
    std::ifstream file(logPath);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text.rfind("AutoExposure: Constructor v3\n", 0), 0u);
    EXPECT_NE(text.find("HybridAutoExposure::IncreaseExposureGain: "), std::string::npos) << text;

    const aetest::Decoded png = aetest::DecodeStoredPngFile(pngPath);
    EXPECT_EQ(png.width, 24u);
    EXPECT_EQ(png.height, 16u);
    EXPECT_EQ(png.pixels, weights);
    std::remove(logPath.c_str());
    std::remove(pngPath.c_str());
}

}  // namespace
