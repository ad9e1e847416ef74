#include "autoexposure/AutoExposureAPI.h"

#include <cmath>
#include <stdexcept>

namespace autoexposure {

namespace {

bool PositiveFinite(float value) { return std::isfinite(value) && value > 0.0f; }

std::unique_ptr<AutoExposure> MakeEngine(const AutoExposureSettings& settings) {
    LogSettings log;
    if ((settings.flags & kFlagLog) != 0) {
        log.stream = settings.logStream;
        log.path = settings.logPath;
        log.weightsFolder = settings.weightsFolder;
    }
    std::unique_ptr<AutoExposure> engine;
    switch (settings.kind) {
        case EngineKind::AntiFlicker:
            engine.reset(new AutoExposureAntiFlicker(settings.flickerPeriod, log));
            break;
        case EngineKind::Hybrid:
            engine.reset(new HybridAutoExposure(settings.flickerPeriod, log));
            break;
        default:
            engine.reset(new AutoExposure(log));
            break;
    }
    engine->useWeights = (settings.flags & kFlagUseWeights) != 0 ? 1 : 0;
    return engine;
}

}  // namespace

Status AutoExposureAPI::Create(const AutoExposureSettings& settings, std::unique_ptr<AutoExposureAPI>& out) {
    if (!CAutoExposure::ValidSettings(settings)) return Status::InvalidArgument;
    out.reset(new CAutoExposure(settings));
    return Status::Ok;
}

bool CAutoExposure::ValidSettings(const AutoExposureSettings& settings) {
    if ((settings.flags & ~kKnownFlags) != 0) return false;
    switch (settings.kind) {
        case EngineKind::Plain:
            return true;
        case EngineKind::AntiFlicker:
        case EngineKind::Hybrid:
            return PositiveFinite(settings.flickerPeriod);
    }
    return false;
}

CAutoExposure::CAutoExposure(const AutoExposureSettings& settings)
    : kind_(settings.kind),
      onSetExposure_(settings.onSetExposure),
      onImageDone_(settings.onImageDone),
      context_(settings.context) {
    if (!ValidSettings(settings)) throw std::invalid_argument("autoexposure: invalid engine settings");
    engine_ = MakeEngine(settings);
}

Status CAutoExposure::SetExposureLimits(float minExposure, float maxExposure) {
    if (!PositiveFinite(minExposure) || !PositiveFinite(maxExposure) || minExposure > maxExposure) {
        return Status::InvalidArgument;
    }
    engine_->minExposure = minExposure;
    engine_->maxExposure = maxExposure;
    return Status::Ok;
}

Status CAutoExposure::SetGainLimits(float minGain, float maxGain) {
    if (!PositiveFinite(minGain) || !PositiveFinite(maxGain) || minGain > maxGain) {
        return Status::InvalidArgument;
    }
    engine_->minGain = minGain;
    engine_->maxGain = maxGain;
    return Status::Ok;
}

Status CAutoExposure::SetFlickerPeriod(float period) {
    if (!PositiveFinite(period)) return Status::InvalidArgument;
    if (auto* antiFlicker = dynamic_cast<AutoExposureAntiFlicker*>(engine_.get())) {
        antiFlicker->flickerPeriod = period;
    }
    return Status::Ok;
}

Status CAutoExposure::SetRoundingMode(std::int32_t mode) {
    engine_->roundingMode = mode;
    return Status::Ok;
}

Status CAutoExposure::SetExposureGain(float exposure, float gain) {
    if (!PositiveFinite(exposure) || !PositiveFinite(gain)) return Status::InvalidArgument;
    engine_->exposure = exposure;
    engine_->gain = gain;
    return Status::Ok;
}

Status CAutoExposure::SetWeights(const std::uint8_t* weights, std::int32_t rows, std::int32_t columns,
                                 std::int32_t stride) {
    Image image;
    image.data = weights;
    image.rows = rows;
    image.columns = columns;
    image.stride = stride;
    if (weights != nullptr && !AutoExposure::ValidImage(image)) return Status::InvalidArgument;
    if (weights == nullptr) image = Image();
    return engine_->SetWeights(image) ? Status::Ok : Status::InvalidArgument;
}

Status CAutoExposure::AddImage(const std::uint8_t* pixelBuffer, std::int32_t rows, std::int32_t columns,
                               std::int32_t stride) {
    if (pixelBuffer == nullptr) return Status::NullPointer;

    Image image;
    image.data = pixelBuffer;
    image.rows = rows;
    image.columns = columns;
    image.stride = stride;

    Status status = Status::Ok;
    const bool weighted = engine_->useWeights != 0 && engine_->HasWeights();
    if (rows == 0 || columns == 0) {
        engine_->AddImage(image);  // logs the empty frame, changes nothing
        status = Status::InvalidArgument;
    } else if (!AutoExposure::ValidImage(image) || (weighted && !engine_->WeightsMatch(image))) {
        status = Status::InvalidArgument;
    } else {
        const float exposureBefore = engine_->exposure;
        const float gainBefore = engine_->gain;
        if (engine_->AddImage(image) && onSetExposure_ != nullptr) {
            std::uint32_t flags = 0;
            if (engine_->exposure != exposureBefore) flags |= kSetExposure;
            if (engine_->gain != gainBefore) flags |= kSetGain;
            if (flags != 0) onSetExposure_(context_, engine_->exposure, engine_->gain, flags);
        }
    }
    if (onImageDone_ != nullptr) onImageDone_(context_, pixelBuffer);
    return status;
}

Status CAutoExposure::GetExposureGain(float* exposure, float* gain) const {
    if (exposure == nullptr || gain == nullptr) return Status::NullPointer;
    engine_->GetExposureGain(*exposure, *gain);
    return Status::Ok;
}

}  // namespace autoexposure
