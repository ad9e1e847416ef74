#include "autoexposure/EngineLog.h"

#include <cstring>

namespace autoexposure {

namespace {
const char kWeightsPngName[] = "AE.Weights.png";
}

std::string FolderOf(const std::string& path) {
    const std::string::size_type slash = path.find_last_of("/\\");
    if (slash == std::string::npos) return std::string();
    return path.substr(0, slash + 1);
}

EngineLog::EngineLog(const LogSettings& settings) {
    if (settings.stream != nullptr) sinks_[sinkCount_++] = settings.stream;
    if (!settings.path.empty()) {
        file_.open(settings.path, std::ios::out | std::ios::trunc);
        if (file_.is_open()) sinks_[sinkCount_++] = &file_;
    }
    std::string folder = settings.weightsFolder;
    if (!folder.empty()) {
        const char last = folder.back();
        if (last != '/' && last != '\\') folder += '/';
        weightsPngPath_ = folder + kWeightsPngName;
    } else if (!settings.path.empty()) {
        weightsPngPath_ = FolderOf(settings.path) + kWeightsPngName;
    }
}

void EngineLog::Put(const char* text) {
    for (int i = 0; i < sinkCount_; ++i) *sinks_[i] << text;
    const std::size_t length = std::strlen(text);
    if (length != 0) lastWasSpace_ = text[length - 1] == ' ';
}

void EngineLog::PutSeparator() {
    if (!lastWasSpace_) {
        for (int i = 0; i < sinkCount_; ++i) *sinks_[i] << ' ';
    }
    lastWasSpace_ = false;
}

void EngineLog::Put(bool value) { Put(value ? "true" : "false"); }

void EngineLog::Put(double value) {
    PutSeparator();
    for (int i = 0; i < sinkCount_; ++i) *sinks_[i] << value;
}

void EngineLog::PutInteger(long long value) {
    PutSeparator();
    for (int i = 0; i < sinkCount_; ++i) *sinks_[i] << value;
}

void EngineLog::PutEnd() {
    for (int i = 0; i < sinkCount_; ++i) *sinks_[i] << '\n';
}

void EngineLog::Flush() {
    for (int i = 0; i < sinkCount_; ++i) sinks_[i]->flush();
}

}  // namespace autoexposure
