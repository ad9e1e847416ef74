// Software auto-exposure engine for an 8-bit grey image stream.
//
// Per frame, AnalyzeImage builds a (optionally weighted) histogram, turns it
// into a score (positive: too dark) and decides whether the total exposure
// (exposure time x gain) goes up or down. ModifyExposure then moves the total
// by at most maxStep, splits it into exposure and gain, and quantises both to
// what the sensor accepts (whole sensor lines; gain in steps of 1/8).
//
// Three engines share this code:
//  - AutoExposure: plain. Exposure rises first at the lowest gain; gain is
//    added only once the exposure is at its limit.
//  - AutoExposureAntiFlicker: exposure is one, two or three flicker periods
//    (clamped to the limits); gain makes up the rest.
//  - HybridAutoExposure: anti-flicker whenever the scene allows it, plain
//    otherwise (see HybridAutoExposure below).
//
// Not thread-safe: an engine is used by one thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "autoexposure/EngineLog.h"

namespace autoexposure {

// A view of one 8-bit frame; the pixels are not owned.
struct Image {
    const std::uint8_t* data = nullptr;
    std::int32_t rows = 0;
    std::int32_t columns = 0;  // bytes per row
    std::int32_t stride = 0;   // bytes from one row to the next
};

// Largest frame the engine accepts (pixels). Keeps every weighted 32-bit
// histogram count free of overflow (2^24 pixels x weight 255 < 2^32).
constexpr std::int64_t kMaxPixels = std::int64_t{1} << 24;

// Time of one sensor line in microseconds; exposures are whole lines.
constexpr float kLineTimeUs = 19.333334f;

// Rounding used when exposure and gain are quantised.
constexpr std::int32_t kRoundUp = 1;
constexpr std::int32_t kRoundDown = 2;
// Any other value rounds to the nearest step.

// Rounds `value` by mode: 1 = up (ceil), 2 = down (floor), other = nearest
// (half away from zero).
float RoundByMode(float value, std::int32_t mode);

// Histogram statistics of one frame.
struct Statistics {
    std::uint32_t total = 0;   // N: pixels, or sum of weights
    std::uint32_t dark = 0;    // D: count in bins 0..darkLimit
    std::uint32_t bright = 0;  // B: count in bins brightLimit..255
    std::int64_t middle = 0;   // M = N - D - B
    std::int32_t darkEdge = 0;
    std::int32_t brightEdge = 0;
    std::int32_t lowQuartileOffset = 0;
    std::int32_t highQuartileOffset = 0;
    float mean = 0.0f;
    float deviation = 0.0f;
    float score = 0.0f;  // positive: too dark
};

class IAutoExposure {
public:
    // Analyses the frame and, when the analysis decides so, modifies exposure
    // and gain. Returns true when a modification was carried out.
    virtual bool AddImage(const Image& image) = 0;
    // Copies a per-pixel weight image (same geometry as the frames). An image
    // with null data or zero size removes the weights. Returns false (and
    // keeps the previous weights) for an invalid geometry.
    virtual bool SetWeights(const Image& weights) = 0;
    // Current exposure and gain.
    virtual void GetExposureGain(float& exposureOut, float& gainOut) const = 0;
    virtual ~IAutoExposure() = default;
};

class AutoExposure : public IAutoExposure {
public:
    explicit AutoExposure(const LogSettings& log = LogSettings());
    AutoExposure(const AutoExposure&) = delete;
    AutoExposure& operator=(const AutoExposure&) = delete;

    bool AddImage(const Image& image) override;
    bool SetWeights(const Image& weights) override;
    void GetExposureGain(float& exposureOut, float& gainOut) const override;
    ~AutoExposure() override;

    // target = min(exposure x gain x (1 + score), maxExposure x maxGain).
    virtual void IncreaseTarget(float& target, float score);
    // target = max(exposure x gain x (1 + score), minExposure x minGain).
    virtual void DecreaseTarget(float& target, float score);
    // Split a total exposure into exposure and gain.
    virtual void IncreaseExposureGain(float total, float& exposureOut, float& gainOut);
    virtual void DecreaseExposureGain(float total, float& exposureOut, float& gainOut);

    // Returns true when a modification should be made, with the new total
    // exposure in `target`. Refuses (false, state untouched) empty or invalid
    // frames, weights of another geometry and all-zero weighted histograms.
    bool AnalyzeImage(const Image& image, float& target);

    // Moves exposure x gain towards `target` by at most maxStep, splits and
    // quantises with `roundingMode` (1 = up, 2 = down, other = nearest).
    //
    // After quantisation, an exposure step smaller than exposureSnap is made
    // exactly exposureSnap in the decided direction (so tiny exposures keep
    // moving instead of rounding back to the same line), provided that
    //  - the split moved the exposure in that direction (a gain-only change at
    //    an exposure limit is not snapped),
    //  - the exposure was not chosen as a whole number of flicker periods, and
    //  - the snapped exposure stays within [minExposure, maxExposure].
    void ModifyExposure(float target, std::int32_t roundingMode);

