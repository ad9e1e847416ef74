#include "SimulatedSensor.h"

#include <algorithm>
#include <cmath>

namespace aetest {

SimulatedSensor::SimulatedSensor(std::int32_t rows, std::int32_t columns, float light)
    : rows_(rows), columns_(columns), light_(light) {
    reflectance_.resize(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns));
    for (std::int32_t r = 0; r < rows; ++r) {
        for (std::int32_t c = 0; c < columns; ++c) {
            // A horizontal ramp with a vertical ripple: values spread over 0.2..1.0.
            const double ramp = static_cast<double>(c) / std::max(columns - 1, 1);
            const double ripple = 0.5 + 0.5 * std::sin(static_cast<double>(r) * 0.37);
            reflectance_[static_cast<std::size_t>(r) * static_cast<std::size_t>(columns) +
                         static_cast<std::size_t>(c)] = static_cast<float>(0.2 + 0.8 * (0.5 * ramp + 0.5 * ripple));
        }
    }
    frame_.resize(reflectance_.size());
}

autoexposure::Image SimulatedSensor::Capture(float exposure, float gain) {
    const double scale = static_cast<double>(light_) * exposure * gain;
    double sum = 0.0;
    for (std::size_t i = 0; i < frame_.size(); ++i) {
        const double value = std::min(255.0, std::floor(reflectance_[i] * scale));
        frame_[i] = static_cast<std::uint8_t>(value);
        sum += value;
    }
    lastMean_ = sum / static_cast<double>(frame_.size());
    autoexposure::Image image;
    image.data = frame_.data();
    image.rows = rows_;
    image.columns = columns_;
    image.stride = columns_;
    return image;
}

float SimulatedSensor::TotalForMean(double value) const {
    double sum = 0.0;
    for (float r : reflectance_) sum += r;
    const double meanReflectance = sum / static_cast<double>(reflectance_.size());
    return static_cast<float>(value / (meanReflectance * light_));
}

LoopResult RunClosedLoop(autoexposure::AutoExposure& engine, SimulatedSensor& sensor, int frames,
                         void (*observe)(float, float, void*), void* context) {
    LoopResult result;
    int lastSign = 0;
    for (int frame = 0; frame < frames; ++frame) {
        const float exposure = engine.exposure;
        const float gain = engine.gain;
        engine.AddImage(sensor.Capture(exposure, gain));
        if (observe != nullptr) observe(engine.exposure, engine.gain, context);
        const float before = exposure * gain;
        const float after = engine.exposure * engine.gain;
        if (engine.exposure != exposure || engine.gain != gain) {
            ++result.modifications;
            result.lastChangeFrame = frame;
            const int sign = after > before ? 1 : (after < before ? -1 : 0);
            if (sign != 0) {
                if (lastSign != 0 && sign != lastSign) ++result.reversals;
                lastSign = sign;
            }
        }
    }
    sensor.Capture(engine.exposure, engine.gain);
    result.mean = sensor.LastMean();
    result.exposure = engine.exposure;
    result.gain = engine.gain;
    return result;
}

OwnedImage UniformImage(std::int32_t rows, std::int32_t columns, std::uint8_t value, std::int32_t stride,
                        std::uint8_t padding) {
    if (stride == 0) stride = columns;
    OwnedImage owned;
    owned.pixels.assign(static_cast<std::size_t>(rows) * static_cast<std::size_t>(stride), padding);
    for (std::int32_t r = 0; r < rows; ++r) {
        std::fill_n(owned.pixels.begin() + static_cast<std::ptrdiff_t>(r) * stride, columns, value);
    }
    owned.rows = rows;
    owned.columns = columns;
    owned.stride = stride;
    return owned;
}

OwnedImage SplitImage(std::int32_t rows, std::int32_t columns, std::int32_t count, std::uint8_t first,
                      std::uint8_t rest) {
    OwnedImage owned = UniformImage(rows, columns, rest);
    std::fill_n(owned.pixels.begin(), count, first);
    return owned;
}

}  // namespace aetest
