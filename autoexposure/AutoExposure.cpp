#include "autoexposure/AutoExposure.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "autoexposure/GreyPng.h"

namespace autoexposure {

float RoundByMode(float value, std::int32_t mode) {
    if (mode == kRoundUp) return std::ceil(value);
    if (mode == kRoundDown) return std::floor(value);
    return value >= 0.0f ? std::floor(value + 0.5f) : std::ceil(value - 0.5f);
}

// ---------------------------------------------------------------------------
// AutoExposure

AutoExposure::AutoExposure(const LogSettings& log) : log_(log) {
    Write("AutoExposure: Constructor v3");
}

AutoExposure::~AutoExposure() { log_.Flush(); }

void AutoExposure::GetExposureGain(float& exposureOut, float& gainOut) const {
    exposureOut = exposure;
    gainOut = gain;
}

bool AutoExposure::ValidImage(const Image& image) {
    if (image.data == nullptr || image.rows <= 0 || image.columns <= 0) return false;
    if (image.stride < image.columns) return false;
    return static_cast<std::int64_t>(image.rows) * image.columns <= kMaxPixels;
}

bool AutoExposure::SetWeights(const Image& image) {
    if (image.data == nullptr || image.rows == 0 || image.columns == 0) {
        weights_.clear();
        weightSpans_.clear();
        weightsRows_ = weightsColumns_ = 0;
        weightsPngPending_ = false;
        return true;
    }
    if (!ValidImage(image)) return false;
    const std::size_t columns = static_cast<std::size_t>(image.columns);
    weights_.resize(static_cast<std::size_t>(image.rows) * columns);
    weightSpans_.resize(static_cast<std::size_t>(image.rows));
    for (std::int32_t r = 0; r < image.rows; ++r) {
        std::uint8_t* row = weights_.data() + static_cast<std::size_t>(r) * columns;
        std::memcpy(row, image.data + static_cast<std::ptrdiff_t>(r) * image.stride, columns);
        // A fisheye mask is 0 outside the image circle; the histogram skips those margins.
        RowSpan& span = weightSpans_[static_cast<std::size_t>(r)];
        span.begin = 0;
        span.end = image.columns;
        while (span.begin < span.end && row[span.begin] == 0) ++span.begin;
        while (span.end > span.begin && row[span.end - 1] == 0) --span.end;
    }
    weightsRows_ = image.rows;
    weightsColumns_ = image.columns;
    weightsPngPending_ = !log_.WeightsPngPath().empty();
    return true;
}

bool AutoExposure::WeightsMatch(const Image& image) const {
    return weightsRows_ == image.rows && weightsColumns_ == image.columns;
}

void AutoExposure::WriteWeightsPng() {
    weightsPngPending_ = false;
    const bool written = WriteGreyPng(log_.WeightsPngPath(), weights_.data(), weightsRows_, weightsColumns_,
                                      weightsColumns_);
    Write(written ? " Weights saved: " : " Weights not saved: ", log_.WeightsPngPath());
}

bool AutoExposure::AddImage(const Image& image) {
    Write("AddImage:");
    float target = 0.0f;
    if (!AnalyzeImage(image, target)) return false;
    ModifyExposure(target, roundingMode);
    return true;
}

void AutoExposure::BuildHistogram(const Image& image, bool weighted) {
    // Four sub-histograms, merged at the end: consecutive pixels of equal value
    // then update different counters, which keeps the store-to-load chain of a
    // single counter out of the inner loop. One 8-byte load feeds eight
    // counters; the byte order of the load does not matter, every byte is
    // counted once.
    std::uint32_t sub[4][256];
    std::memset(sub, 0, sizeof(sub));
    for (std::int32_t r = 0; r < image.rows; ++r) {
        const std::uint8_t* p = image.data + static_cast<std::ptrdiff_t>(r) * image.stride;
        if (!weighted) {
            std::int32_t c = 0;
            for (; c + 8 <= image.columns; c += 8) {
                std::uint64_t eight;
                std::memcpy(&eight, p + c, sizeof(eight));
                ++sub[0][eight & 0xFFu];
                ++sub[1][(eight >> 8) & 0xFFu];
                ++sub[2][(eight >> 16) & 0xFFu];
                ++sub[3][(eight >> 24) & 0xFFu];
                ++sub[0][(eight >> 32) & 0xFFu];
                ++sub[1][(eight >> 40) & 0xFFu];
                ++sub[2][(eight >> 48) & 0xFFu];
                ++sub[3][eight >> 56];
            }
            for (; c < image.columns; ++c) ++sub[0][p[c]];
        } else {
            // A weight of 0 adds nothing, so only the row's span is visited.
            const RowSpan span = weightSpans_[static_cast<std::size_t>(r)];
            const std::uint8_t* w = weights_.data() + static_cast<std::ptrdiff_t>(r) * weightsColumns_;
            std::int32_t c = span.begin;
            for (; c + 8 <= span.end; c += 8) {
                std::uint64_t eight;
                std::memcpy(&eight, p + c, sizeof(eight));
                sub[0][eight & 0xFFu] += w[c];
                sub[1][(eight >> 8) & 0xFFu] += w[c + 1];
                sub[2][(eight >> 16) & 0xFFu] += w[c + 2];
                sub[3][(eight >> 24) & 0xFFu] += w[c + 3];
                sub[0][(eight >> 32) & 0xFFu] += w[c + 4];
                sub[1][(eight >> 40) & 0xFFu] += w[c + 5];
                sub[2][(eight >> 48) & 0xFFu] += w[c + 6];
                sub[3][eight >> 56] += w[c + 7];
            }
            for (; c < span.end; ++c) sub[0][p[c]] += w[c];
        }
    }
    for (int i = 0; i < 256; ++i) histogram_[i] = sub[0][i] + sub[1][i] + sub[2][i] + sub[3][i];
}

Statistics AutoExposure::ComputeStatistics(const std::uint32_t h[256], std::uint32_t total) const {
    Statistics s;
    s.total = total;
    const int darkBin = darkLimit;
    const int brightBin = brightLimit;
    for (int i = 0; i <= darkBin; ++i) s.dark += h[i];
    for (int i = brightBin; i <= 255; ++i) s.bright += h[i];

    // Edges: walk from each limit towards the other across sparsely filled bins.
    s.darkEdge = darkBin;
    for (int i = darkBin + 1; i < brightBin; ++i) {
        if (h[i] > static_cast<std::uint32_t>(std::max(darkExtendCount, 0))) break;
        ++s.darkEdge;
    }
    s.brightEdge = brightBin;
    for (int i = brightBin - 1; i > darkBin; --i) {
        if (h[i] > static_cast<std::uint32_t>(std::max(brightExtendCount, 0))) break;
        --s.brightEdge;
    }

    // Quartile offsets: bins passed before a quarter of the total is reached.
    const std::uint64_t quarter = total / 4;
    std::uint64_t running = 0;
    for (int i = darkBin + 1; i < brightBin; ++i) {
        running += h[i];
        if (running > quarter) break;
        ++s.lowQuartileOffset;
    }
    running = 0;
    for (int i = brightBin - 1; i > darkBin; --i) {
        running += h[i];
        if (running > quarter) break;
        ++s.highQuartileOffset;
    }

    s.middle = static_cast<std::int64_t>(total) - s.dark - s.bright;
    double sum = 0.0;
    double sumSquares = 0.0;
    double divisor = 0.0;
    if (s.middle != 0) {
        for (int i = darkBin + 1; i < brightBin; ++i) {
            sum += static_cast<double>(i) * h[i];
            sumSquares += static_cast<double>(i) * i * h[i];
        }
        divisor = static_cast<double>(s.middle);
    } else {
        for (int i = 0; i < 256; ++i) {
            sum += static_cast<double>(i) * h[i];
            sumSquares += static_cast<double>(i) * i * h[i];
        }
        divisor = static_cast<double>(total);
    }
    const double mean = sum / divisor;
    const double variance = sumSquares / divisor - mean * mean;
    s.mean = static_cast<float>(mean);
    s.deviation = variance > 0.0 ? static_cast<float>(std::sqrt(variance)) : 0.0f;

    const double brightMinusDark = static_cast<double>(s.bright) - static_cast<double>(s.dark);
    // Adding 0 turns the -0 of a perfectly exposed frame into 0 for the log.
    s.score = static_cast<float>(((mean - 128.0) / 255.0 + 5.0 * brightMinusDark / total) * -0.3 + 0.0);
    return s;
}

bool AutoExposure::AnalyzeImage(const Image& image, float& target) {
    if (static_cast<std::int64_t>(image.rows) * image.columns == 0) {
        Write(" Empty image ");
        return false;
    }
    if (!ValidImage(image)) {
        Write(" Invalid image ");
        return false;
    }
    const bool weighted = useWeights != 0 && HasWeights();
    if (weighted) {
        if (!WeightsMatch(image)) {
            Write(" Weights do not match the image ");
            return false;
        }
        if (weightsPngPending_) WriteWeightsPng();
    }

    BuildHistogram(image, weighted);
    std::uint32_t total = 0;
    if (weighted) {
        for (int i = 0; i < 256; ++i) total += histogram_[i];
    } else {
        total = static_cast<std::uint32_t>(image.rows) * static_cast<std::uint32_t>(image.columns);
    }
    if (total == 0) {
        Write(" AnalyzeImage: all weights are zero");
        return false;
    }

    statistics_ = ComputeStatistics(histogram_, total);
    const float score = statistics_.score;
    Write(" AnalyzeImage Score: ", score);

    if (score > 0.0f) {
        Write(" AnalyzeImage: IncreaseExposure");
        direction = 1;
        IncreaseTarget(target, score);
    } else {
        Write(" AnalyzeImage: DecreaseExposure");
        direction = -1;
        DecreaseTarget(target, score);
    }

    if (lastDirection != 0 && direction != lastDirection && target != 0.0f) {
        const float change = std::fabs(1.0f - (gain * exposure) / target);
        if (hysteresis > change) {
            Write(" AnalyzeImage: Don't Modify (Hysteresis): ", hysteresis, change);
            return false;
        }
    }
    lastDirection = direction;
    Write(" AnalyzeImage: Modify");
    return true;
}

void AutoExposure::IncreaseTarget(float& target, float score) {
    target = std::min(exposure * gain * (1.0f + score), maxExposure * maxGain);
}

void AutoExposure::DecreaseTarget(float& target, float score) {
    target = std::max(exposure * gain * (1.0f + score), minExposure * minGain);
}

void AutoExposure::PlainSplit(float total, float& exposureOut, float& gainOut) const {
    float e = total / minGain;
    e = std::min(e, maxExposure);
    e = std::max(e, minExposure);
    float g = total / e;
    g = std::max(g, minGain);
    g = std::min(g, maxGain);
    exposureOut = e;
    gainOut = g;
}

void AutoExposure::IncreaseExposureGain(float total, float& exposureOut, float& gainOut) {
    PlainSplit(total, exposureOut, gainOut);
}

void AutoExposure::DecreaseExposureGain(float total, float& exposureOut, float& gainOut) {
    PlainSplit(total, exposureOut, gainOut);
}

void AutoExposure::ModifyExposure(float target, std::int32_t mode) {
    const float current = exposure * gain;
    Write("TotalExposure ", current, ", TargetExposure ", target);
    if (std::fabs(target - current) <= minChange) return;

    periodSplit_ = false;
    float e = exposure;
    float g = gain;
    if (target > current) {
        IncreaseExposureGain(std::min(target, current * (1.0f + maxStep)), e, g);
        Write(" ModifyExposure: IncreaseExposureGain: ", "Exposure", e, ", Gain", g);
    } else {
        DecreaseExposureGain(std::max(target, current / (1.0f + maxStep)), e, g);
        Write(" ModifyExposure: DecreaseExposureGain: ", "Exposure", e, ", Gain", g);
    }

    // Exposure in whole sensor lines.
    const float lines = RoundByMode(1000.0f * e / kLineTimeUs, mode);
    float newExposure = lines * kLineTimeUs / 1000.0f;
    Write("ExposureModified: Exposure = ", e, " rounded to: ", newExposure);

    // A step below exposureSnap becomes exactly exposureSnap in the decided direction.
    if (!periodSplit_ && direction != 0 && (e - exposure) * static_cast<float>(direction) > 0.0f &&
        std::fabs(newExposure - exposure) < exposureSnap) {
        const float snapped = exposure + static_cast<float>(direction) * exposureSnap;
        if (snapped >= minExposure && snapped <= maxExposure) {
            newExposure = snapped;
            Write("ExposureSnapped: Exposure = ", newExposure);
        }
    }

    // Gain on a grid of 1/8 within [2, 32].
    float newGain = g;
    if (g >= 2.0f && g <= 32.0f) newGain = RoundByMode(g * 8.0f, mode) * 0.125f;
    Write("GainModified: Gain = ", g, " rounded to: ", newGain);

    exposure = newExposure;
    gain = newGain;
}

// ---------------------------------------------------------------------------
// Anti-flicker engines

AutoExposureAntiFlicker::AutoExposureAntiFlicker(float period, const LogSettings& log)
    : AutoExposure(log), flickerPeriod(period) {}

void AutoExposureAntiFlicker::AntiFlickerSplit(float total, float& exposureOut, float& gainOut) const {
    float bestError = 0.0f;
    float bestExposure = 0.0f;
    float bestGain = 0.0f;
    for (int k = 1; k <= 3; ++k) {
        float e = static_cast<float>(k) * flickerPeriod;
        e = std::min(e, maxExposure);
        e = std::max(e, flickerPeriod);
        float g = minGain;
        if (minGain * e != total) {
            g = total / e;
            g = std::max(g, minGain);
            g = std::min(g, maxGain);
        }
        const float error = std::fabs(total - e * g);
        const bool better = k == 1 || error < bestError ||
                            (error == bestError && (e < bestExposure || (e == bestExposure && g < bestGain)));
        if (better) {
            bestError = error;
            bestExposure = e;
            bestGain = g;
        }
    }
    exposureOut = bestExposure;
    gainOut = bestGain;
}

void AutoExposureAntiFlicker::Split(float total, float& exposureOut, float& gainOut, const char* label) {
    const bool periodUsable = flickerPeriod > 0.0f && std::isfinite(flickerPeriod);
    if (switchesMode_) {
        const bool wanted = periodUsable && flickerPeriod <= maxExposure && total >= flickerPeriod * minGain;
        if (wanted != (antiFlickerMode != 0)) {
            antiFlickerMode = wanted ? 1 : 0;
            Write(wanted ? "AntiFlickerMode = true" : "AntiFlickerMode = false");
        }
    }
    if (antiFlickerMode != 0 && periodUsable) {
        AntiFlickerSplit(total, exposureOut, gainOut);
        periodSplit_ = true;
    } else {
        PlainSplit(total, exposureOut, gainOut);
    }
    Write(label, total, exposureOut, gainOut);
}

void AutoExposureAntiFlicker::IncreaseExposureGain(float total, float& exposureOut, float& gainOut) {
    Split(total, exposureOut, gainOut, "HybridAutoExposure::IncreaseExposureGain: ");
}

void AutoExposureAntiFlicker::DecreaseExposureGain(float total, float& exposureOut, float& gainOut) {
    Split(total, exposureOut, gainOut, "HybridAutoExposure::DecreaseExposureGain: ");
}

HybridAutoExposure::HybridAutoExposure(float period, const LogSettings& log)
    : AutoExposureAntiFlicker(period, log) {
    switchesMode_ = true;
}

}  // namespace autoexposure