    // True when the frame can be analysed with the current weights.
    bool WeightsMatch(const Image& image) const;
    // Geometry check shared with the entry objects.
    static bool ValidImage(const Image& image);

    // Histogram of the last analysed frame and its statistics.
    const std::uint32_t* Histogram() const { return histogram_; }
    const Statistics& LastStatistics() const { return statistics_; }
    // Computes the statistics and the score of a histogram with total `total`.
    Statistics ComputeStatistics(const std::uint32_t histogram[256], std::uint32_t total) const;

    EngineLog& Log() { return log_; }

    // True when SetWeights has installed weights (used only with useWeights).
    bool HasWeights() const { return !weights_.empty(); }

    // Engine state. Public so that the entry objects and diagnostics can set
    // limits directly; the entry objects validate what they are given.
    float exposure = 10.0f;
    float gain = 2.0f;
    float maxExposure = 20.0f;
    float minExposure = 0.25f;
    float maxGain = 15.0f;
    float minGain = 2.0f;
    std::uint8_t darkLimit = 5;
    std::uint8_t brightLimit = 250;
    float hysteresis = 0.075f;
    std::int32_t darkExtendCount = 50;
    std::int32_t brightExtendCount = 50;
    std::int32_t spareCount = 3;    // reserved tuning value, unused
    float spareRatio = 0.01f;       // reserved tuning value, unused
    float minChange = 0.0001f;
    std::int32_t direction = 0;
    std::int32_t lastDirection = 0;
    float maxStep = 0.05f;
    float exposureSnap = 0.15f;
    std::uint8_t useWeights = 0;
    // Rounding mode used by AddImage: 1 = up, 2 = down, other = nearest.
    std::int32_t roundingMode = 0;

protected:
    template <typename... Args>
    void Write(const Args&... args) {
        if (log_.On()) log_.Line(args...);
    }

    // Plain split: exposure first at minGain, then gain.
    void PlainSplit(float total, float& exposureOut, float& gainOut) const;

    // Set by a split that chose whole flicker periods; ModifyExposure then
    // leaves the exposure unsnapped.
    bool periodSplit_ = false;

private:
    // Columns [begin, end) of one weights row; every weight outside is 0.
    struct RowSpan {
        std::int32_t begin = 0;
        std::int32_t end = 0;
    };

    void BuildHistogram(const Image& image, bool weighted);
    void WriteWeightsPng();

    // Per-pixel weights (rows x columns, packed), empty when none. Only
    // SetWeights writes them, together with the span of each row.
    std::vector<std::uint8_t> weights_;
    std::vector<RowSpan> weightSpans_;
    std::int32_t weightsRows_ = 0;
    std::int32_t weightsColumns_ = 0;

    EngineLog log_;
    std::uint32_t histogram_[256] = {};
    Statistics statistics_;
    bool weightsPngPending_ = false;
};

// Exposure restricted to whole multiples of the flicker period. Of the
// candidates k = 1, 2, 3 periods (clamped to maxExposure, then to at least one
// period) the one with the smallest error in total exposure wins; ties go to
// the shorter exposure, then the lower gain. A non-positive period falls back
// to the plain split. A period longer than maxExposure gives exposures of one
// period, above the limit.
class AutoExposureAntiFlicker : public AutoExposure {
public:
    explicit AutoExposureAntiFlicker(float flickerPeriod, const LogSettings& log = LogSettings());

    void IncreaseExposureGain(float total, float& exposureOut, float& gainOut) override;
    void DecreaseExposureGain(float total, float& exposureOut, float& gainOut) override;

    // The anti-flicker split on its own.
    void AntiFlickerSplit(float total, float& exposureOut, float& gainOut) const;

    float flickerPeriod;
    // Whether the split uses whole flicker periods. Always 1 for this engine;
    // HybridAutoExposure switches it.
    std::uint8_t antiFlickerMode = 1;

protected:
    void Split(float total, float& exposureOut, float& gainOut, const char* label);
    // Set by HybridAutoExposure: re-decide antiFlickerMode before every split.
    bool switchesMode_ = false;
};

// Anti-flicker when the light allows it, plain otherwise.
//
// Before every split the engine re-decides antiFlickerMode from the total it
// has to reach: anti-flicker is on when the flicker period is positive and
// within maxExposure and the total is at least flickerPeriod x minGain, that
// is, when one whole period at the lowest gain does not overexpose. In
// brighter scenes it is off and the exposure may go below one period. At the
// boundary both splits give one period at minGain, so switching causes no
// jump. Each switch logs "AntiFlickerMode = true" or "AntiFlickerMode = false".
class HybridAutoExposure : public AutoExposureAntiFlicker {
public:
    explicit HybridAutoExposure(float flickerPeriod, const LogSettings& log = LogSettings());
};

}  // namespace autoexposure
