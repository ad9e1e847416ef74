// Text log of the auto-exposure engine.
//
// The engine runs on every frame, so a log that is off must cost no more than
// one branch: callers test On() (or use AutoExposure::Log, which does) before
// any argument is formatted. When on, each entry is one line made of the
// engine's fixed words followed by their numbers; a number that follows a word
// not ending in a space is separated from it by one space.
//
// Sinks: an optional caller-owned std::ostream, and an optional file opened
// (truncated) from a path. A path that cannot be opened leaves that sink off;
// it never fails the engine.
#pragma once

#include <cstdint>
#include <fstream>
#include <ostream>
#include <string>

namespace autoexposure {

struct LogSettings {
    // Caller-owned stream; must outlive the engine. Null: no stream sink.
    std::ostream* stream = nullptr;
    // State file, for example "c:\Tavix\Logs\AEState.txt". Empty: no file.
    std::string path;
    // Folder for "AE.Weights.png". Empty: the folder of `path` (when a path is given).
    std::string weightsFolder;
};

class EngineLog {
public:
    EngineLog() = default;
    explicit EngineLog(const LogSettings& settings);
    EngineLog(const EngineLog&) = delete;
    EngineLog& operator=(const EngineLog&) = delete;

    bool On() const { return sinkCount_ != 0; }
    bool FileOpen() const { return file_.is_open(); }

    // Full path of "AE.Weights.png", or empty when no folder is known.
    const std::string& WeightsPngPath() const { return weightsPngPath_; }

    template <typename... Args>
    void Line(const Args&... args) {
        if (sinkCount_ == 0) return;
        lastWasSpace_ = true;
        int expand[] = {0, (Put(args), 0)...};
        (void)expand;
        PutEnd();
    }

    void Flush();

private:
    void Put(const char* text);
    void Put(const std::string& text) { Put(text.c_str()); }
    void Put(bool value);
    void Put(double value);
    void Put(float value) { Put(static_cast<double>(value)); }
    void Put(int value) { PutInteger(static_cast<long long>(value)); }
    void Put(unsigned value) { PutInteger(static_cast<long long>(value)); }
    void Put(long long value) { PutInteger(value); }
    void Put(std::uint64_t value) { PutInteger(static_cast<long long>(value)); }
    void PutInteger(long long value);
    void PutSeparator();
    void PutEnd();

    std::ofstream file_;
    std::ostream* sinks_[2] = {nullptr, nullptr};
    int sinkCount_ = 0;
    bool lastWasSpace_ = true;
    std::string weightsPngPath_;
};

// Folder part of a path (up to and including the last '/' or '\'), or empty.
std::string FolderOf(const std::string& path);

}  // namespace autoexposure
