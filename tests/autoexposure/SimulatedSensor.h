// A simulated 8-bit sensor for closing the auto-exposure loop in tests.
//
// Pixel value = reflectance x light x exposure x gain, clipped at 255. The
// scene is a fixed pattern of reflectances between 0.2 and 1.0 (mean 0.6), so
// frames have a spread of values like a real picture.
#pragma once

#include <cstdint>
#include <vector>

#include "autoexposure/AutoExposure.h"

namespace aetest {

class SimulatedSensor {
public:
    SimulatedSensor(std::int32_t rows, std::int32_t columns, float light);

    // Renders a frame at the given exposure and gain; valid until the next call.
    autoexposure::Image Capture(float exposure, float gain);
    // Mean pixel value of the last frame.
    double LastMean() const { return lastMean_; }
    // Total exposure (exposure x gain) that puts the scene's mean at `value`.
    float TotalForMean(double value) const;

private:
    std::int32_t rows_;
    std::int32_t columns_;
    float light_;
    std::vector<float> reflectance_;
    std::vector<std::uint8_t> frame_;
    double lastMean_ = 0.0;
};

struct LoopResult {
    int modifications = 0;     // frames on which the engine changed exposure or gain
    int lastChangeFrame = -1;  // index of the last such frame
    int reversals = 0;         // changes of sign of the total-exposure step
    float exposure = 0.0f;
    float gain = 0.0f;
    double mean = 0.0;  // mean pixel value of the last frame
};

// Feeds `frames` frames of the sensor to the engine, each captured at the
// engine's current exposure and gain. `observe` (optional) sees every pair.
LoopResult RunClosedLoop(autoexposure::AutoExposure& engine, SimulatedSensor& sensor, int frames,
                         void (*observe)(float exposure, float gain, void* context) = nullptr,
                         void* context = nullptr);

// A frame of one value, with `stride` - `columns` padding bytes of `padding`.
struct OwnedImage {
    std::vector<std::uint8_t> pixels;
    std::int32_t rows = 0;
    std::int32_t columns = 0;
    std::int32_t stride = 0;
    autoexposure::Image View() const {
        autoexposure::Image image;
        image.data = pixels.data();
        image.rows = rows;
        image.columns = columns;
        image.stride = stride;
        return image;
    }
};
OwnedImage UniformImage(std::int32_t rows, std::int32_t columns, std::uint8_t value,
                        std::int32_t stride = 0, std::uint8_t padding = 0);
// A frame whose first `count` pixels (row by row) are `first` and the rest `rest`.
OwnedImage SplitImage(std::int32_t rows, std::int32_t columns, std::int32_t count, std::uint8_t first,
                      std::uint8_t rest);

}  // namespace aetest
