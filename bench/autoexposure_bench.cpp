// Cost of one AddImage against a plain pass that sums every byte of the same
// frame, measured in the same run. Prints one BENCH line per case.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "autoexposure/AutoExposure.h"
#include "bench/BenchTiming.h"

namespace {

volatile std::uint64_t g_sink = 0;

// The frame pointer passes through a volatile so the compiler cannot assume
// that the bytes are the same as in the previous repetition.
const std::uint8_t* volatile g_frame = nullptr;

std::uint64_t SumBytes(const std::uint8_t* data, std::size_t size) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) sum += data[i];
    return sum;
}

// A sensor-like frame: smooth gradient with noise, so every bin sees traffic.
std::vector<std::uint8_t> MakeFrame(std::int32_t rows, std::int32_t columns) {
    std::vector<std::uint8_t> frame(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns));
    std::uint32_t state = 12345u;
    for (std::int32_t r = 0; r < rows; ++r) {
        for (std::int32_t c = 0; c < columns; ++c) {
            state = state * 1664525u + 1013904223u;
            const int base = (r * 160 / rows) + (c * 80 / columns);
            const int noise = static_cast<int>(state >> 27) - 16;
            frame[static_cast<std::size_t>(r) * static_cast<std::size_t>(columns) + static_cast<std::size_t>(c)] =
                static_cast<std::uint8_t>(std::min(255, std::max(0, base + noise)));
        }
    }
    return frame;
}

// Centre-weighted disc, zero in the corners (a fisheye image circle).
std::vector<std::uint8_t> MakeWeights(std::int32_t rows, std::int32_t columns) {
    std::vector<std::uint8_t> weights(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns));
    const double cy = rows / 2.0, cx = columns / 2.0, radius = std::min(rows, columns) / 2.0;
    for (std::int32_t r = 0; r < rows; ++r) {
        for (std::int32_t c = 0; c < columns; ++c) {
            const double d = std::sqrt((r - cy) * (r - cy) + (c - cx) * (c - cx)) / radius;
            weights[static_cast<std::size_t>(r) * static_cast<std::size_t>(columns) + static_cast<std::size_t>(c)] =
                static_cast<std::uint8_t>(d >= 1.0 ? 0 : 1 + static_cast<int>(7.0 * (1.0 - d)));
        }
    }
    return weights;
}

void RunCase(const char* name, std::int32_t rows, std::int32_t columns, bool weighted) {
    const std::vector<std::uint8_t> frame = MakeFrame(rows, columns);
    autoexposure::AutoExposure engine;
    std::vector<std::uint8_t> weights;
    if (weighted) {
        weights = MakeWeights(rows, columns);
        engine.SetWeights(autoexposure::Image{weights.data(), rows, columns, columns});
        engine.useWeights = 1;
    }
    const autoexposure::Image image{frame.data(), rows, columns, columns};

    const auto baseline = [&] {
        g_frame = frame.data();
        g_sink = g_sink + SumBytes(g_frame, frame.size());
    };
    const auto addImage = [&] {
        engine.AddImage(image);
        // Keep the engine from drifting to its limits and changing its work.
        engine.exposure = 10.0f;
        engine.gain = 2.0f;
    };
    bench::Print(name, bench::Compare({400, 1, 20}, addImage, baseline), bench::Unit::Microseconds);
}

}  // namespace

int main() {
    RunCase("autoexposure_addimage_640x480", 480, 640, false);
    RunCase("autoexposure_addimage_848x800", 800, 848, false);
    RunCase("autoexposure_addimage_weighted_640x480", 480, 640, true);
    RunCase("autoexposure_addimage_weighted_848x800", 800, 848, true);
    return 0;
}
