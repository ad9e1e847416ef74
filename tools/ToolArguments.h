// The command line of the recording's tools: one file to read, and options, some with a value.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tools {

struct ToolOption {
  const char *name;  // "--kind"
  bool takesValue;
  // Applies the option (with its value, or empty); false when the value is not acceptable.
  std::function<bool(const std::string &value)> apply;
};

// Fills `path` with the one argument that is not an option and applies the options in order. False
// for an unknown option, an option without its value, a value refused, or not exactly one file.
inline bool ParseToolArguments(int argc, char **argv, const std::vector<ToolOption> &options, std::string &path) {
  path.clear();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const ToolOption *known = nullptr;
    for (const ToolOption &option : options) {
      if (arg == option.name) known = &option;
    }
    if (known == nullptr) {
      if (!path.empty() || arg.empty() || arg[0] == '-') return false;
      path = arg;
      continue;
    }
    if (known->takesValue && i + 1 >= argc) return false;
    if (!known->apply(known->takesValue ? std::string(argv[++i]) : std::string())) return false;
  }
  return !path.empty();
}

}  // namespace tools
