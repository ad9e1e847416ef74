// Entry objects of the auto-exposure engine.
//
// A user (the fisheye exposure control) creates one AutoExposureAPI per stream,
// sets the limits of its sensor, and hands in every frame it wants analysed.
// Decisions come back through two plain function pointers that receive the
// user's context pointer unchanged:
//
//   onSetExposure(context, exposure, gain, flags)
//       called from AddImage, on the caller's thread, after a modification
//       that changed the exposure (flags bit 0, kSetExposure) and/or the gain
//       (flags bit 1, kSetGain). Both values are always the engine's current
//       ones; the flags say which of them are new. Not called when a
//       modification ended on the same values.
//   onImageDone(context, pixelBuffer)
//       called exactly once for every AddImage whose pixelBuffer is not null,
//       also when the frame is refused, after any onSetExposure; the user may
//       release the frame buffer there.
//
// Units are the caller's: exposure in milliseconds (one sensor line is
// 0.019333334 ms), gain as a factor. Gains must be positive.
//
// Rounding: SetRoundingMode chooses how exposure (sensor lines) and gain
// (steps of 1/8) are quantised: 1 = up, 2 = down, any other value = nearest
// (the default). It applies to every later frame.
//
// Engine kinds: Plain, AntiFlicker (exposure in whole flicker periods) and
// Hybrid (anti-flicker while one period at the lowest gain does not
// overexpose, plain in brighter scenes; see HybridAutoExposure).
//
// Not thread-safe: one thread at a time per object (the user serialises).
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "autoexposure/AutoExposure.h"

namespace autoexposure {

enum class EngineKind : std::int32_t { Plain = 0, AntiFlicker = 1, Hybrid = 2 };

// Creation flags.
constexpr std::uint32_t kFlagUseWeights = 0x1;  // apply the weight image given to SetWeights
constexpr std::uint32_t kFlagLog = 0x2;         // write the engine log (stream and/or file)
constexpr std::uint32_t kKnownFlags = kFlagUseWeights | kFlagLog;

// onSetExposure flags.
constexpr std::uint32_t kSetExposure = 0x1;
constexpr std::uint32_t kSetGain = 0x2;

enum class Status : std::int32_t {
    Ok = 0,
    NullPointer = 1,      // a required pointer was null
    InvalidArgument = 2,  // a value or geometry was refused; nothing changed
};

using SetExposureCallback = void (*)(void* context, float exposure, float gain, std::uint32_t flags);
using ImageDoneCallback = void (*)(void* context, const std::uint8_t* pixelBuffer);

struct AutoExposureSettings {
    EngineKind kind = EngineKind::Plain;
    std::uint32_t flags = 0;  // kFlagUseWeights | kFlagLog
    // Flicker period in exposure units (10 ms for 50 Hz mains, 8.333 ms for 60 Hz).
    // Must be positive for AntiFlicker and Hybrid.
    float flickerPeriod = 10.0f;
    SetExposureCallback onSetExposure = nullptr;  // may be null: poll GetExposureGain
    ImageDoneCallback onImageDone = nullptr;      // may be null
    void* context = nullptr;                      // passed back unchanged, may be null
    // Used only with kFlagLog. The fisheye control uses "c:\Tavix\Logs\AEState.txt";
    // "AE.Weights.png" goes to weightsFolder, or else next to the log file.
    std::ostream* logStream = nullptr;
    std::string logPath;
    std::string weightsFolder;
};

class AutoExposureAPI {
public:
    // Creates the entry object. On success `out` holds it and Status::Ok is
    // returned; unknown kinds or flags and a non-positive or non-finite
    // flicker period for AntiFlicker/Hybrid give InvalidArgument.
    static Status Create(const AutoExposureSettings& settings, std::unique_ptr<AutoExposureAPI>& out);

    virtual ~AutoExposureAPI() = default;

    // 0 < minExposure <= maxExposure, both finite.
    virtual Status SetExposureLimits(float minExposure, float maxExposure) = 0;
    // 0 < minGain <= maxGain, both finite.
    virtual Status SetGainLimits(float minGain, float maxGain) = 0;
    // Positive and finite. Accepted for every kind; only AntiFlicker and Hybrid use it.
    virtual Status SetFlickerPeriod(float period) = 0;
    // 1 = up, 2 = down, other = nearest. Always Ok.
    virtual Status SetRoundingMode(std::int32_t mode) = 0;
    // Tells the engine what the sensor currently runs at (for example after a
    // manual exposure), so that the next decision starts from there. Positive, finite.
    virtual Status SetExposureGain(float exposure, float gain) = 0;
    // Copies a weight image (one byte per pixel, same geometry as the frames).
    // Null data removes the weights. Weights are applied only with kFlagUseWeights.
    virtual Status SetWeights(const std::uint8_t* weights, std::int32_t rows, std::int32_t columns,
                              std::int32_t stride) = 0;
    // Analyses one 8-bit frame and reports through the callbacks.
    //  - null pixelBuffer: NullPointer, no callback;
    //  - zero or negative size, stride < columns, more than kMaxPixels pixels,
    //    or weights in use of another geometry: InvalidArgument, no modification;
    //  - otherwise Ok, whether or not the exposure changed.
    virtual Status AddImage(const std::uint8_t* pixelBuffer, std::int32_t rows, std::int32_t columns,
                            std::int32_t stride) = 0;
    // Current exposure and gain. Both pointers are required.
    virtual Status GetExposureGain(float* exposure, float* gain) const = 0;
    virtual EngineKind Kind() const = 0;
};

class CAutoExposure final : public AutoExposureAPI {
public:
    // Throws std::invalid_argument for settings that Create refuses.
    explicit CAutoExposure(const AutoExposureSettings& settings);

    Status SetExposureLimits(float minExposure, float maxExposure) override;
    Status SetGainLimits(float minGain, float maxGain) override;
    Status SetFlickerPeriod(float period) override;
    Status SetRoundingMode(std::int32_t mode) override;
    Status SetExposureGain(float exposure, float gain) override;
    Status SetWeights(const std::uint8_t* weights, std::int32_t rows, std::int32_t columns,
                      std::int32_t stride) override;
    Status AddImage(const std::uint8_t* pixelBuffer, std::int32_t rows, std::int32_t columns,
                    std::int32_t stride) override;
    Status GetExposureGain(float* exposure, float* gain) const override;
    EngineKind Kind() const override { return kind_; }

    // The engine itself, for diagnostics and tuning.
    AutoExposure& Engine() { return *engine_; }

    // Checks settings as Create does.
    static bool ValidSettings(const AutoExposureSettings& settings);

private:
    EngineKind kind_;
    SetExposureCallback onSetExposure_;
    ImageDoneCallback onImageDone_;
    void* context_;
    std::unique_ptr<AutoExposure> engine_;
};

}  // namespace autoexposure
